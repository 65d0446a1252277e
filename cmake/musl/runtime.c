/* SPDX-License-Identifier: MIT
 *
 * What the C++ run time of the host's compiler, built for glibc, finds there and not in musl: so the
 * tests, in C++ with exceptions, run as static programs for musl.  The library itself needs nothing
 * of it.
 */
#include <bits/c++config.h>
#include <ctype.h>
#include <link.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

char __libc_single_threaded; /* no */

uint32_t arc4random(void)
{
    uint32_t dwBytes = 0;
    getentropy(&dwBytes, sizeof(dwBytes));
    return dwBytes;
}

/* The run time reads the tables of a locale itself.  Its head is what musl reads: the C locale. */
static unsigned short s_awClasses[384];
static int s_anLower[384], s_anUpper[384];
static struct {
    void *apvCategories[13];
    const unsigned short *pwClasses;
    const int *pnLower, *pnUpper;
    const char *aszNames[13];
} s_tLocale = {
    .pwClasses = s_awClasses + 128, .pnLower = s_anLower + 128, .pnUpper = s_anUpper + 128};

static unsigned short ClassesOf(int n)
{
    return (unsigned short)((isupper(n) ? _ISupper : 0) | (islower(n) ? _ISlower : 0) |
                            (isalpha(n) ? _ISalpha : 0) | (isdigit(n) ? _ISdigit : 0) |
                            (isxdigit(n) ? _ISxdigit : 0) | (isspace(n) ? _ISspace : 0) |
                            (isprint(n) ? _ISprint : 0) | (isgraph(n) ? _ISgraph : 0) |
                            (isblank(n) ? _ISblank : 0) | (iscntrl(n) ? _IScntrl : 0) |
                            (ispunct(n) ? _ISpunct : 0) | (isalnum(n) ? _ISalnum : 0));
}

locale_t __newlocale(int nMask, const char *szName, locale_t tBase)
{
    (void)nMask, (void)szName, (void)tBase;
    for (int i = 0; i < 384; ++i) {
        const int n = i - 128;
        s_awClasses[i] = n < 0 ? 0 : ClassesOf(n);
        s_anLower[i] = n < 0 ? n : tolower(n);
        s_anUpper[i] = n < 0 ? n : toupper(n);
    }
    return (locale_t)&s_tLocale;
}
locale_t newlocale(int, const char *, locale_t) __attribute__((alias("__newlocale")));

/* Destructors of a thread's own objects; the first thread's are left to the end of the process. */
typedef struct TAtExit {
    struct TAtExit *ptNext;
    void (*pfnDestroy)(void *);
    void *pvObject;
} TAtExit;

static pthread_key_t s_tKey;
static pthread_once_t s_tOnce = PTHREAD_ONCE_INIT;

static void DestroyObjects(void *pvFirst)
{
    for (TAtExit *pt = pvFirst, *ptNext; pt; pt = ptNext) {
        ptNext = pt->ptNext;
        pthread_setspecific(s_tKey, ptNext);
        pt->pfnDestroy(pt->pvObject);
        free(pt);
    }
}

static void MakeKey(void)
{
    pthread_key_create(&s_tKey, DestroyObjects);
}

int __cxa_thread_atexit_impl(void (*pfnDestroy)(void *), void *pvObject, void *pvModule)
{
    (void)pvModule;
    pthread_once(&s_tOnce, MakeKey);
    TAtExit *pt = malloc(sizeof(*pt));
    if (!pt)
        abort();
    *pt = (TAtExit){pthread_getspecific(s_tKey), pfnDestroy, pvObject};
    return pthread_setspecific(s_tKey, pt);
}

/* Where the tables for exceptions are that belong to an address. */
struct TFound {
    unsigned long long qwFlags;
    void *pvStart, *pvEnd, *pvMap, *pvTables;
};

static int Look(struct dl_phdr_info *ptInfo, size_t nSize, void *pvFound)
{
    struct TFound *ptFound = pvFound;
    (void)nSize;
    for (int i = 0; i < ptInfo->dlpi_phnum; ++i)
        if (ptInfo->dlpi_phdr[i].p_type == PT_GNU_EH_FRAME)
            ptFound->pvTables = (void *)(ptInfo->dlpi_addr + ptInfo->dlpi_phdr[i].p_vaddr);
    return ptFound->pvTables ? 1 : 0;
}

int _dl_find_object(void *pvAddress, struct TFound *ptFound)
{
    (void)pvAddress; /* a static program has one set of tables */
    *ptFound = (struct TFound){.pvEnd = (void *)UINTPTR_MAX};
    return dl_iterate_phdr(Look, ptFound) - 1;
}
