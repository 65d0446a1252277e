// SPDX-License-Identifier: MIT
//
// Every operation of the library that allocates or calls the system, under every fault: the n-th
// call that can fail does so, n = 1, 2, …, until the operation meets no fault any more.  After each
// the result is the one that its header states, nothing has leaked, and the object still works.
#include <iconv.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>

#include "mempool/mempool.h"
#include "support/exported.h"
#include "support/log_capture.h"
#include "support/sockets.h"
#include "support/tasks.h"
#include "utils/double_list.h"
#include "utils/queue.h"
#include "utils/share_action_registry.h"

using fault::Fn;
using test::Arg;
using test::Diary;
using test::kLong;
using test::kLoopback;
using test::kShort;
using test::Manager;
using test::Text;

namespace
{

using Fns = std::vector<Fn>;

const Fns kMemory = fault::kMemory;
// These only shorten a wait; what fails then says that the time is over.
const Fns kWaits = {Fn::clock_gettime, Fn::pthread_mutex_clocklock, Fn::pthread_mutex_timedlock,
                    Fn::pthread_cond_timedwait};

bool Has(const Fns &fns, Fn fn)
{
    return std::find(fns.begin(), fns.end(), fn) != fns.end();
}

// What a system may refuse.
Fns Refusable()
{
    Fns fns;
    for (unsigned i = 0; i < unsigned(Fn::kCount); ++i)
        if (!Has({Fn::free, Fn::pthread_cond_signal, Fn::_AppVsnprintf}, Fn(i)) &&
            strncmp(fault::Name(Fn(i)), "mxml", 4) != 0)
            fns.push_back(Fn(i));
    return fns;
}

class Attempt;

constexpr uint32_t kNothing = 1; // the code of an operation that gives a value when it gives none
uint32_t Got(bool bValue)
{
    return bValue ? uint32_t{APP_OK} : kNothing;
}
uint32_t Bytes(int32_t nBytes)
{
    return nBytes == -2 ? uint32_t{APP_TIMEOUT} : Got(nBytes > 0);
}

struct Row {
    std::string ops; // the exported operations that it covers
    const char
        *szLog; // whose line tells a refusal; null: at most the allocation's line comes; "": any
    std::function<void(Attempt &)> run;
    Fns harmless = {}; // the operation may do without these
    fault::Scope scope = fault::kThisThread;
    bool bFormatting = false; // fails too
};

// One run of a row.
class Attempt
{
public:
    Attempt(const Row &row, unsigned nNth, HAppMemPool hPool)
        : m_nNth(nNth), m_row(row), m_hPool(hPool)
    {
    }

    // The operation itself: here the fault comes, not in what is around it.
    template <typename Operation>
    auto operator()(Operation operation)
    {
        Fns fns = Refusable();
        if (m_row.bFormatting)
            fns.push_back(Fn::_AppVsnprintf);
        m_log.Clear();
        fault::Fail fail(fns, m_nNth, EPERM, 1, m_row.scope);
        const auto result = operation();
        m_bHit = fail.Hits() > 0;
        m_fn = fail.Last();
        m_lines = m_log.Lines();
        return result;
    }
    // Whether the operation has succeeded; its code is the one that the fault demands.
    bool Good(uint32_t dwCode) const
    {
        if (dwCode == APP_OK) {
            EXPECT_TRUE(!m_bHit || Hit(kWaits) || Hit(m_row.harmless));
        } else if (dwCode != APP_TIMEOUT || !Hit(kWaits)) {
            EXPECT_TRUE(m_bHit);
            if (dwCode != kNothing) {
                EXPECT_CODE(Hit(kMemory) ? APP_NO_RESOURCE : APP_FAILED, dwCode);
            }
            ExpectLine();
        }
        return dwCode == APP_OK;
    }
    bool Hit(const Fns &fns) const { return m_bHit && Has(fns, m_fn); }
    bool Hit() const { return m_bHit; }
    Fn Met() const { return m_fn; }
    // The row is run with the heap and with a pool.
    HAppMemPool Pool()
    {
        m_bPool = true;
        return m_hPool;
    }
    bool UsesPool() const { return m_bPool; }

    const unsigned m_nNth;
    long m_nKept = 0; // blocks that are meant to stay

private:
    void ExpectLine() const
    {
        const std::string name =
            m_row.szLog ? m_row.szLog : m_row.ops.substr(0, m_row.ops.find(' '));
        std::string own;
        for (const std::string &line : m_lines)
            if (line.find("] " + name + ": ") != std::string::npos)
                own += line;
        if (!m_row.szLog) {
            EXPECT_TRUE(own.empty() || Hit(kMemory)) << own;
        }
        const bool bTransfer = name == "_AppSocketUDPRecv" || name == "_AppSocketTCPSend" ||
                               name == "_AppSocketTCPRecv";
        if (!m_row.szLog || name.empty() || (bTransfer && Hit({Fn::epoll_ctl, Fn::epoll_wait})))
            return;
        EXPECT_NE(own, "") << name << " says nothing";
        if (name.rfind("_AppSocket", 0) == 0 && !Hit(kMemory))
            ExpectCause(own);
    }
    // The call and its error.
    void ExpectCause(const std::string &line) const
    {
        if (line.find("F_GETFL failed 9 ") != std::string::npos)
            return; // of a descriptor refused before
        const std::string call = Hit({Fn::getpeername}) ? "connect"
                                 : Hit({Fn::epoll_ctl}) ? "epoll_wait"
                                                        : fault::Name(m_fn);
        EXPECT_NE(line.find(call.substr(0, call.find('1'))), std::string::npos) << line;
        EXPECT_NE(line.find(Text(" %d", EPERM)), std::string::npos) << line;
    }

