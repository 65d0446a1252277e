// SPDX-License-Identifier: MIT
#include "support/fault.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <iconv.h>
#include <ifaddrs.h>
#include <mxml.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <string_view>
#include <tuple>

#include "appcore/task.h"
#include "cross_linux/condition.h"
#include "cross_linux/cross_linux.h"

namespace fault
{

static std::mutex s_mutex; // guards the gates
static std::vector<Fail *> s_armed;
static std::atomic<int> s_nArmed{0}; // lets an unarmed call pass without the mutex
static std::atomic<long> s_nLiveBlocks{0};
static thread_local bool s_bInside = false; // the gates' own calls, and those of an action, pass

Fail::Fail(std::vector<Fn> fns, unsigned nNth, int nError, unsigned nTimes, Scope scope)
    : m_fns(std::move(fns)), m_nNth(nNth), m_nTimes(nTimes), m_nError(nError), m_scope(scope),
      m_tOwner(pthread_self())
{
    std::lock_guard<std::mutex> guard(s_mutex);
    s_armed.push_back(this);
    ++s_nArmed;
}

Fail::~Fail()
{
    std::lock_guard<std::mutex> guard(s_mutex);
    s_armed.erase(std::find(s_armed.begin(), s_armed.end(), this));
    --s_nArmed;
}

void Fail::Action(std::function<void()> action)
{
    std::lock_guard<std::mutex> guard(s_mutex);
    m_action = std::move(action);
}

bool Fail::Chooses(Fn fn)
{
    if (std::find(m_fns.begin(), m_fns.end(), fn) == m_fns.end() ||
        (m_scope == kThisThread && !pthread_equal(m_tOwner, pthread_self())))
        return false;
    const unsigned nCall = ++m_nCalls;
    if (m_nNth == 0 || nCall < m_nNth || nCall - m_nNth >= m_nTimes)
        return false;
    ++m_nHits;
    m_last = fn;
    return true;
}

// The error number; 0: the call goes on.
int Hit(Fn fn)
{
    if (s_nArmed.load(std::memory_order_relaxed) == 0 || s_bInside)
        return 0;
    const int nErrno = errno;
    s_bInside = true;
    std::function<void()> action;
    int nError = 0;
    std::unique_lock<std::mutex> lock(s_mutex);
    for (Fail *fail : s_armed)
        if (fail->Chooses(fn)) {
            action = fail->m_action;
            nError = fail->m_nError;
        }
    lock.unlock();
    if (action)
        action();
    s_bInside = false;
    errno = nErrno;
    return nError;
}

static constexpr std::string_view kNames[] = {
#define GATE(name, ...) #name,
#include "support/fault_gates.h"
#undef GATE
};

const char *Name(Fn fn)
{
    return kNames[static_cast<size_t>(fn)].data();
}

long LiveBlocks()
{
    return s_nLiveBlocks.load();
}

long OpenDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

template <Fn fn, typename Real, typename First, typename... Rest>
static auto Pass(Real pfnReal, First first, Rest... rest)
{
    constexpr bool bFresh = fn == Fn::malloc || fn == Fn::calloc || fn == Fn::strdup;
    const int nError = Hit(fn);
    if constexpr (fn == Fn::free) {
        s_nLiveBlocks.fetch_sub(first != nullptr, std::memory_order_relaxed);
        pfnReal(first);
    } else if constexpr (kNames[static_cast<size_t>(fn)].substr(0, 8) == "pthread_") {
        return nError ? nError : pfnReal(first, rest...);
    } else {
        using Result = decltype(pfnReal(first, rest...));
        const auto failure =
            Result(intptr_t{std::is_pointer_v<Result> && fn != Fn::iconv_open ? 0 : -1});
        const Result result = nError ? failure : pfnReal(first, rest...);
        if (nError)
            errno = bFresh || fn == Fn::realloc || fn == Fn::vasprintf ? ENOMEM : nError;
        if (result != failure && (bFresh || (fn == Fn::realloc && !first) || fn == Fn::vasprintf))
            s_nLiveBlocks.fetch_add(1, std::memory_order_relaxed);
        return result;
    }
}

// What a function's type is made of.
template <typename F>
struct TSignature;
template <typename R, typename... P>
struct TSignature<R(P...)> {
    using Result = R;
    template <size_t n>
    using Parameter = std::tuple_element_t<n, std::tuple<P...>>;
};
template <typename R, typename... P>
struct TSignature<R(P...) noexcept> : TSignature<R(P...)> {
};
template <>
struct TSignature<decltype(fcntl)> : TSignature<int(int, int, long)> {
}; // the argument is at most one word

} // namespace fault

#define PARAMETER(name, n) fault::TSignature<decltype(name)>::Parameter<n> arg##n
#define PARAMETERS_1(name) PARAMETER(name, 0)
#define PARAMETERS_2(name) PARAMETERS_1(name), PARAMETER(name, 1)
#define PARAMETERS_3(name) PARAMETERS_2(name), PARAMETER(name, 2)
#define PARAMETERS_4(name) PARAMETERS_3(name), PARAMETER(name, 3)
#define PARAMETERS_5(name) PARAMETERS_4(name), PARAMETER(name, 4)
#define PARAMETERS_6(name) PARAMETERS_5(name), PARAMETER(name, 5)
#define ARGUMENTS_1 arg0
#define ARGUMENTS_2 ARGUMENTS_1, arg1
#define ARGUMENTS_3 ARGUMENTS_2, arg2
#define ARGUMENTS_4 ARGUMENTS_3, arg3
#define ARGUMENTS_5 ARGUMENTS_4, arg4
#define ARGUMENTS_6 ARGUMENTS_5, arg5
#define GATE(name, n)                                                                              \
    decltype(name) __real_##name;                                                                  \
    fault::TSignature<decltype(name)>::Result __wrap_##name(PARAMETERS_##n(name))                  \
    {                                                                                              \
        return fault::Pass<fault::Fn::name>(__real_##name, ARGUMENTS_##n);                         \
    }

#pragma GCC diagnostic ignored "-Wignored-attributes" // a template's argument keeps none
extern "C" {
#include "support/fault_gates.h"
}
