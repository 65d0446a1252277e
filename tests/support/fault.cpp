// SPDX-License-Identifier: MIT
#include "support/fault.h"

#include <dirent.h>
#include <iconv.h>
#include <ifaddrs.h>
#include <mxml.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <mutex>

namespace fault
{

struct Gate {
    std::vector<Fn> fns;
    unsigned nNth;
    int nError;
    unsigned nTimes;
    Scope scope;
    pthread_t tOwner;
    std::function<void()> action;
    unsigned nCalls = 0;
    unsigned nHits = 0;
    Fn last = Fn::malloc;
};

namespace
{

std::mutex s_mutex; // guards the gates
std::vector<Gate *> s_gates;
std::atomic<int> s_nGates{0}; // lets an unarmed call pass without the mutex
std::atomic<long> s_nLiveBlocks{0};
thread_local bool s_bInside = false; // the gates' own calls, and those of an action, pass

bool Chooses(Gate &gate, Fn fn)
{
    if (std::find(gate.fns.begin(), gate.fns.end(), fn) == gate.fns.end() ||
        (gate.scope == kThisThread && !pthread_equal(gate.tOwner, pthread_self())))
        return false;
    ++gate.nCalls;
    const bool bChosen =
        gate.nNth != 0 && gate.nCalls >= gate.nNth && gate.nCalls - gate.nNth < gate.nTimes;
    gate.nHits += bChosen;
    if (bChosen)
        gate.last = fn;
    return bChosen;
}

// 0: the call goes on.
int PassGates(Fn fn)
{
    std::function<void()> action;
    int nError = 0;
    {
        std::lock_guard<std::mutex> guard(s_mutex);
        for (Gate *gate : s_gates)
            if (Chooses(*gate, fn)) {
                action = gate->action;
                nError = gate->nError;
            }
    }
    if (action)
        action();
    return nError;
}

int Hit(Fn fn)
{
    if (s_nGates.load(std::memory_order_relaxed) == 0 || s_bInside)
        return 0;
    const int nErrno = errno;
    s_bInside = true;
    const int nError = PassGates(fn);
    s_bInside = false;
    errno = nErrno;
    return nError;
}

template <typename T>
T WithErrno(int nError, T result)
{
    errno = nError;
    return result;
}

template <typename T>
T *CountBlock(T *pvBlock)
{
    if (pvBlock)
        s_nLiveBlocks.fetch_add(1, std::memory_order_relaxed);
    return pvBlock;
}

} // namespace

Fail::Fail(std::vector<Fn> fns, unsigned nNth, int nError, unsigned nTimes, Scope scope)
    : m_gate(new Gate{std::move(fns), nNth, nError, nTimes, scope, pthread_self(), nullptr})
{
    std::lock_guard<std::mutex> guard(s_mutex);
    s_gates.push_back(m_gate);
    ++s_nGates;
}

Fail::~Fail()
{
    {
        std::lock_guard<std::mutex> guard(s_mutex);
        s_gates.erase(std::find(s_gates.begin(), s_gates.end(), m_gate));
        --s_nGates;
    }
    delete m_gate;
}

void Fail::Action(std::function<void()> action)
{
    std::lock_guard<std::mutex> guard(s_mutex);
    m_gate->action = std::move(action);
}

unsigned Fail::Calls() const
{
    std::lock_guard<std::mutex> guard(s_mutex);
    return m_gate->nCalls;
}

unsigned Fail::Hits() const
{
    std::lock_guard<std::mutex> guard(s_mutex);
    return m_gate->nHits;
}

Fn Fail::Last() const
{
    std::lock_guard<std::mutex> guard(s_mutex);
    return m_gate->last;
}

const char *Name(Fn fn)
{
#define APP_FAULT_ROW(name, ...) #name,
    static const char *const s_aszName[] = {
#include "support/fault_names.h"
    };
    return s_aszName[static_cast<size_t>(fn)];
}

long LiveBlocks()
{
    return s_nLiveBlocks.load();
}

long OpenDescriptors()
{
    long nCount = 0;
    DIR *ptDir = opendir("/proc/self/fd");
    while (ptDir && readdir(ptDir))
        ++nCount;
    closedir(ptDir);
    return nCount;
}

} // namespace fault

using fault::CountBlock;
using fault::Fn;
using fault::Hit;
using fault::WithErrno;

#define WRAP(type, name, params, args, failure)                                                    \
    type __real_##name params;                                                                     \
    type __wrap_##name params                                                                      \
    {                                                                                              \
        if (const int nError = Hit(Fn::name))                                                      \
            return failure;                                                                        \
        return __real_##name args;                                                                 \
    }
#define OWN(name)
#define ANY(name, type, params, args, failure) WRAP(type, name, params, args, failure)
#define INT(name, params, args) WRAP(int, name, params, args, WithErrno(nError, -1))
#define LEN(name, params, args) WRAP(ssize_t, name, params, args, WithErrno<ssize_t>(nError, -1))
#define CODE(name, params, args) WRAP(int, name, params, args, nError)
#define PTR(name, type, params, args)                                                              \
    WRAP(type *, name, params, args, WithErrno<type *>(nError, nullptr))

extern "C" {

void *__real_malloc(size_t nSize);
void *__wrap_malloc(size_t nSize)
{
    const int nError = Hit(Fn::malloc);
    return nError ? WithErrno<void *>(ENOMEM, nullptr) : CountBlock(__real_malloc(nSize));
}

void *__real_calloc(size_t nCount, size_t nSize);
void *__wrap_calloc(size_t nCount, size_t nSize)
{
    const int nError = Hit(Fn::calloc);
    return nError ? WithErrno<void *>(ENOMEM, nullptr) : CountBlock(__real_calloc(nCount, nSize));
}

void *__real_realloc(void *pvOld, size_t nSize);
void *__wrap_realloc(void *pvOld, size_t nSize)
{
    if (Hit(Fn::realloc))
        return WithErrno<void *>(ENOMEM, nullptr);
    void *pvNew = __real_realloc(pvOld, nSize);
    return pvOld ? pvNew : CountBlock(pvNew);
}

void __real_free(void *pvBlock);
void __wrap_free(void *pvBlock)
{
    Hit(Fn::free);
    if (pvBlock)
        fault::s_nLiveBlocks.fetch_sub(1, std::memory_order_relaxed);
    __real_free(pvBlock);
}

char *__real_strdup(const char *szText);
char *__wrap_strdup(const char *szText)
{
    const int nError = Hit(Fn::strdup);
    return nError ? WithErrno<char *>(ENOMEM, nullptr) : CountBlock(__real_strdup(szText));
}

int __real_vasprintf(char **pszText, const char *szFormat, va_list args);
int __wrap_vasprintf(char **pszText, const char *szFormat, va_list args)
{
    if (Hit(Fn::vasprintf))
        return WithErrno(ENOMEM, -1);
    const int nLength = __real_vasprintf(pszText, szFormat, args);
    if (nLength >= 0)
        CountBlock(*pszText);
    return nLength;
}

int __real_fcntl(int nFd, int nCommand, ...);
int __wrap_fcntl(int nFd, int nCommand, long nArg) // the argument is at most one word
{
    const int nError = Hit(Fn::fcntl);
    return nError ? WithErrno(nError, -1) : __real_fcntl(nFd, nCommand, nArg);
}

#include "support/fault_rows.h"

} // extern "C"
