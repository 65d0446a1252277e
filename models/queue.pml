/* SPDX-License-Identifier: MIT
 *
 * The hand-over of elements in src/utils/queue.cpp as a model: every interleaving of consumers
 * (with and without time-out), producers and a destroyer.  Run by scripts/check/model.
 *
 * Proved: no consumer sleeps for ever beside an element, a woken consumer always finds one, no
 * count is left over, and no producer touches the queue after it has been destroyed.  What happens
 * under hLock is one step, and hCountLock a plain semaphore: lock.pml proves both.
 */
#ifndef PATIENT
#define PATIENT 2 /* consumers without time-out */
#endif
#ifndef HASTY
#define HASTY 2 /* consumers whose time-out may pass at any moment */
#endif
#define PRODUCERS (PATIENT + HASTY) /* one element each: the patient consumers must all return */

byte size;     /* dwCurSize */
byte sleepers; /* dwSleepers */
byte promised; /* dwPromised */
byte units;    /* of hCountLock */
byte taken, done, placed;
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
    placed++
}

proctype Consumer(bool hasty) {
    bool got, expired, late;
    atomic {
        Touch();
        if :: size > promised -> Unlink(); got = true :: else -> sleepers++ fi
    }
    if
    :: got
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
        :: !expired || late -> atomic { Touch(); promised--; Unlink(); got = true }
        :: else
        fi
    fi
    atomic { assert(got || hasty); if :: got -> taken++ :: else fi; done++ }
}

init {
    byte i;
    atomic {
        for (i : 1 .. PATIENT) { run Consumer(false) }
        for (i : 1 .. HASTY) { run Consumer(true) }
        for (i : 1 .. PRODUCERS) { run Producer() }
    }
    /* Once every element has been taken, and no consumer is left, the owner may destroy the queue,
     * though producers may still be on their way out. */
    done == PATIENT + HASTY;
    if
    :: taken == PRODUCERS -> destroyed = true
    :: else -> placed == PRODUCERS; assert(size == PRODUCERS - taken)
    fi
    assert(sleepers == 0 && promised == 0 && units == 0)
}
