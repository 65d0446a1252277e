/* SPDX-License-Identifier: MIT
 *
 * The life of two tasks of src/task as a model: every interleaving of their threads, of an owner who
 * creates, reuses and destroys, of handlers that work on each other's tasks, and of a caller from
 * outside.  Run by scripts/check/model.
 *
 * Proved: nobody touches a record or the manager after it has been freed, each is freed once, every
 * accepted event and every timer is told once, no lock is left held, and the only end is "everything
 * freed" (spin reports anything else as an invalid end state), so nobody waits for ever.  One
 * allocation may fail, wherever there is one.  And no thread sleeps beside a timer that it has not
 * seen, or without having left word that it does.
 *
 * A lock's and a queue's operations are one step each: lock.pml and queue.pml prove them.  What
 * happens under a lock without waiting for another is one step, too.  Time passes or not, as it
 * likes; a wait of a thread expires WAITS times at most, so that nothing is found only because a wait
 * expires.  The lists' limits are taken to be reached or not, as if more tasks stood beside these two.
 */
#ifndef NEW
#define NEW 2 /* calls of AppTaskMgrNewTask, by the owner or a handler */
#endif
#ifndef ACTS
#define ACTS 2 /* other operations, by the owner, a handler or the caller */
#endif
#ifndef WAITS
#define WAITS 1 /* waits that expire */
#endif
#ifndef CALLER
#define CALLER 0 /* 1: a caller from outside takes part, with one operation */
#endif
#define TASKS 2
#define NOBODY TASKS
#define OWNER TASKS /* the handlers of task 0 and 1 come before him */
#define CALLERS (TASKS + 2)
#define OUTSIDER (TASKS + 1)

mtype = { INIT, RUNNING, PROCESSING, IDLE, TERMINATE, UNINIT }; /* dwState */
mtype = { NOWHERE, ACTIVE, PARKED };                            /* the list that holds a task */
mtype = { NOTHING, EVENT, STOP, END, REFRESH };                 /* what a thread serves */
mtype = { NO, ACT, NEWTASK };                                   /* what the application does, */
mtype = { SEND, TERMINATES, TIMER, CANCEL, REPORT };            /* to a task */

typedef Task {
    mtype state;
    mtype list;
    bool lock;         /* hLock is taken */
    bool exit;         /* the unit of hExitLock */
    byte users;        /* dwUsers */
    bool end, refresh; /* dwRequests */
    byte events;       /* queued: the application's, */
    byte stops;        /* and requests to go idle, which pass them */
    bool asleep;       /* the thread waits in the queue, */
    bool promised;     /* has been promised an event, */
    bool interrupted;  /* will find that its next wait is over, */
    bool unit;         /* and gets the unit that wakes it */
    bool timer;        /* a timer runs, */
    bool seen;         /* for which the thread will wake by itself */
    bool waits;        /* dwWait: the thread waits, or is about to, for no other timer */
    bool owner;        /* pfnHandler is set: somebody hears what is told; */
    bool stale;        /* a new one, of whom the thread knows nothing yet */
    bool made, freed;
    bool known;        /* the application has the handle, and the task has not ended by itself */
}

Task task[TASKS];
bool manager;    /* its hLock is taken */
bool quit;       /* bQuit */
byte leaving;    /* dwLeaving */
bool left;       /* the unit of hLeftLock */
bool releasing;  /* the third phase of the destruction */
bool gone;       /* the manager has been freed */
byte events;     /* accepted and not yet told */
byte timers;     /* set and not yet told */
mtype called[CALLERS]; /* the application's code that runs, and what it does */
byte acts = ACTS, news = NEW, waits = WAITS;
bool scarce = 1; /* one allocation may fail */