    const Row &m_row;
    HAppMemPool m_hPool;
    test::LogCapture m_log;
    std::vector<std::string> m_lines;
    bool m_bHit = false, m_bPool = false;
    Fn m_fn = Fn::malloc;
};

std::vector<Row> s_rows;
std::string s_covered; // operations

Row &Add(const std::string &ops, const char *szLog, const std::function<void(Attempt &)> &run)
{
    s_rows.push_back({ops, szLog, run});
    return s_rows.back();
}

// `operation(fixture)` under the fault; when it has failed the fixture is as it was, and the operation
// works.  Then `check(fixture)` holds.
template <typename Fixture>
Row &On(const std::string &ops, const char *szLog,
        const std::function<uint32_t(Fixture &)> &operation,
        const std::function<bool(Fixture &)> &check)
{
    return Add(ops, szLog, [=](Attempt &attempt) {
        Fixture fixture(attempt);
        const std::string before = fixture.State();
        if (!attempt.Good(attempt([&] { return operation(fixture); }))) {
            EXPECT_EQ(fixture.State(), before);
            EXPECT_CODE(APP_OK, operation(fixture));
        }
        EXPECT_TRUE(check(fixture));
    });
}

// ---- Locks, containers, pools -------------------------------------------------------------------

template <typename Handle>
struct TNew {
    explicit TNew(Attempt &attempt) : hPool(attempt.Pool()) {}
    std::string State()
    { // a failed creation gives null
        if (std::exchange(bTried, true)) {
            EXPECT_EQ(handle, nullptr);
        }
        return "";
    }
    HAppMemPool hPool;
    Handle handle = reinterpret_cast<Handle>(16);
    bool bTried = false;
};

struct TMemory {
    explicit TMemory(Attempt &attempt) : hPool(attempt.Pool())
    {
        EXPECT_CODE(APP_OK, AppDoubleListCreate(hPool, 0, 1, &hList));
        EXPECT_CODE(APP_OK, AppDoubleListInsertAfter(hList, nullptr, Arg(1), &hNode));
        EXPECT_CODE(APP_OK, AppQueueCreate(hPool, 5, 1, &hQueue));
        EXPECT_CODE(APP_OK, AppQueueIn(hQueue, Arg(1), 5));
        EXPECT_CODE(APP_OK, AppLockCreate(hPool, 1, 0, APP_LOCK_TYPE_SEM, &hLock));
        szBlock = AppStrndup(hPool, "123456789", 10);
    }
    ~TMemory()
    {
        AppDoubleListDestroy(hList, nullptr, nullptr);
        AppQueueDestroy(hQueue, nullptr, nullptr);
        AppLockDestroy(hLock);
        AppMemPoolFree(szBlock);
        AppMemPoolFree(pvNew);
    }
    std::string State() const
    {
        EXPECT_EQ(hSecond, nullptr);
        return Text("%u %u %u %u %s", hList->dwCurSize, AppQueueGetSize(hQueue),
                    _AppQueueGetTopSize(hQueue), hPool ? hPool->dwCurSize : 0, szBlock);
    }
    // The element last put in comes first; then the other; nothing was promised for a failure.
    bool DrainQueue() const
    {
        void *pvFirst = nullptr, *pvSecond = nullptr;
        return AppQueueOut(hQueue, 1, &pvFirst) == APP_OK &&
               AppQueueOut(hQueue, 1, &pvSecond) == APP_OK && pvFirst == Arg(2) &&
               pvSecond == Arg(1) && AppQueueOut(hQueue, 1, nullptr) == APP_TIMEOUT;
    }
    HAppMemPool hPool;
    HAppDoubleList hList = nullptr;
    HAppDoubleListNode hNode = nullptr, hSecond = nullptr;
    HAppQueue hQueue = nullptr;
    HAppLock hLock = nullptr;
    char *szBlock = nullptr;
    void *pvNew = nullptr;
};

void AddCreations()
{
    for (const uint32_t dwType : {APP_LOCK_TYPE_SEM, APP_LOCK_TYPE_RECURSIVE})
        On<TNew<HAppLock>>(
            "AppLockCreate AppLockDestroy", nullptr,
            [=](auto &f) { return AppLockCreate(f.hPool, 1, 1, dwType, &f.handle); },
            [](auto &f) {
                const bool bWorks =
                    AppLockTakeByTime(f.handle, 1) == APP_OK && AppLockGive(f.handle) == APP_OK;
                AppLockDestroy(f.handle);
                return bWorks;
            });
    On<TNew<HAppDoubleList>>(
        "AppDoubleListCreate AppDoubleListDestroy", "AppDoubleListCreate",
        [](auto &f) { return AppDoubleListCreate(f.hPool, 0, 1, &f.handle); },
        [](auto &f) {
            return AppDoubleListDestroy(f.handle, nullptr, nullptr), f.handle != nullptr;
        });
    On<TNew<HAppQueue>>(
        "AppQueueCreate AppQueueDestroy", "AppQueueCreate",
        [](auto &f) { return AppQueueCreate(f.hPool, 5, 1, &f.handle); },
        [](auto &f) { return AppQueueDestroy(f.handle, nullptr, nullptr), f.handle != nullptr; });
    On<TNew<HAppTaskMgr>>(
        "AppTaskMgrCreate AppTaskMgrDestroy", "AppTaskMgrCreate",
        [](auto &f) { return AppTaskMgrCreate(f.hPool, 4, 0, &f.handle); },
        [](auto &f) { return AppTaskMgrDestroy(f.handle), f.handle != nullptr; });
    for (const uint32_t dwType : {APP_SOCKET_UDP, APP_SOCKET_TCP})
        On<TNew<HAppSocket>>(
            "AppSocketCreate AppSocketDestroy", "_AppSocketCreate",
            [=](auto &f) {
                return Got((f.handle = AppSocketCreate(f.hPool, dwType, 0)) != nullptr);
            },
            [](auto &f) { return AppSocketDestroy(f.handle), f.handle != nullptr; })
            .harmless = {Fn::socket}; // the first operation fails then
    Add("AppMemPoolCreate AppMemPoolDestroy", "AppMemPoolCreate", [](Attempt &attempt) {
        HAppMemPool hPool = nullptr;
        uint32_t dwCode = attempt([&] { return AppMemPoolCreate(0, 1, 0, &hPool); });
        // The record and its lock's, then the engine with its lists, which has a code of its own.
        if (attempt.Hit(kMemory) && attempt.m_nNth > 2 && dwCode == APP_FAILED)
            dwCode = APP_NO_RESOURCE;
        EXPECT_EQ(attempt.Good(dwCode), hPool != nullptr);
        AppMemPoolFree(hPool ? AppMemPoolMalloc(hPool, 10) : nullptr);
        AppMemPoolDestroy(hPool);
    });
}

void AddMemory()
{
    On<TMemory>(
        "AppLockTakeByTime AppLockGive", nullptr,
        [](auto &f) { return Got(AppLockTakeByTime(f.hLock, 2) == APP_TIMEOUT); },
        [](auto &f) {
            return AppLockGive(f.hLock) == APP_OK && AppLockTakeByTime(f.hLock, 1) == APP_OK;
        });
    Add("AppGetTick", nullptr, [](Attempt &attempt) {
        const uint32_t dwTick = attempt([] { return AppGetTick(); });
        EXPECT_EQ(dwTick == ~static_cast<uint32_t>(EPERM), attempt.Hit());
    });
    On<TMemory>(
        "AppDoubleListInsertAfter", "AppDoubleListInsertAfter",
        [](auto &f) {
            f.hSecond = f.hNode;
            return AppDoubleListInsertAfter(f.hList, f.hNode, Arg(2), &f.hSecond);
        },
        [](auto &f) { return f.hList->ptTail == f.hSecond && f.hList->ptHead == f.hNode; });
    On<TMemory>(
        "AppDoubleListInsertBefore", "AppDoubleListInsertBefore",
        [](auto &f) {
            f.hSecond = f.hNode;
            return AppDoubleListInsertBefore(f.hList, f.hNode, Arg(2), &f.hSecond);
        },
        [](auto &f) { return f.hList->ptHead == f.hSecond && f.hList->ptTail == f.hNode; });
    On<TMemory>(
        "AppQueueIn AppQueueGetSize", "_AppQueueIn",
        [](auto &f) { return AppQueueIn(f.hQueue, Arg(2), 9); },
        [](auto &f) { return f.DrainQueue(); });
    On<TMemory>(
        "AppQueueOut", nullptr,
        [](auto &f) {
            while (AppQueueGetSize(f.hQueue) > 0)
                AppQueueOut(f.hQueue, 1, nullptr);
            return Got(AppQueueOut(f.hQueue, 2, nullptr) == APP_TIMEOUT);
        },
        [](auto &f) {
            return AppQueueIn(f.hQueue, Arg(1), 0) + AppQueueIn(f.hQueue, Arg(2), 1) == 0 &&
                   f.DrainQueue();
        });
    for (const uint32_t dwSize : {100u, 5000000u})
        On<TMemory>(
            "AppMemPoolMalloc AppMemPoolFree", nullptr,
            [=](auto &f) { return Got((f.pvNew = AppMemPoolMalloc(f.hPool, dwSize)) != nullptr); },
            [=](auto &f) { return memset(f.pvNew, 'x', dwSize) == f.pvNew; });
    On<TMemory>(
        "AppStrndup", nullptr,
        [](auto &f) { return Got((f.pvNew = AppStrndup(f.hPool, f.szBlock, 60)) != nullptr); },
        [](auto &f) { return AppStrcmp(static_cast<char *>(f.pvNew), f.szBlock) == 0; });
    On<TMemory>(
        "AppMemPoolRealloc", nullptr,
        [](auto &f) {
            const auto szGrown = static_cast<char *>(AppMemPoolRealloc(f.hPool, f.szBlock, 1000));
            f.szBlock = szGrown ? szGrown : f.szBlock;
            return Got(szGrown != nullptr);
        },
        [](auto &f) { return AppStrcmp(f.szBlock, "123456789") == 0; });
}

// ---- Reports, actions, files --------------------------------------------------------------------

// A report, its formatting failing too: it may lack lines, no more.
void Report(Attempt &attempt, const std::function<void(PFAppShow, void *)> &show)
{
    const PFAppShow collect = [](const char *szText, void *pv) {
        static_cast<std::string *>(pv)->append(szText);
    };
    std::string before, during, after;
    show(collect, &before);
    attempt([&] { return show(collect, &during), 0; });
    show(collect, &after);
    EXPECT_EQ(before, after);
    EXPECT_NE(before, "");
    EXPECT_LE(during.size(), before.size());
    if (!attempt.Hit()) {
        EXPECT_EQ(during, before);
    }
}

void AddReports()
{
    Add("AppMemPoolShow", nullptr, [](Attempt &attempt) {
        if (!attempt.Pool())
            return;
        Report(attempt,
               [&](PFAppShow pfnShow, void *pv) { AppMemPoolShow(attempt.Pool(), pfnShow, pv); });
    }).bFormatting = true;
    Add("AppShareActionShow", nullptr, [](Attempt &attempt) {
        Report(attempt, AppShareActionShow);
    }).bFormatting = true;
    Add("AppTaskMgrShow", nullptr, [](Attempt &attempt) {
        Diary diary;
        Manager manager(4, 0, attempt.Pool() ? 1 << 24 : 0);
        manager.Park(manager.New(diary));
        Report(attempt,
               [&](PFAppShow pfnShow, void *pv) { AppTaskMgrShow(manager.Get(), pfnShow, pv); });
    }).bFormatting = true;
}

void AddRegistration(const char *szOps, decltype(&AppRegisterShareAction) pfnRegister)
{
    Add(szOps, nullptr, [=](Attempt &attempt) {
        static int s_nKeys = 0;
        const std::string key = Text("sweep %d", ++s_nKeys);
        const auto action = [](uint32_t, uint32_t, uint32_t) { return 6u; };
        const bool bBefore = g_hAppShareActionList.load() != nullptr;
        const bool bGood = attempt.Good(attempt([&] { return pfnRegister(key.c_str(), action); }));
        const bool bNow = g_hAppShareActionList.load() != nullptr;
        EXPECT_EQ(bNow, g_hAppShareActionRecursiveLock.load() != nullptr);
        uint32_t dwResult = 7;
        const uint32_t dwWithout = bNow ? APP_INVALID_ARG : APP_FAILED;
        EXPECT_CODE(bGood ? 0 : dwWithout, AppRunShareAction(key.c_str(), 0, 0, 0, &dwResult));
        EXPECT_EQ(dwResult, bGood ? 6u : 7u);
        // For the life of the process: the lock, the list and its lock; the entry and its node.
        attempt.m_nKept = (bNow && !bBefore ? 3 : 0) + (bGood ? 2 : 0);
    });
}

struct TLogFile {
    explicit TLogFile(Attempt &)
    {
        char achDir[] = "/tmp/appcore-sweep-XXXXXX";
        dir = mkdtemp(achDir);
        EXPECT_EQ(Open(0), 1u);
    }
    ~TLogFile()
    {
        AppCloseFileLog(9);
        std::filesystem::remove_all(dir);
        if (testing::Test::HasFailure())
            fputs(quiet.End().c_str(), stderr);
    }
    uint32_t Open(uint32_t dwMaxSize) const
    {
        return AppSetFileLog(9, (dir / "log").c_str(), dwMaxSize);
    }
    std::string State() const { return ""; }
    // A line reaches the file, opened anew if need be.
    bool Works() const
    {
        EXPECT_EQ(Open(1000), 1u);
        AppLog(9, APP_LOG_ALWAYS, "[INFO ] AppLog: works\n");
        std::ifstream file(dir / "log");
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        return text.find("[INFO ] AppLog: works\n") != std::string::npos;
    }
    std::filesystem::path dir;
    test::StdoutCapture quiet; // each opening prints
};

void AddFiles()
{
    On<TLogFile>(
        "AppSetFileLog AppCloseFileLog", nullptr, [](auto &f) { return Got(f.Open(1000) == 1); },
        [](auto &f) { return f.Works(); })
        .harmless = {Fn::fcntl};
    On<TLogFile>(
        "AppLog AppLogFile", nullptr,
        [](auto &) { // the line rotates
            return AppLogFile(9, APP_LOG_ALWAYS, "[INFO ] AppLogFile: text\n"), APP_OK;
        },
        [](auto &f) { return f.Works(); })
        .harmless = {Fn::writev, Fn::rename, Fn::fopen, Fn::ftruncate, Fn::fcntl};
}

// ---- Conversions --------------------------------------------------------------------------------

struct TText {
    explicit TText(Attempt &) {}
    std::string State() const { return Text("%u", time.wYear); }
    char achText[64] = "";
    uint32_t dwTime = 0, dwLen = 8;
    TAppTime time = {};
    TAppNetAddr addr = {};
};

bool Knows(const char *szEncoding)
{
    const iconv_t hConv = iconv_open(szEncoding, "UTF-16LE");
    return hConv != reinterpret_cast<iconv_t>(-1) && iconv_close(hConv) == 0;
}

void AddConversions()
{
    constexpr uint32_t kNone = 0xFFFFFFFF, kOdd = 1735689600;
    const TAppTime odd = {2024, 13, 1, 0,
                          0,    0,  0}; // a month that only the system's function carries over
    On<TText>(
        "AppConvertTimeToU32", nullptr,
        [=](auto &f) { return Got((f.dwTime = AppConvertTimeToU32(&odd)) != kNone); },
        [=](auto &f) { return f.dwTime == kOdd; });
    On<TText>(
        "AppConvertXsdDatetime2U32", nullptr,
        [=](auto &f) {
            EXPECT_CODE(APP_OK, AppConvertXsdDatetime2U32("2024-13-01T00:00:00", &f.dwTime, nullptr,
                                                          nullptr, nullptr));
            return Got(f.dwTime != kNone);
        },
        [=](auto &f) { return f.dwTime == kOdd; });
    On<TText>(
        "AppConvertU32ToTime", nullptr, [](auto &f) { return AppConvertU32ToTime(0, &f.time); },
        [](auto &f) { return f.time.wYear == 1970; });
    On<TText>(
        "AppConvertU322XsdDatetime", "AppConvertU322XsdDatetime",
        [](auto &f) { return AppConvertU322XsdDatetime(0, 1, nullptr, nullptr, f.achText, 30); },
        [](auto &f) { return AppStrcmp(f.achText, "1970-01-01T00:00:00Z") == 0; });
    On<TText>(
        "AppConvertStrtoNet", "_AppConvertStrtoNet",
        [](auto &f) { return AppConvertStrtoNet("::1", &f.addr); },
        [](auto &f) { return f.addr.abyIpv6[15] == 1; });
    On<TText>(
        "AppConvertNettoStr", "_AppConvertNettoStr",
        [](auto &f) { return f.addr.dwType = 1, AppConvertNettoStr(&f.addr, f.achText, 46); },
        [](auto &f) { return AppStrcmp(f.achText, "::") == 0; });
    const auto encoding = [](const std::string &name, const char *szEncoding, const auto &convert) {
        const std::string ops = "AppConvert" + name + " IpcConvConvert" + name;
        s_covered += ops + " ";
        if (!Knows(szEncoding))
            return; // an emulated system may lack it
        On<TText>(ops, "", convert, [](auto &f) { return f.achText[0] == 'A'; });
    };
    encoding("Utf8toUnicode", "UTF-8",
             [](auto &f) { return AppConvertUtf8toUnicode("A", f.achText, &f.dwLen); });
    encoding("UnicodetoUtf8", "UTF-8",
             [](auto &f) { return AppConvertUnicodetoUtf8(u"A", 1, f.achText, 8); });
    encoding("GbktoUnicode", "GBK",
             [](auto &f) { return AppConvertGbktoUnicode("A", f.achText, &f.dwLen); });
    encoding("UnicodetoGbk", "GBK",
             [](auto &f) { return AppConvertUnicodetoGbk(u"A", 1, f.achText, 8); });
}

// ---- Sockets ------------------------------------------------------------------------------------

struct TNet {
    explicit TNet(Attempt &attempt) : hPool(attempt.Pool())
    {
        comes->Action([this] { // while somebody waits
            udp.Send(udp, "x", kShort);
            send(listener.nPeer, "x", 1, 0);
        });
    }
    ~TNet()
    { // all works
        comes.reset();
        char chTaken;
        uint32_t dwLen = 1;
        while (udp.Receive(1) > 0) {
        }
        EXPECT_EQ(udp.Send(udp, "x", kShort), 1);
        EXPECT_EQ(udp.Receive(kLong), 1);
        EXPECT_EQ(AppSocketTCPSend(hTcp, "x", 1, kShort), 1);
        EXPECT_EQ(send(listener.nPeer, "x", 1, 0), 1);
        EXPECT_EQ(AppSocketTCPRecv(hTcp, &chTaken, &dwLen, kLong), 1);
        AppSocketDestroy(hTcp);
        AppSocketDestroy(hNew);
        AppSocketDestroy(hUnbound);
    }
    std::string State() const { return ""; }
    HAppMemPool hPool;
    test::TUdp udp;
    test::TListener listener;
    HAppSocket hTcp = listener.Connect(), hNew = nullptr,
               hUnbound = AppSocketCreate(nullptr, APP_SOCKET_UDP, 0);
    TAppNetAddr addr = {};
    uint16_t wPort = 0;
    char chData = 0;
    uint32_t dwLen = 1;
    std::optional<fault::Fail> comes{std::in_place, Fn::epoll_wait, 1, 0, 1000};
};

void AddSockets()
{
    const auto always = [](auto &) { return true; };
    On<TNet>(
        "AppSocketBind", "_AppSocketBind",
        [](auto &f) { return AppSocketBind(f.hUnbound, &kLoopback, 0, 1); }, always);
    On<TNet>(
        "AppSocketUDPSend", "_AppSocketUDPSend",
        [](auto &f) { return Bytes(f.udp.Send(f.udp, "x", kShort)); },
        [](auto &f) { return f.udp.Receive(kLong) == 1; });
    On<TNet>(
        "AppSocketUDPRecv", "_AppSocketUDPRecv",
        [](auto &f) { return Bytes(f.udp.Receive(kShort)); }, always);
    On<TNet>(
        "AppSocketTCPSend", "_AppSocketTCPSend",
        [](auto &f) { return Bytes(AppSocketTCPSend(f.hTcp, "x", 1, kShort)); },
        [](auto &f) { return recv(f.listener.nPeer, &f.chData, 1, 0) == 1; });
    On<TNet>(
        "AppSocketTCPRecv", "_AppSocketTCPRecv",
        [](auto &f) { return Bytes(AppSocketTCPRecv(f.hTcp, &f.chData, &f.dwLen, kShort)); },
        always);
    On<TNet>(
        "AppSocketTCPConnect", "_AppSocketTCPConnect",
        [](auto &f) {
            f.hNew = AppSocketTCPConnect(f.hPool, &kLoopback, f.listener.wPort, kLong, nullptr);
            return Got(f.hNew != nullptr);
        },
        always)
        .harmless = {Fn::setsockopt, Fn::getsockname, Fn::getpeername};
    On<TNet>(
        "AppSocketUDPJoinMulticastGroup", "_AppSocketUDPJoinMulticastGroup",
        [](auto &f) {
            const TAppNetAddr group = {APP_NET_ADDR_IPV4, {inet_addr("239.1.2.3")}};
            return AppSocketUDPJoinMulticastGroup(f.udp.hSocket, &group, &kLoopback, 1);
        },
        always)
        .harmless = {Fn::setsockopt};
}

void AddAddresses()
{
    TAppNetAddr loopback6 = {APP_NET_ADDR_IPV6, {0}}, local = {};
    loopback6.abyIpv6[15] = 1;
    const auto addLocal = [](const TAppNetAddr &remote, const char *szLog) {
        On<TText>(
            "AppSocketCalLocalAddr", szLog,
            [=](auto &f) { return AppSocketCalLocalAddr(&remote, &f.addr); },
            [=](auto &f) { return memcmp(&f.addr, &remote, remote.dwType ? 20 : 8) == 0; });
    };
    addLocal(kLoopback, "_AppSocketCalLocalAddr");
    if (AppSocketCalLocalAddr(&loopback6, &local) == APP_OK)
        addLocal(loopback6, ""); // else there is no IPv6
    On<TText>(
        "AppSocketCalNATAddr IpcCapGetHwExternal IpcGetNetEthParam", "AppSocketCalNATAddr",
        [](auto &f) {
            return AppSocketCalNATAddr(&kLoopback, APP_SOCKET_TCP, 80, &f.addr, &f.time.wYear);
        },
        [](auto &f) { return f.addr.dwIpv4 == kLoopback.dwIpv4 && f.time.wYear == 80; })
        .harmless = {Fn::getifaddrs};
}

// ---- Tasks --------------------------------------------------------------------------------------

// A task whose thread stands in a handler.
struct TBusyTask {
    explicit TBusyTask(Attempt &attempt)
        : holder([this](const Diary::Call &) { door.Pass(); }),
          manager(4, 0, attempt.Pool() ? 1 << 24 : 0)
    {
        hTask = manager.New(diary);
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, nullptr, Diary::Handle, &holder));
        door.AwaitVisitor();
    }
    ~TBusyTask() { door.Open(); }
    std::string State() const { return ""; }
    // What came of the operation, and of an event behind it.
    bool Tells(const char *szText)
    {
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(2), nullptr, nullptr));
        door.Open();
        diary.Await(szText);
        return true;
    }
    Diary diary, holder;
    test::Door door;
    Manager manager;
    HAppTask hTask;
};

