// SPDX-License-Identifier: MIT
#ifndef APPCORE_CROSS_LINUX_CONDITION_H
#define APPCORE_CROSS_LINUX_CONDITION_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include <atomic>

extern "C" {

// A condition variable on the kernel's futex(2).  The threading library's has lost wake-ups in several
// C libraries of the field, and takes longer; no wait on this one needs to look again after a while.
// Nothing has to be created or destroyed: all zeros is one that nobody waits for.
struct TAppCondition {
    std::atomic<uint32_t> dwSignals; // modulo 2^32
};

// Gives the mutex, sleeps until a signal, a signal of the system or, when given, an instant of the
// monotonic clock, and takes the mutex again.  May end early: the caller looks at what it waits for.
// 0, or -1 when it did not sleep; errno stays as it is.
int _AppConditionWait(TAppCondition *ptCondition, pthread_mutex_t *ptMutex,
                      const struct timespec *ptEnd);
// Wakes one of those who wait: at least one that began to before the caller's last hold of the mutex,
// if any does still.  Any thread, with the mutex or without.  -1: the system refused it.
int _AppConditionSignal(TAppCondition *ptCondition);

} // extern "C"

#endif
