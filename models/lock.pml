/* SPDX-License-Identifier: MIT
 *
 * The semaphore of src/cross_linux/lock.cpp, which sleeps by condition.cpp beside it, as a model:
 * every interleaving of takers (with and without time-out), givers and a destroyer; and, with USERS,
 * of threads that use it as a mutex.
 * A recursive lock is used so: what its holder knows beside is touched after its take and before
 * its give.
 * Run by scripts/check/model.
 *
 * Proved: no taker sleeps for ever beside a unit (spin reports it as an invalid end state), nor
 * until another sleeper has run, units are conserved up to the ceiling, a binary lock excludes, and
 * no give touches the lock after it has been destroyed.
 */
#ifndef USERS
#define USERS 0 /* threads that take the unit and give it back, the last with a time-out */
#endif
#ifndef PATIENT
#define PATIENT 2 /* takers without time-out */
#endif
#ifndef HASTY
#define HASTY 1 /* takers whose time-out may pass at any moment */
#endif
#ifndef GIVERS
#define GIVERS (PATIENT + HASTY) /* one unit each: the patient takers must all return */
#endif
#ifndef MAX
#define MAX GIVERS /* dwMaxCount */
#endif

byte count;      /* the units in dwCount */
bool flag;       /* kSleepers in dwCount */
byte sleepers;   /* dwSleepers */
byte publishing; /* dwGivers */
bool mutex;
byte number;  /* dwSignals */
byte asleep;  /* threads that the kernel has put to sleep */
byte signals; /* wake-ups sent to them and not yet received */
byte taken, done, inside;
bool destroyed;

inline Touch() { assert(!destroyed) }
inline LockMutex() { atomic { !mutex -> Touch(); mutex = true } }
inline UnlockMutex() { atomic { Touch(); mutex = false } }
/* A wake-up without sleepers is lost. */
inline Signal() {
    atomic { Touch(); number++ }
    atomic { Touch(); if :: signals < asleep -> signals++ :: else fi }
}

/* The kernel puts nobody to sleep for whom the number has changed meanwhile.  A time-out may eat the
 * wake-up that was meant for another. */
inline Sleep(hasty) {
    seen = number; /* under the mutex */
    UnlockMutex();
    if
    :: atomic { seen != number }
    :: atomic { seen == number -> asleep++ }
       if
       :: atomic { signals > 0 -> signals--; asleep-- }
       :: atomic { hasty -> asleep--; expired = true;
                   if :: signals > asleep -> signals = asleep :: else fi }
       fi
    fi
    LockMutex()
}

/* dwCount is one word: each step is one atomic operation on units and flag together. */
inline TryTake() {
    atomic { Touch(); if :: count > 0 -> count--; got = true :: else fi }
}

inline TakeOrMark() {
    atomic { Touch(); if :: count > 0 -> count--; got = true :: else -> flag = true fi }
}

inline LeaveSleepers() {
    sleepers--;
    if
    :: sleepers == 0 -> atomic { Touch(); flag = false }
    :: else ->
        atomic { Touch(); flag = true; left = count > 0 }
        if :: left -> Signal() :: else fi
    fi
}

inline Take(hasty) {
    got = false; expired = false;
    TryTake();
    if
    :: got
    :: else ->
        LockMutex();
        sleepers++;
        TakeOrMark();
        do
        :: got || expired -> break
        :: else -> Sleep(hasty); TakeOrMark()
        od
        LeaveSleepers();
        UnlockMutex()
    fi
}

inline Raise() { if :: count < MAX -> count++ :: else fi; assert(count <= MAX) }

inline Give() {
    /* The fast path: one exchange, and nothing after it. */
    atomic { Touch(); if :: flag -> slow = true :: else -> slow = false; Raise() fi }
    if
    :: slow ->
        LockMutex();
        atomic { Touch(); publishing++ }
        atomic { Touch(); Raise(); flag = (sleepers > count && MAX > count) }
        UnlockMutex();
        Signal();
        atomic { Touch(); publishing-- } /* the last touch */
    :: else
    fi
}

proctype Taker(bool hasty) {
    bool got, expired, left; byte seen;
    Take(hasty);
    atomic { assert(got || hasty); if :: got -> taken++ :: else fi; done++ }
}

proctype Giver() {
    bool slow;
    Give()
}

proctype User(bool hasty) {
    bool got, expired, left, slow; byte seen;
    Take(hasty);
    assert(got || hasty);
    if
    :: got -> inside++; assert(inside == 1); inside--; Give()
    :: else
    fi
    done++
}

/* A sleeper without a signal beside a unit that neither a taker on its way nor a give still inside
 * will see to: it would have to wait until some sleeper has run. */
proctype Watch() {
end:
    atomic {
        !mutex && publishing == 0 && asleep > signals && count > sleepers - asleep + signals ->
            assert(false)
    }
}

#define START(number, process) i = 0; do :: i < number -> i++; run process :: else -> break od

init {
    byte i;
    atomic {
        run Watch();
        count = (USERS > 0 -> 1 : 0);
        START(USERS, User(i == USERS));
        START(PATIENT, Taker(false));
        START(HASTY, Taker(true));
        START(GIVERS, Giver())
    }
    /* Once every unit has been taken, and no taker is left, the owner may destroy the lock, though
     * givers may still be inside. */
    done == PATIENT + HASTY + USERS;
    assert(USERS == 0 || count == 1);
    if
    :: taken == GIVERS -> publishing == 0; destroyed = true
    :: else
    fi
}