void AddNewTask(bool bReuse)
{
    Add("AppTaskMgrNewTask", "AppTaskMgrNewTask", [=](Attempt &attempt) {
        Diary diary;
        Manager manager(4, 0, attempt.Pool() ? 1 << 24 : 0);
        if (bReuse)
            manager.Park(manager.New(diary));
        auto hTask = reinterpret_cast<HAppTask>(16);
        uint32_t dwCode = attempt([&] {
            return AppTaskMgrNewTask(manager.Get(), "t", 9, 65536, 0, 0, Diary::Handle, &diary,
                                     &hTask);
        });
        EXPECT_EQ(hTask == nullptr, dwCode != APP_OK);
        if (attempt.Hit(kMemory) && dwCode == APP_FAILED)
            dwCode = APP_NO_RESOURCE; // the task's pool's own code
        if (!attempt.Good(dwCode))
            hTask = manager.New(diary);
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr));
        diary.Await(bReuse ? "stop, user 1" : "user 1");
    }).harmless = {Fn::malloc, Fn::pthread_attr_setinheritsched}; // the name's, the refresh's
}

// The whole life of a manager; its tasks' threads meet the faults too.
void LiveAndDie(HAppMemPool hPool, test::Ledger &ledger)
{
    HAppTaskMgr hTaskMgr = nullptr;
    if (AppTaskMgrCreate(hPool, 3, 0, &hTaskMgr) != APP_OK)
        return;
    HAppTask ahTask[3] = {};
    for (HAppTask &hTask : ahTask) {
        AppTaskMgrNewTask(hTaskMgr, "t", 9, 65536, 0, 0, test::Ledger::Handle, &ledger, &hTask);
        if (!hTask)
            continue;
        ledger.Send(hTask);
        ledger.Set(hTask, 0);
        ledger.Set(hTask, 100000);
        ledger.Send(hTask, true);
    }
    AppTaskTerminate(ahTask[0]);
    AppTaskMgrDestroy(hTaskMgr);
}