inline Touch(t) { assert(task[t].made && !task[t].freed) }
inline TouchManager() { assert(!gone) }
inline Lock(t) { !task[t].lock; Touch(t); task[t].lock = true }
inline Unlock(t) { Touch(t); assert(task[t].lock); task[t].lock = false }
inline LockManager() { !manager; TouchManager(); manager = true }
inline UnlockManager() { TouchManager(); manager = false }
#define Admits(t) (task[t].state == INIT || task[t].state == RUNNING || task[t].state == PROCESSING)
#define Listed(t) (task[t].list == ACTIVE || task[t].list == PARKED)
#define Leaves(t) (task[t].state == TERMINATE || task[t].state == UNINIT)

/* ---- the queue ------------------------------------------------------------------------------- */

inline Wake(t) { Touch(t); assert(!task[t].unit); task[t].unit = true }

inline WakeIfAsked(t) {
    if :: atomic { wake -> Wake(t); wake = false } :: !wake fi
}

/* app::QueueInterrupt, in its two steps */
inline PlaceInterrupt(t) {
    atomic {
        Touch(t);
        if
        :: task[t].asleep -> task[t].asleep = false; wake = true
        :: else -> task[t].interrupted = true
        fi
    }
}
inline Interrupt(t) { PlaceInterrupt(t); WakeIfAsked(t) }

inline Unlink(t) {
    if
    :: task[t].stops > 0 -> task[t].stops--; events--; got = STOP
    :: else -> assert(task[t].events > 0); task[t].events--; got = EVENT
    fi
}

inline Timely(t) { assert(!task[t].timer || task[t].seen) }

/* AppQueueOut of the task's thread, which takes back its word that it waits when it has come out; a
 * moment later in truth, and who sets a timer meanwhile interrupts for nothing.  An expired wait that
 * has been promised something already ends with the unit like any other. */
inline Out(t) {
    atomic {
        Touch(t);
        if
        :: task[t].events + task[t].stops > 0 -> Unlink(t); task[t].waits = false
        :: else ->
            if
            :: task[t].interrupted -> task[t].interrupted = false; task[t].waits = false
            :: else -> task[t].asleep = true; asleep = true; assert(task[t].waits); Timely(t)
            fi
        fi
    }
    if
    :: atomic { asleep && task[t].unit ->
                Touch(t); task[t].unit = false; asleep = false; task[t].waits = false;
                if :: task[t].promised -> task[t].promised = false; Unlink(t) :: else fi }
    :: atomic { asleep && task[t].asleep && waits > 0 ->
                Touch(t); waits--; task[t].asleep = false; asleep = false;
                task[t].waits = false }
    :: !asleep
    fi
}

/* ---- the end of a record --------------------------------------------------------------------- */

inline DropUser(t) {
    atomic { !task[t].lock -> Touch(t); task[t].users--; last = task[t].users == 0 }
}

/* The bit first: the thread looks at it before each wait. */
#define Request(t, request) atomic { Touch(t); task[t].request = true } Interrupt(t)

inline Free(t) {
    atomic {
        Touch(t);
        assert(!task[t].lock && task[t].users == 0 && task[t].events == 0 && task[t].stops == 0 &&
               !task[t].timer && !task[t].unit);
        task[t].freed = true
    }
}

inline EndLeaving() {
    atomic { !manager -> TouchManager(); leaving--; if :: quit -> left = true :: else fi }
}

/* ---- what the application does --------------------------------------------------------------- */

/* From here on `o` is the task that is worked on.  The application works on a task whose handle it
 * has; only a caller from outside must have come back before the destruction does. */
#define Barred (!task[o].known || (me == OUTSIDER && releasing))

/* AppTaskSendEvent and AppTaskTerminate: under the queue's lock alone. */
inline Send(what) {
    atomic { /* hEventQueue->hLock */
        if
        :: Barred
        :: !Barred ->
            Touch(o);
            if
            :: Admits(o) && scarce -> scarce = false /* refused */
            :: Admits(o) ->
                assert(task[o].owner);
                events++;
                if :: what == SEND -> task[o].events++ :: else -> task[o].stops++ fi;
                if
                :: task[o].asleep -> task[o].asleep = false; task[o].promised = true; wake = true
                :: else
                fi
            :: !Admits(o) /* refused */
            fi
        fi
    }
    WakeIfAsked(o)
}

