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

namespace fault {

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

namespace {

std::mutex s_mutex; // guards the gates
std::vector<Gate *> s_gates;
std::atomic<int> s_nGates{0}; // lets an unarmed call pass without the mutex
std::atomic<long> s_nLiveBlocks{0};
thread_local bool s_bInside = false; // the gates' own calls, and those of an action, pass

bool Chooses(Gate &gate, Fn fn) {
    if (std::find(gate.fns.begin(), gate.fns.end(), fn) == gate.fns.end() ||
        (gate.scope == kThisThread && !pthread_equal(gate.tOwner, pthread_self())))
        return false;
    ++gate.nCalls;
    const bool bChosen = gate.nNth != 0 && gate.nCalls >= gate.nNth && gate.nCalls - gate.nNth < gate.nTimes;
    gate.nHits += bChosen;
    if (bChosen) gate.last = fn;
    return bChosen;
}

// 0: the call goes on.
int PassGates(Fn fn) {
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
    if (action) action();
    return nError;
}

int Hit(Fn fn) {
    if (s_nGates.load(std::memory_order_relaxed) == 0 || s_bInside) return 0;
    const int nErrno = errno;
    s_bInside = true;
    const int nError = PassGates(fn);
    s_bInside = false;
    errno = nErrno;
    return nError;
}

template <typename T>
T WithErrno(int nError, T result) {
    errno = nError;
    return result;
}

template <typename T>
T *CountBlock(T *pvBlock) {
    if (pvBlock) s_nLiveBlocks.fetch_add(1, std::memory_order_relaxed);
    return pvBlock;
}

} // namespace

Fail::Fail(std::vector<Fn> fns, unsigned nNth, int nError, unsigned nTimes, Scope scope)
    : m_gate(new Gate{std::move(fns), nNth, nError, nTimes, scope, pthread_self(), nullptr}) {
    std::lock_guard<std::mutex> guard(s_mutex);
    s_gates.push_back(m_gate);
    ++s_nGates;
}

Fail::~Fail() {
    {
        std::lock_guard<std::mutex> guard(s_mutex);
        s_gates.erase(std::find(s_gates.begin(), s_gates.end(), m_gate));
        --s_nGates;
    }
    delete m_gate;
}

void Fail::Action(std::function<void()> action) {
    std::lock_guard<std::mutex> guard(s_mutex);
    m_gate->action = std::move(action);
}

unsigned Fail::Calls() const {
    std::lock_guard<std::mutex> guard(s_mutex);
    return m_gate->nCalls;
}

unsigned Fail::Hits() const {
    std::lock_guard<std::mutex> guard(s_mutex);
    return m_gate->nHits;
}

Fn Fail::Last() const {
    std::lock_guard<std::mutex> guard(s_mutex);
    return m_gate->last;
}

const char *Name(Fn fn) {
#define APP_FAULT_NAME(name) #name,
    static const char *const s_aszName[] = {APP_FAULT_FUNCTIONS(APP_FAULT_NAME)};
    return s_aszName[static_cast<size_t>(fn)];
}

long LiveBlocks() { return s_nLiveBlocks.load(); }

long OpenDescriptors() {
    long nCount = 0;
    DIR *ptDir = opendir("/proc/self/fd");
    while (ptDir && readdir(ptDir)) ++nCount;
    closedir(ptDir);
    return nCount;
}

} // namespace fault

using fault::CountBlock;
using fault::Fn;
using fault::Hit;
using fault::WithErrno;

#define WRAP(type, name, params, args, failure)                                                                        \
    type __real_##name params;                                                                                         \
    type __wrap_##name params {                                                                                        \
        if (const int nError = Hit(Fn::name)) return failure;                                                          \
        return __real_##name args;                                                                                     \
    }
#define WRAP_INT(name, params, args) WRAP(int, name, params, args, WithErrno(nError, -1))
#define WRAP_LEN(name, params, args) WRAP(ssize_t, name, params, args, WithErrno<ssize_t>(nError, -1))
#define WRAP_CODE(name, params, args) WRAP(int, name, params, args, nError)
#define WRAP_PTR(type, name, params, args) WRAP(type *, name, params, args, WithErrno<type *>(nError, nullptr))