void AddTasks()
{
    AddNewTask(false);
    AddNewTask(true);
    On<TBusyTask>(
        "AppTaskSendEvent", "_AppTaskSendEvent",
        [](auto &f) { return AppTaskSendEvent(f.hTask, Arg(1), nullptr, nullptr); },
        [](auto &f) { return f.Tells("user 1, user 2"); });
    On<TBusyTask>(
        "AppTaskAssignEvent", "_AppTaskSendEvent",
        [](auto &f) { return AppTaskAssignEvent(f.hTask, Arg(1), nullptr, nullptr); },
        [](auto &f) { return f.Tells("user 1, user 2"); });
    On<TBusyTask>(
        "AppTaskTerminate", "_AppTaskSendEvent", [](auto &f) { return AppTaskTerminate(f.hTask); },
        [](auto &f) { return f.Tells("drop 2, stop"); });
    On<TBusyTask>(
        "AppTaskSetTimer AppTaskResetTimer AppTaskTimerGetRemainTime AppTaskCancelTimer",
        "AppTaskSetTimer",
        [](auto &f) {
            HAppTimer hTimer = AppTaskSetTimer(f.hTask, 100000, nullptr, nullptr);
            if (!hTimer)
                return kNothing;
            EXPECT_CODE(APP_OK, AppTaskResetTimer(hTimer));
            EXPECT_LE(AppTaskTimerGetRemainTime(hTimer), 100000u);
            AppTaskCancelTimer(hTimer);
            return uint32_t{APP_OK};
        },
        [](auto &f) { return f.Tells("cancel, user 2"); });
    Add("AppTaskMgrDestroy", nullptr, [](Attempt &attempt) {
        test::Ledger ledger(16);
        attempt([&] { return LiveAndDie(attempt.Pool(), ledger), 0; });
        ledger.ExpectBalance();
    }).scope = fault::kEveryThread;
}