inline SetTimer() {
    atomic {
        if
        :: Barred
        :: !Barred && !task[o].lock ->
            Touch(o);
            if
            :: Admits(o) && !task[o].timer ->
                task[o].timer = true; timers++;
                task[o].seen = false;
                if
                :: task[o].waits ->
                    task[o].waits = false;
                    if
                    :: task[o].asleep -> task[o].asleep = false; wake = true
                    :: else -> task[o].interrupted = true
                    fi
                :: else
                fi;
                assert(!task[o].asleep)
            :: else
            fi
        fi
    }
    WakeIfAsked(o)
}

/* AppTaskCancelTimer: the timer's handler runs here, and may use the task. */
inline CancelTimer() {
    atomic {
        if
        :: Barred
        :: !Barred && !task[o].lock ->
            Touch(o);
            if
            :: Admits(o) && task[o].timer ->
                task[o].users++; inside = true;
                task[o].timer = false; timers--
            :: else
            fi
        fi
    }
    if
    :: inside ->
        DropUser(o);
        if :: last -> atomic { Touch(o); task[o].exit = true; last = false } :: else fi;
        inside = false
    :: else
    fi
}

/* AppTaskMgrShow: takes a task's lock with a short time-out only. */
inline Report() {
    atomic {
        if
        :: me == OUTSIDER && releasing
        :: !(me == OUTSIDER && releasing) && !manager ->
            TouchManager();
            if :: Listed(0) -> Touch(0) :: else fi;
            if :: Listed(1) -> Touch(1) :: else fi
        fi
    }
}

/* ---- a new task ------------------------------------------------------------------------------ */

/* With the manager's lock: the task goes to a new owner, unless its thread has chosen to end. */
inline Reuse(t) {
    atomic { Lock(t); assert(!Admits(t)) }
    if
    :: atomic { task[t].state == IDLE -> found = t }
        if
        :: atomic { task[t].owner = true; task[t].list = ACTIVE; task[t].known = true;
                    task[t].stale = true; task[t].state = RUNNING; task[t].refresh = true }
            PlaceInterrupt(t)
        :: atomic { task[t].list = NOWHERE; failed = t } /* more events wait than it allows */
        fi
    :: task[t].state != IDLE
    fi;
    atomic { Unlock(t) }
}

inline Create(t) {
    found = t;
    if
    :: atomic { scarce -> scarce = false }
    :: atomic { task[t].made = true; task[t].state = INIT; task[t].users = 1; task[t].owner = true;
                task[t].list = NOWHERE; run Thread(t) }
        if
        :: atomic { scarce -> scarce = false; failed = t } /* not appended */
        :: atomic { task[t].list = ACTIVE; task[t].known = true }
        fi
    fi
}

inline NewTask() {
    atomic { LockManager(); found = NOBODY; failed = NOBODY; if :: i = 0 :: i = 1 fi }
    if
    :: quit /* refused */
    :: else ->
        if :: task[i].list == PARKED -> Reuse(i) :: else fi;
        if :: found == NOBODY && task[1 - i].list == PARKED -> Reuse(1 - i) :: else fi;
        if
        :: found == NOBODY && !task[0].made -> Create(0)
        :: found == NOBODY && task[0].made && !task[1].made -> Create(1)
        :: else
        fi;
        if :: failed != NOBODY -> leaving++; Request(failed, end) :: else fi
    fi;
    atomic { UnlockManager() }
    if :: found != NOBODY -> WakeIfAsked(found) :: else fi;
    if
    :: failed != NOBODY ->
        atomic { task[failed].exit -> Touch(failed); task[failed].exit = false }
        task[failed].known = false;
        Free(failed);
        EndLeaving()
    :: else
    fi;
    atomic { i = 0; found = 0; failed = 0 }
}

