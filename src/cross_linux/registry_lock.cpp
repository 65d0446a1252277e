// SPDX-License-Identifier: MIT
#include <pthread.h>

#include "cross_linux/cross_linux.h"

static pthread_mutex_t s_tMutex = PTHREAD_MUTEX_INITIALIZER;

void _AppRegistryLock(void)
{
    pthread_mutex_lock(&s_tMutex);
}

void _AppRegistryUnlock(void)
{
    pthread_mutex_unlock(&s_tMutex);
}