// ---- XML ----------------------------------------------------------------------------------------

// With an attribute: Mini-XML loses the block of a first one whose name it cannot copy.
struct TDocument {
    explicit TDocument(Attempt &)
    {
        mxmlSetErrorCallback([](const char *) {});
        mxmlElementSetAttr(ptRoot, "a", "1");
    }
    ~TDocument() { mxmlDelete(ptRoot); }
    std::string Save() const
    {
        char *szText = mxmlSaveAllocString(ptRoot, MXML_NO_CALLBACK);
        const std::string text = szText ? szText : "";
        free(szText);
        return text;
    }
    // An element whose value could not be made stays, empty.
    std::string State()
    {
        const std::string text = Save();
        if (std::exchange(bTried, true)) {
            EXPECT_EQ(ptNew, nullptr);
        }
        return text == "<cfg a=\"1\"><v /></cfg>\n" ? "<cfg a=\"1\" />\n" : text;
    }
    bool Holds(const char *szText) const { return Save().find(szText) != std::string::npos; }
    mxml_node_t *ptRoot = mxmlNewElement(nullptr, "cfg"), *ptNew = ptRoot;
    bool bTried = false;
};

template <typename T>
void AddWriter(const char *szOp, const char *szLog, const char *szAfter,
               uint32_t (*pfnAdd)(mxml_node_t *, const char *, T, mxml_node_t **), T value)
{
    On<TDocument>(
        szOp, szLog, [=](auto &f) { return pfnAdd(f.ptRoot, "v", value, &f.ptNew); },
        [=](auto &f) { return f.Holds(szAfter) && f.ptNew == mxmlGetLastChild(f.ptRoot); });
}