/* One operation at most: a handler, the owner, or a caller from outside who comes at any time. */
proctype Application(byte me) {
    byte i, o, found, failed;
    mtype act;
    bool wake, inside, last;

end:
    do
    :: called[me] == NEWTASK -> NewTask(); called[me] = NO
    :: atomic { called[me] == ACT ->
                if :: o = 0 :: o = 1 fi;
                if
                :: act = SEND
                :: act = TERMINATES
                :: act = TIMER
                :: act = CANCEL
                :: act = REPORT
                fi }
        if
        :: act == SEND || act == TERMINATES -> Send(act)
        :: act == TIMER -> SetTimer()
        :: act == CANCEL -> CancelTimer()
        :: act == REPORT -> Report()
        fi;
        atomic { act = 0; o = 0; called[me] = NO }
    od
}

/* The application runs, and may do something. */
inline Call() {
    if
    :: atomic { acts > 0 -> acts--; called[me] = ACT } called[me] == NO
    :: atomic { news > 0 -> news--; called[me] = NEWTASK } called[me] == NO
    :: true
    fi
}

/* Cancels the timers, under the lock that is given for each notice, and drops the events. */
inline TellRest(t) {
    do
    :: atomic { task[t].timer && !task[t].lock -> Touch(t); task[t].timer = false;
                assert(task[t].owner); timers-- }
        Call()
    :: !task[t].timer -> break
    od;
    do
    :: atomic { task[t].events + task[t].stops > 0 -> Touch(t); Unlink(t);
                if :: got == EVENT -> assert(task[t].owner); events-- :: else fi; got = NOTHING }
        Call()
    :: task[t].events + task[t].stops == 0 -> break
    od
}

/* ---- the task's thread ----------------------------------------------------------------------- */

inline NextRequest(t) {
    atomic {
        Touch(t);
        if
        :: task[t].end -> got = END; task[t].waits = false
        :: !task[t].end && task[t].refresh ->
            task[t].refresh = false; got = REFRESH; task[t].waits = false
        :: else
        fi
    }
}

/* A time-out may have passed: the state changes at once, so that no event is admitted and no owner
 * found before the thread serves it.  What came since the wait ended counts. */
inline AfterWait(t) {
    atomic {
        !task[t].lock; Touch(t);
        if
        :: task[t].events + task[t].stops > 0 || task[t].refresh
        :: else ->
            if
            :: task[t].state == RUNNING -> task[t].state = IDLE; got = STOP
            :: task[t].state == IDLE -> task[t].state = TERMINATE; got = END
            :: true
            fi
        fi
    }
}

/* And leaves word how long it will wait. */
inline Announce(t) { atomic { !task[t].lock; Touch(t); task[t].seen = true; task[t].waits = true } }

inline RunTimers(t) {
    if
    :: atomic { task[t].timer && !task[t].lock -> Touch(t); task[t].timer = false;
                assert(task[t].owner); timers-- }
        Call()
    :: true
    fi;
    Announce(t)
}

inline GoForIdle(t) {
    atomic { Lock(t); assert(task[t].state == IDLE || task[t].state == PROCESSING);
             task[t].state = IDLE; Unlock(t) }
    TellRest(t);
    if :: task[t].owner -> Call() :: else fi; /* STOP */
    atomic { Lock(t); task[t].owner = false; Unlock(t) }
    atomic {
        !manager && !task[t].lock; TouchManager(); Touch(t);
        if
        :: task[t].end /* stays where it is */
        :: else ->
            assert(task[t].list == ACTIVE);
            if
            :: task[t].list = PARKED
            :: task[t].list = NOWHERE; task[t].state = UNINIT; leaving++
            fi
        fi
    }
}

inline GoForTerminate(t) {
    atomic { LockManager() }
    atomic {
        !task[t].lock; Touch(t);
        assert(task[t].state == IDLE || task[t].state == PROCESSING || task[t].state == TERMINATE);
        task[t].state = TERMINATE;
        if
        :: task[t].end /* awaited */
        :: else ->
            assert(task[t].list == PARKED);
            task[t].list = NOWHERE; task[t].state = UNINIT; leaving++
        fi;
        UnlockManager()
    }
}

