/* SPDX-License-Identifier: MIT
 *
 * In front of the configuration of the host compiler's C++ headers, which is for glibc: what they ask
 * of the C library is answered for musl, with the values that their run time was built with.
 */
#ifndef APPCORE_MUSL_CXXCONFIG_H
#define APPCORE_MUSL_CXXCONFIG_H

#ifdef __cplusplus
#define _GLIBCXX_OS_DEFINES 1 /* the header of this guard compares versions of glibc */
#define __NO_CTYPE 1
#define _GLIBCXX_GTHREAD_USE_WEAK 0
#define _GLIBCXX_NATIVE_THREAD_ID pthread_self()
#include_next <bits/c++config.h>
#undef _GLIBCXX_USE_PTHREAD_COND_CLOCKWAIT
#undef _GLIBCXX_USE_PTHREAD_MUTEX_CLOCKLOCK
#undef _GLIBCXX_USE_PTHREAD_RWLOCK_CLOCKLOCK
#endif

#include <locale.h>
typedef locale_t __locale_t;

/* Classes of characters. */
enum {
    _ISupper = 1 << 8,
    _ISlower = 1 << 9,
    _ISalpha = 1 << 10,
    _ISdigit = 1 << 11,
    _ISxdigit = 1 << 12,
    _ISspace = 1 << 13,
    _ISprint = 1 << 14,
    _ISgraph = 1 << 15,
    _ISblank = 1 << 0,
    _IScntrl = 1 << 1,
    _ISpunct = 1 << 2,
    _ISalnum = 1 << 3
};

#endif