void AddDocuments()
{
    On<TDocument>(
        "AppXmlLoad", "AppXmlLoad",
        [](auto &f) {
            static constexpr char kText[] =
                "<c><v>1</v></c>"; // no attribute: it would only be missing
            const uint32_t dwCode = AppXmlLoad(kText, sizeof(kText) - 1, &f.ptNew);
            if (dwCode == APP_OK)
                mxmlDelete(f.ptNew);
            return dwCode;
        },
        [](auto &) { return true; });
    On<TDocument>(
        "AppXmlAddSonNode", "AppXmlAddSonNode",
        [](auto &f) { return AppXmlAddSonNode(f.ptRoot, "v", &f.ptNew); },
        [](auto &f) { return f.Holds("<v />"); });
    const char *const szStr = "AppXmlAddSonNode_Str", *const szData = "AppXmlAddSonNode_CDATA",
                      *const szText = "text";
    AddWriter(szStr, szStr, "<v>text</v>", AppXmlAddSonNode_Str, szText);
    AddWriter("AppXmlAddSonNode_s32", szStr, "<v>-5</v>", AppXmlAddSonNode_s32, -5);
    AddWriter("AppXmlAddSonNode_u32", szStr, "<v>5</v>", AppXmlAddSonNode_u32, 5u);
    AddWriter("AppXmlAddSonNode_u64", szStr, "<v>5</v>", AppXmlAddSonNode_u64, uint64_t{5});
    AddWriter("AppXmlAddSonNode_Double", szStr, "<v>0.500000</v>", AppXmlAddSonNode_Double, 0.5);
    AddWriter("AppXmlAddSonNode_Bool", szStr, "<v>true</v>", AppXmlAddSonNode_Bool, 2u);
    AddWriter(szData, szData, "<v><![CDATA[text]]></v>", AppXmlAddSonNode_CDATA, szText);
    On<TDocument>(
        "AppXmlSetAttr_s32", "AppXmlSetAttr_s32",
        [](auto &f) { return f.ptNew = nullptr, AppXmlSetAttr_s32(f.ptRoot, "v", -5); },
        [](auto &f) { return f.Holds("v=\"-5\""); });
    On<TDocument>(
        "AppXmlSetAttr_u32", "AppXmlSetAttr_u32",
        [](auto &f) { return f.ptNew = nullptr, AppXmlSetAttr_u32(f.ptRoot, "a", 5); },
        [](auto &f) { return f.Holds("a=\"5\""); });
}