/* Gives the thread its new name; a late one would revive a task. */
inline Refresh(t) {
    atomic { !task[t].lock; Touch(t); assert(Admits(t)); task[t].stale = false }
    RunTimers(t)
}

inline Serve(t) {
    atomic { Touch(t);
             assert(got == END || !task[t].stale); /* the new owner's come later */
             if :: task[t].state == RUNNING -> task[t].state = PROCESSING :: else fi }
    if
    :: got == EVENT ->
        atomic { assert(task[t].owner); events--; got = NOTHING }
        Call()
    :: got == STOP -> got = NOTHING; GoForIdle(t)
    :: got == END -> got = NOTHING; GoForTerminate(t)
    fi
}

inline Leave(t) {
    if
    :: task[t].state == TERMINATE ->
        DropUser(t);
        if :: last -> atomic { Touch(t); task[t].exit = true } :: else fi
    :: task[t].state == UNINIT ->
        DropUser(t);
        if :: !last -> atomic { task[t].exit -> Touch(t); task[t].exit = false } :: last fi;
        task[t].known = false;
        Free(t);
        EndLeaving()
    fi
}

inline Wait(t) {
    Out(t);
    if
    :: got != NOTHING ->
        /* Reused since the last look: what came is the new owner's. */
        if :: atomic { task[t].refresh -> task[t].refresh = false } Refresh(t) :: !task[t].refresh fi
    :: else ->
        NextRequest(t);
        if :: got == NOTHING -> AfterWait(t); RunTimers(t) :: else fi
    fi
}

proctype Thread(byte me) {
    mtype got = NOTHING;
    bool asleep, last;

    atomic { !task[me].lock; Touch(me); task[me].state = RUNNING }
    Announce(me);
    do
    :: NextRequest(me);
        if :: got == NOTHING -> Wait(me) :: else fi;
        if
        :: got == NOTHING
        :: got == REFRESH -> got = NOTHING; Refresh(me)
        :: else ->
            Serve(me);
            atomic { Touch(me);
                     if :: task[me].state == PROCESSING -> task[me].state = RUNNING :: else fi }
            if
            :: Leaves(me) -> break
            :: !Leaves(me) && task[me].events + task[me].stops > 0 /* the next at once */
            :: !Leaves(me) -> RunTimers(me)
            fi
        fi
    od;
    Leave(me)
}

/* ---- the owner ------------------------------------------------------------------------------- */

#define ForEachTask(step) \
    if :: Listed(0) -> step(0) :: else fi; \
    if :: Listed(1) -> step(1) :: else fi

inline AwaitLeft(t) { atomic { task[t].exit -> Touch(t) } }

inline RequestEnd(t) { Request(t, end) }

inline AwaitLeaving() {
    do
    :: atomic { !manager -> TouchManager(); last = leaving == 0 }
        if :: last -> break :: else -> atomic { left -> left = false } fi
    od;
    last = false
}

inline Destroy() {
    atomic { LockManager(); quit = true }
    ForEachTask(RequestEnd);
    atomic { UnlockManager() }
    AwaitLeaving();
    ForEachTask(AwaitLeft);
    ForEachTask(TellRest);
    releasing = true;
    ForEachTask(Free);
    atomic { assert(!gone && !manager); gone = true }
}

proctype Owner() {
    byte me = OWNER;
    mtype got = NOTHING;
    bool wake, last;

    do
    :: acts > 0 || news > 0 -> Call()
    :: break
    od;
    Destroy();
    assert(events == 0 && timers == 0 && leaving == 0);
    assert(task[0].made == task[0].freed && task[1].made == task[1].freed)
}

init {
    atomic {
        run Application(0);
        run Application(1);
        run Application(OWNER);
        run Owner();
        if :: CALLER -> called[OUTSIDER] = ACT; acts--; run Application(OUTSIDER) :: else fi
    }
}
