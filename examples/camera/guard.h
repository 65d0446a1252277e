// SPDX-License-Identifier: MIT
//
// A lock that is there before the camera's pool, held to the end of a block.  std::mutex would
// bring the C++ run time with it: more memory than all of the camera.
#ifndef CAMERA_GUARD_H
#define CAMERA_GUARD_H

#include <pthread.h>

namespace camera
{

struct TMutex {
    pthread_mutex_t tMutex = PTHREAD_MUTEX_INITIALIZER;
};

class Guard
{
public:
    explicit Guard(TMutex &tMutex) : m_tMutex(tMutex) { pthread_mutex_lock(&m_tMutex.tMutex); }
    ~Guard() { pthread_mutex_unlock(&m_tMutex.tMutex); }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

private:
    TMutex &m_tMutex;
};

} // namespace camera

#endif
