// SPDX-License-Identifier: MIT
#include <errno.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/rollback.h"
#include "cross_linux/cross_linux.h"
#include "cross_linux/error_text.h"

namespace
{

int SetInheritance(pthread_attr_t *ptAttr, int nInherit, const char *szOp)
{
    const int nError = pthread_attr_setinheritsched(ptAttr, nInherit);
    if (nError != 0)
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: pthread_attr_setinheritsched:%s\n", szOp,
               app::ErrorText(nError).Text());
    return nError;
}

int Start(const pthread_attr_t *ptAttr, PFAppThreadEntry pfnEntry, void *pvArg, const char *szOp)
{
    pthread_t tThread;
    const int nError = pthread_create(&tThread, ptAttr, pfnEntry, pvArg);
    if (nError != 0)
        AppLog(0, APP_LOG_ERROR,
               "[ERROR] %s: pthread_create ret %d, try with PTHREAD_INHERIT_SCHED\n", szOp, nError);
    return nError;
}

} // namespace

uint32_t _AppThreadCreate(PFAppThreadEntry pfnEntry, uint32_t dwStackSize, void *pvArg)
{
    pthread_attr_t tAttr;
    if (pthread_attr_init(&tAttr) != 0)
        return APP_FAILED;
    app::Rollback release([&] { pthread_attr_destroy(&tAttr); });
    pthread_attr_setdetachstate(&tAttr, PTHREAD_CREATE_DETACHED); // nothing joins, nothing leaks
    pthread_attr_setschedpolicy(&tAttr, SCHED_OTHER);
    // Refused, a size leaves the default, which is larger than any that is refused as too small.
    pthread_attr_setstacksize(&tAttr, dwStackSize);
    // Else a thread would run with the priority of whoever happens to need it first.
    SetInheritance(&tAttr, PTHREAD_EXPLICIT_SCHED, __func__);
    int nError = Start(&tAttr, pfnEntry, pvArg, __func__);
    if (nError == EINVAL && SetInheritance(&tAttr, PTHREAD_INHERIT_SCHED, __func__) == 0)
        nError = Start(&tAttr, pfnEntry, pvArg, __func__);
    return nError == 0 ? APP_OK : APP_FAILED;
}

// pthread_exit() would load libgcc_s to unwind the stack; the library does without.
void _AppThreadExit(void) {}

int32_t _AppThreadGetTID(void)
{
    return static_cast<int32_t>(syscall(SYS_gettid));
}

void _AppThreadSetName(const char *szName)
{
    prctl(PR_SET_NAME, szName);
}
