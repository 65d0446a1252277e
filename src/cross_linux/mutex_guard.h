// SPDX-License-Identifier: MIT
#ifndef APPCORE_CROSS_LINUX_MUTEX_GUARD_H
#define APPCORE_CROSS_LINUX_MUTEX_GUARD_H

#include <pthread.h>

namespace app
{

// Holds a mutex for a scope; Unlock() ends the holding early.
class [[nodiscard]] MutexGuard
{
public:
    explicit MutexGuard(pthread_mutex_t &tMutex) : m_ptMutex(&tMutex)
    {
        pthread_mutex_lock(m_ptMutex);
    }
    ~MutexGuard() { Unlock(); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

    void Unlock()
    {
        if (m_ptMutex)
            pthread_mutex_unlock(m_ptMutex);
        m_ptMutex = nullptr;
    }

private:
    pthread_mutex_t *m_ptMutex;
};

} // namespace app

#endif
