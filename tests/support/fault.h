// SPDX-License-Identifier: MIT
//
// Fault injection: the linker's --wrap puts a gate in front of the system functions listed below,
// for every call from the library and from the tests.  A gate does nothing until it is armed:
//
//   fault::Fail fail(fault::Fn::epoll_ctl, 1, EPERM);    // the first call of this thread fails
//   … operation under test …
//   EXPECT_EQ(fail.Hits(), 1u);                          // it ended here; disarmed at scope end
//
//   // n = 1, 2, …: the n-th allocation fails until the operation meets no fault any more.  `check`
//   // sees each failed result.  Blocks and descriptors must balance after every round, so
//   `operation`
//   // releases what it made when it succeeds.
//   fault::Sweep({fault::Fn::malloc}, [&] { …; return code; }, [](uint32_t dwCode) { EXPECT_… });
//
//   // A race, on order: `action` runs in front of the n-th call; with error 0 the call then goes
//   on. fault::Fail race(fault::Fn::recvmsg, 1, 0); race.Action([&] { … });
//
// A failing call sets errno (or returns the error number, as the pthread functions do) and gives
// the function's failure value: -1 or null.  Only the thread that armed the gate is hit, unless
// fault::kEveryThread is given.  To add a function: a row in the list, a WRAP line in fault.cpp,
// and a pair in wrap.cmake when it has a variant for 64-bit times or file sizes.
//
// What Mini-XML allocates itself passes the gates of fault::kMemory too (mxml_memory.cpp).
#ifndef APPCORE_TESTS_SUPPORT_FAULT_H
#define APPCORE_TESTS_SUPPORT_FAULT_H

#include <errno.h>
#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <vector>

// One row per function; wrap.cmake reads the rows, so each stays on its own line.
#define APP_FAULT_FUNCTIONS(X)                                                                                         \
    X(malloc)                                                                                                          \
    X(calloc)                                                                                                          \
    X(realloc)                                                                                                         \
    X(free)                                                                                                            \
    X(strdup)                                                                                                          \
    X(vasprintf)                                                                                                       \
    X(pthread_create)                                                                                                  \
    X(pthread_attr_init)                                                                                               \
    X(pthread_attr_setinheritsched)                                                                                    \
    X(pthread_mutex_init)                                                                                              \
    X(pthread_mutex_timedlock)                                                                                         \
    X(pthread_mutex_clocklock)                                                                                         \
    X(pthread_mutexattr_init)                                                                                          \
    X(pthread_mutexattr_settype)                                                                                       \
    X(pthread_cond_init)                                                                                               \
    X(pthread_cond_signal)                                                                                             \
    X(pthread_cond_timedwait)                                                                                          \
    X(pthread_condattr_init)                                                                                           \
    X(pthread_condattr_setclock)                                                                                       \
    X(clock_gettime)                                                                                                   \
    X(gmtime_r)                                                                                                        \
    X(timegm)                                                                                                          \
    X(fopen)                                                                                                           \
    X(writev)                                                                                                          \
    X(ftruncate)                                                                                                       \
    X(rename)                                                                                                          \
    X(fcntl)                                                                                                           \
    X(socket)                                                                                                          \
    X(bind)                                                                                                            \
    X(connect)                                                                                                         \
    X(getsockopt)                                                                                                      \
    X(setsockopt)                                                                                                      \
    X(getsockname)                                                                                                     \
    X(getpeername)                                                                                                     \
    X(epoll_create)                                                                                                    \
    X(epoll_create1)                                                                                                   \
    X(epoll_ctl)                                                                                                       \
    X(epoll_wait)                                                                                                      \
    X(recv)                                                                                                            \
    X(recvmsg)                                                                                                         \
    X(send)                                                                                                            \
    X(sendto)                                                                                                          \
    X(sendmsg)                                                                                                         \
    X(inet_pton)                                                                                                       \
    X(inet_ntop)                                                                                                       \
    X(getifaddrs)                                                                                                      \
    X(iconv_open)                                                                                                      \
    X(iconv)                                                                                                           \
    X(mxmlNewElement)                                                                                                  \
    X(mxmlNewText)                                                                                                     \
    X(mxmlNewOpaque)                                                                                                   \
    X(mxmlNewCDATA)                                                                                                    \
    X(mxmlGetOpaque)                                                                                                   \
    X(mxmlGetText)                                                                                                     \
    X(mxmlGetCDATA)                                                                                                    \
    X(_AppVsnprintf)

namespace fault {

enum class Fn {
#define APP_FAULT_ENUM(name) name,
    APP_FAULT_FUNCTIONS(APP_FAULT_ENUM)
#undef APP_FAULT_ENUM
};

// Every function that allocates.
constexpr std::initializer_list<Fn> kMemory = {Fn::malloc, Fn::calloc, Fn::realloc, Fn::strdup, Fn::vasprintf};
#define APP_FAULT_COUNT(name) +1
constexpr unsigned kFunctions = 0 APP_FAULT_FUNCTIONS(APP_FAULT_COUNT);
#undef APP_FAULT_COUNT
const char *Name(Fn fn);

enum Scope { kThisThread, kEveryThread };

// Armed from its construction to its end.
class Fail {
public:
    // Fails calls number `nNth` to `nNth` + `nTimes` - 1, counted over all functions given; with
    // `nNth` 0 none, which still counts.
    explicit Fail(std::vector<Fn> fns, unsigned nNth = 1, int nError = ENOMEM, unsigned nTimes = 1,
                  Scope scope = kThisThread);
    explicit Fail(Fn fn, unsigned nNth = 1, int nError = ENOMEM, unsigned nTimes = 1, Scope scope = kThisThread)
        : Fail(std::vector<Fn>{fn}, nNth, nError, nTimes, scope) {}
    ~Fail();
    Fail(const Fail &) = delete;
    Fail &operator=(const Fail &) = delete;

    // Runs in front of each chosen call, in the calling thread and with the gates open.
    void Action(std::function<void()> action);
    unsigned Calls() const; // calls seen
    unsigned Hits() const;  // calls chosen
    Fn Last() const;        // the function chosen last

private:
    struct Gate *m_gate;
};

// Blocks allocated and not freed by the library and the tests' own C calls.
long LiveBlocks();
// Descriptors of the process.
long OpenDescriptors();

// Returns the number of faults met.
template <typename Operation, typename Check>
unsigned Sweep(std::initializer_list<Fn> fns, Operation operation, Check check, int nError = ENOMEM) {
    constexpr unsigned kMostFaults = 1000;
    for (unsigned n = 1; n <= kMostFaults; ++n) {
        SCOPED_TRACE("fault at call " + std::to_string(n));
        const long nBlocks = LiveBlocks();
        const long nDescriptors = OpenDescriptors();
        Fail fail(fns, n, nError);
        const auto result = operation();
        EXPECT_EQ(LiveBlocks(), nBlocks);
        EXPECT_EQ(OpenDescriptors(), nDescriptors);
        if (fail.Hits() == 0) {
            EXPECT_GT(n, 1u) << "no call to fail: the sweep proves nothing";
            return n - 1;
        }
        check(result);
    }
    ADD_FAILURE() << "the operation never succeeds";
    return kMostFaults;
}

} // namespace fault

#endif