// ---- The sweep ----------------------------------------------------------------------------------

// What is left: it takes no memory, and calls nothing of the system that can fail.
constexpr char kNothingToFail[] =
    "AppCheckIpv4Class AppConvEnum2Str AppConvStr2Enum AppConvertHton* AppConvertNtoh* "
    "AppConvertStrtoDouble "
    "AppConvertPrefixLengthtoSubnetMask AppConvertStrtoFloat AppConvertStrtoS32 AppConvertStrtoU* "
    "AppConvertSubnetMasktoPrefixLength AppConvertTickToMS AppTickDiff AppDelay AppDumpMem "
    "AppFindS32StrPair_* "
    "AppMakeCapStr_* AppGenerateLogChannel AppSetLogLevel AppSetLogViaStdout AppMemcmp AppMemcpy "
    "AppMemzero "
    "AppSnprintf AppSscanf AppStr* AppDoubleListRemove AppSocketStartUp AppSocketClearUp "
    "AppShareActionLock "
    "AppShareActionUnlock AppTaskGetLastEvent AppTaskGetMemPool AppXmlGet* AppXmlMxmlParseCB "
    "AppRegCommand AppHost* "
    "QorPrintf QorRegCommand IpcGetUpupCfg ";

// Returns the number of faults met; `pbPool`: with a pool, and whether the row makes use of it.
unsigned Sweep(const Row &row, bool *pbPool)
{
    const bool bPool = *pbPool;
    for (unsigned n = 1; n < 1000; ++n) {
        SCOPED_TRACE(Text("%s: call %u%s", row.ops.c_str(), n, bPool ? " with a pool" : ""));
        const long nBlocks = fault::LiveBlocks(), nDescriptors = fault::OpenDescriptors();
        HAppMemPool hPool = nullptr;
        if (bPool) {
            EXPECT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool));
        }
        Attempt attempt(row, n, hPool);
        row.run(attempt);
        if (bPool) {
            EXPECT_TRUE(hPool->dwCurSize == 0 && app::PoolIsValid(hPool));
        }
        AppMemPoolDestroy(hPool);
        EXPECT_EQ(fault::LiveBlocks(), nBlocks + attempt.m_nKept);
        EXPECT_EQ(fault::OpenDescriptors(), nDescriptors);
        *pbPool = attempt.UsesPool();
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << "the fault: " << (attempt.Hit() ? fault::Name(attempt.Met()) : "none");
            return n;
        }
        if (!attempt.Hit())
            return n - 1;
    }
    ADD_FAILURE() << "the operation never succeeds";
    return 0;
}

TEST(Sweep, EveryOperationUnderEveryFault)
{
    test::Watchdog watchdog;
    AddCreations();
    AddMemory();
    AddRegistration("AppRegisterShareAction AppRunShareAction", AppRegisterShareAction);
    AddRegistration("AppRegisterBlockShareAction", AppRegisterBlockShareAction);
    AddReports();
    AddFiles();
    AddConversions();
    AddSockets();
    AddAddresses();
    AddTasks();
    AddDocuments();
    s_covered += kNothingToFail;
    unsigned nFaults = 0;
    for (const Row &row : s_rows) {
        s_covered += row.ops + " ";
        bool bPool = false;
        unsigned nMet = Sweep(row, &bPool);
        if (bPool)
            nMet += Sweep(row, &bPool);
        EXPECT_GT(nMet, 0u) << row.ops << ": nothing failed";
        nFaults += nMet;
        if (HasFailure())
            return;
    }
    std::set<std::string> names;
    for (const auto &exported : test::Exported())
        names.insert(exported.first);
    EXPECT_EQ(test::Unlisted(names, s_covered), "") << "not in the table, or unknown";
    printf("%zu operations, %u faults\n", s_rows.size(), nFaults);
}

} // namespace
