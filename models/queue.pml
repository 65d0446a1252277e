/* SPDX-License-Identifier: MIT
 *
 * The hand-over of elements in src/utils/queue.cpp as a model: every interleaving of consumers
 * (with and without time-out), producers, an interrupt and a destroyer.  Run by
 * scripts/check/model.
 *
 * Proved: no consumer sleeps for ever beside an element or an interrupt, a woken consumer always
 * finds the one or the other, no interrupt is lost, no count is left over, and neither producer nor
 * interrupter touches the queue after it has been destroyed.  What happens under hLock is one step,
 * and hCountLock a plain semaphore: lock.pml proves both.
 */
#ifndef PATIENT
#define PATIENT 2 /* consumers without time-out */
#endif
#ifndef HASTY
#define HASTY 2 /* consumers whose time-out may pass at any moment */
#endif
#define CONSUMERS (PATIENT + HASTY)
/* One element each, and the interrupt for one of them: the patient consumers must all return. */
#define PRODUCERS (CONSUMERS - 1)

byte size;        /* dwCurSize */
byte sleepers;    /* dwSleepers */
byte promised;    /* dwPromised */
byte interrupted; /* dwInterrupted */
bool mark;        /* bInterrupt */
byte units;       /* of hCountLock */
byte taken, told, done, left;
bool destroyed;

inline Touch() { assert(!destroyed) }
inline Unlink() { assert(size > 0); size-- }

proctype Producer() {
    bool wake;
    atomic {
        Touch();
        size++;
        if :: sleepers > 0 -> sleepers--; promised++; wake = true :: else fi
    }
    if :: wake -> atomic { Touch(); units++ } :: else fi
    left++
}

proctype Interrupter() {
    bool wake;
    atomic {
        Touch();
        if :: sleepers > 0 -> sleepers--; interrupted++; wake = true :: else -> mark = true fi
    }
    if :: wake -> atomic { Touch(); units++ } :: else fi
    left++
}

proctype Consumer(bool hasty) {
    bool got, hint, expired, late;
    atomic {
        Touch();
        if
        :: size > promised -> Unlink(); got = true
        :: else -> if :: mark -> mark = false; hint = true :: else -> sleepers++ fi
        fi
    }
    if
    :: got || hint
    :: else ->
        if
        :: atomic { units > 0 -> Touch(); units-- }
        :: hasty -> expired = true
        fi
        if
        :: expired ->
            atomic { Touch(); if :: sleepers > 0 -> sleepers-- :: else -> late = true fi }
            if :: late -> atomic { units > 0 -> Touch(); units-- } :: else fi
        :: else
        fi
        if
        :: !expired || late ->
            atomic {
                Touch();
                if
                :: promised > 0 -> promised--; Unlink(); got = true
                :: else -> assert(interrupted > 0); interrupted--; hint = true
                fi
            }
        :: else
        fi
    fi
    atomic {
        assert(got || hint || hasty);
        if :: got -> taken++ :: hint -> told++ :: else fi;
        done++
    }
}

init {
    byte i;
    atomic {
        for (i : 1 .. PATIENT) { run Consumer(false) }
        for (i : 1 .. HASTY) { run Consumer(true) }
        for (i : 1 .. PRODUCERS) { run Producer() }
        run Interrupter()
    }
    /* Once every element and the interrupt have been had, and no consumer is left, the owner may
     * destroy the queue, though producers and interrupter may still be on their way out. */
    done == CONSUMERS;
    if
    :: taken == PRODUCERS && told == 1 -> destroyed = true
    :: else -> left == PRODUCERS + 1; assert(size == PRODUCERS - taken && told + mark == 1)
    fi
    assert(sleepers == 0 && promised == 0 && interrupted == 0 && units == 0)
}