extern "C" {

void *__real_malloc(size_t nSize);
void *__wrap_malloc(size_t nSize) {
    const int nError = Hit(Fn::malloc);
    return nError ? WithErrno<void *>(nError, nullptr) : CountBlock(__real_malloc(nSize));
}

void *__real_calloc(size_t nCount, size_t nSize);
void *__wrap_calloc(size_t nCount, size_t nSize) {
    const int nError = Hit(Fn::calloc);
    return nError ? WithErrno<void *>(nError, nullptr) : CountBlock(__real_calloc(nCount, nSize));
}

void *__real_realloc(void *pvOld, size_t nSize);
void *__wrap_realloc(void *pvOld, size_t nSize) {
    if (const int nError = Hit(Fn::realloc)) return WithErrno<void *>(nError, nullptr);
    void *pvNew = __real_realloc(pvOld, nSize);
    return pvOld ? pvNew : CountBlock(pvNew);
}

void __real_free(void *pvBlock);
void __wrap_free(void *pvBlock) {
    Hit(Fn::free);
    if (pvBlock) fault::s_nLiveBlocks.fetch_sub(1, std::memory_order_relaxed);
    __real_free(pvBlock);
}

char *__real_strdup(const char *szText);
char *__wrap_strdup(const char *szText) {
    const int nError = Hit(Fn::strdup);
    return nError ? WithErrno<char *>(nError, nullptr) : CountBlock(__real_strdup(szText));
}

int __real_vasprintf(char **pszText, const char *szFormat, va_list args);
int __wrap_vasprintf(char **pszText, const char *szFormat, va_list args) {
    if (const int nError = Hit(Fn::vasprintf)) return WithErrno(nError, -1);
    const int nLength = __real_vasprintf(pszText, szFormat, args);
    if (nLength >= 0) CountBlock(*pszText);
    return nLength;
}

int __real_fcntl(int nFd, int nCommand, ...);
int __wrap_fcntl(int nFd, int nCommand, long nArg) // the argument is at most one word
{
    const int nError = Hit(Fn::fcntl);
    return nError ? WithErrno(nError, -1) : __real_fcntl(nFd, nCommand, nArg);
}

WRAP_CODE(pthread_create, (pthread_t * ptThread, const pthread_attr_t *ptAttr, void *(*pfnEntry)(void *), void *pv),
          (ptThread, ptAttr, pfnEntry, pv))
WRAP_CODE(pthread_attr_init, (pthread_attr_t * ptAttr), (ptAttr))
WRAP_CODE(pthread_attr_setinheritsched, (pthread_attr_t * ptAttr, int n), (ptAttr, n))
WRAP_CODE(pthread_mutex_init, (pthread_mutex_t * ptMutex, const pthread_mutexattr_t *ptAttr), (ptMutex, ptAttr))
WRAP_CODE(pthread_mutex_timedlock, (pthread_mutex_t * ptMutex, const timespec *ptEnd), (ptMutex, ptEnd))
WRAP_CODE(pthread_mutex_clocklock, (pthread_mutex_t * ptMutex, clockid_t n, const timespec *ptEnd), (ptMutex, n, ptEnd))
WRAP_CODE(pthread_mutexattr_init, (pthread_mutexattr_t * ptAttr), (ptAttr))
WRAP_CODE(pthread_mutexattr_settype, (pthread_mutexattr_t * ptAttr, int n), (ptAttr, n))
WRAP_CODE(pthread_cond_init, (pthread_cond_t * ptCond, const pthread_condattr_t *ptAttr), (ptCond, ptAttr))
WRAP_CODE(pthread_cond_signal, (pthread_cond_t * ptCond), (ptCond))
WRAP_CODE(pthread_cond_timedwait, (pthread_cond_t * ptCond, pthread_mutex_t *ptMutex, const timespec *ptEnd),
          (ptCond, ptMutex, ptEnd))
WRAP_CODE(pthread_condattr_init, (pthread_condattr_t * ptAttr), (ptAttr))
WRAP_CODE(pthread_condattr_setclock, (pthread_condattr_t * ptAttr, clockid_t n), (ptAttr, n))

WRAP_INT(clock_gettime, (clockid_t n, timespec *ptNow), (n, ptNow))
WRAP_PTR(struct tm, gmtime_r, (const time_t *ptTime, struct tm *ptResult), (ptTime, ptResult))
WRAP(time_t, timegm, (struct tm * ptTime), (ptTime), WithErrno<time_t>(nError, -1))

WRAP_PTR(FILE, fopen, (const char *szPath, const char *szMode), (szPath, szMode))
WRAP_LEN(writev, (int nFd, const iovec *ptPiece, int nCount), (nFd, ptPiece, nCount))
WRAP_INT(ftruncate, (int nFd, off_t nLen), (nFd, nLen))
WRAP_INT(rename, (const char *szFrom, const char *szTo), (szFrom, szTo))

WRAP_INT(socket, (int nDomain, int nType, int nProtocol), (nDomain, nType, nProtocol))
WRAP_INT(bind, (int nFd, const sockaddr *ptAddr, socklen_t nLen), (nFd, ptAddr, nLen))
WRAP_INT(connect, (int nFd, const sockaddr *ptAddr, socklen_t nLen), (nFd, ptAddr, nLen))
WRAP_INT(getsockopt, (int nFd, int nLevel, int nName, void *pvValue, socklen_t *pnLen),
         (nFd, nLevel, nName, pvValue, pnLen))
WRAP_INT(setsockopt, (int nFd, int nLevel, int nName, const void *pvValue, socklen_t nLen),
         (nFd, nLevel, nName, pvValue, nLen))
WRAP_INT(getsockname, (int nFd, sockaddr *ptAddr, socklen_t *pnLen), (nFd, ptAddr, pnLen))
WRAP_INT(getpeername, (int nFd, sockaddr *ptAddr, socklen_t *pnLen), (nFd, ptAddr, pnLen))
WRAP_INT(epoll_create, (int nSize), (nSize))
WRAP_INT(epoll_create1, (int nFlags), (nFlags))
WRAP_INT(epoll_ctl, (int nEpoll, int nOp, int nFd, epoll_event *ptEvent), (nEpoll, nOp, nFd, ptEvent))
WRAP_INT(epoll_wait, (int nEpoll, epoll_event *ptEvents, int nMost, int nTimeout), (nEpoll, ptEvents, nMost, nTimeout))
WRAP_LEN(recv, (int nFd, void *pvBuf, size_t nLen, int nFlags), (nFd, pvBuf, nLen, nFlags))
WRAP_LEN(recvmsg, (int nFd, msghdr *ptMsg, int nFlags), (nFd, ptMsg, nFlags))
WRAP_LEN(send, (int nFd, const void *pvBuf, size_t nLen, int nFlags), (nFd, pvBuf, nLen, nFlags))
WRAP_LEN(sendto, (int nFd, const void *pvBuf, size_t nLen, int nFlags, const sockaddr *ptAddr, socklen_t nAddrLen),
         (nFd, pvBuf, nLen, nFlags, ptAddr, nAddrLen))
WRAP_LEN(sendmsg, (int nFd, const msghdr *ptMsg, int nFlags), (nFd, ptMsg, nFlags))
WRAP_INT(inet_pton, (int nFamily, const char *szText, void *pvAddr), (nFamily, szText, pvAddr))
WRAP_PTR(const char, inet_ntop, (int nFamily, const void *pvAddr, char *szText, socklen_t nLen),
         (nFamily, pvAddr, szText, nLen))
WRAP_INT(getifaddrs, (ifaddrs * *pptList), (pptList))

WRAP(iconv_t, iconv_open, (const char *szTo, const char *szFrom), (szTo, szFrom),
     WithErrno(nError, reinterpret_cast<iconv_t>(-1)))
WRAP(size_t, iconv, (iconv_t tDesc, char **pszIn, size_t *pnIn, char **pszOut, size_t *pnOut),
     (tDesc, pszIn, pnIn, pszOut, pnOut), WithErrno(nError, static_cast<size_t>(-1)))
WRAP_PTR(mxml_node_t, mxmlNewElement, (mxml_node_t * ptParent, const char *szName), (ptParent, szName))
WRAP_PTR(mxml_node_t, mxmlNewText, (mxml_node_t * ptParent, int n, const char *szText), (ptParent, n, szText))
WRAP_PTR(mxml_node_t, mxmlNewOpaque, (mxml_node_t * ptParent, const char *szText), (ptParent, szText))
WRAP_PTR(mxml_node_t, mxmlNewCDATA, (mxml_node_t * ptParent, const char *szText), (ptParent, szText))
WRAP_PTR(const char, mxmlGetOpaque, (mxml_node_t * ptNode), (ptNode))
WRAP_PTR(const char, mxmlGetText, (mxml_node_t * ptNode, int *pn), (ptNode, pn))
WRAP_PTR(const char, mxmlGetCDATA, (mxml_node_t * ptNode), (ptNode))

WRAP_INT(_AppVsnprintf, (char *szBuf, uint32_t dwSize, const char *szFormat, va_list args),
         (szBuf, dwSize, szFormat, args))

} // extern "C"
