// SPDX-License-Identifier: MIT
//
// Fault injection: the linker's --wrap puts a gate in front of the functions that wrap.cmake lists,
// for every call from the library and from the tests.  A gate does nothing until it is armed:
//
//   fault::Fail fail(fault::Fn::epoll_ctl, 1, EPERM);    // the first call of this thread fails
//   … operation under test …
//   EXPECT_EQ(fail.Hits(), 1u);                          // it ended here; disarmed at scope end
//
//   // A race, on order: `action` runs in front of the n-th call; with error 0 the call then goes
//   // on.
//   fault::Fail race(fault::Fn::recvmsg, 1, 0); race.Action([&] { … });
//
// A failing call sets errno (or returns the error number, as the pthread functions do) and gives
// the function's failure value: -1 or null; an allocation always gives ENOMEM.  Only the thread that
// armed the gate is hit, unless fault::kEveryThread is given.
//
// What Mini-XML allocates itself passes the gates of fault::kMemory too (mxml_memory.cpp).
#ifndef APPCORE_TESTS_SUPPORT_FAULT_H
#define APPCORE_TESTS_SUPPORT_FAULT_H

#include <errno.h>
#include <pthread.h>

#include <atomic>
#include <functional>
#include <initializer_list>
#include <vector>

namespace fault
{

enum class Fn {
#define GATE(name, ...) name,
#include "support/fault_gates.h"
#undef GATE
    kCount
};

// Every function that allocates.
constexpr std::initializer_list<Fn> kMemory = {Fn::malloc, Fn::calloc, Fn::realloc, Fn::strdup,
                                               Fn::vasprintf};

const char *Name(Fn fn);

enum Scope { kThisThread, kEveryThread };

// Armed from its construction to its end.
class Fail
{
public:
    // Fails calls number `nNth` to `nNth` + `nTimes` - 1, counted over all functions given; with
    // `nNth` 0 none, which still counts.
    explicit Fail(std::vector<Fn> fns, unsigned nNth = 1, int nError = ENOMEM, unsigned nTimes = 1,
                  Scope scope = kThisThread);
    explicit Fail(Fn fn, unsigned nNth = 1, int nError = ENOMEM, unsigned nTimes = 1,
                  Scope scope = kThisThread)
        : Fail(std::vector<Fn>{fn}, nNth, nError, nTimes, scope)
    {
    }
    ~Fail();
    Fail(const Fail &) = delete;
    Fail &operator=(const Fail &) = delete;

    // Runs in front of each chosen call, in the calling thread and with the gates open.
    void Action(std::function<void()> action);
    unsigned Calls() const { return m_nCalls; } // calls seen
    unsigned Hits() const { return m_nHits; }   // calls chosen
    Fn Last() const { return m_last; }          // the function chosen last

private:
    friend int Hit(Fn fn);
    bool Chooses(Fn fn);

    const std::vector<Fn> m_fns;
    const unsigned m_nNth, m_nTimes;
    const int m_nError;
    const Scope m_scope;
    const pthread_t m_tOwner;
    std::function<void()> m_action;
    std::atomic<unsigned> m_nCalls{0}, m_nHits{0};
    std::atomic<Fn> m_last{Fn::malloc};
};

// Blocks allocated and not freed by the library and the tests' own C calls.
long LiveBlocks();
// Descriptors of the process.
long OpenDescriptors();

} // namespace fault

#endif
