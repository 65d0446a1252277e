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

#include "mempool/mempool.h"
#include "support/exported.h"
#include "support/log_capture.h"
#include "support/sockets.h"
#include "support/tasks.h"
#include "utils/double_list.h"
#include "utils/queue.h"
#include "utils/share_action.h"

using fault::Fn;
using test::Arg;
using test::Diary;
using test::kLong;
using test::kLoopback;
using test::kShort;
using test::Manager;
using test::Text;

namespace {

using Fns = std::vector<Fn>;

const Fns kMemory = fault::kMemory;
// These only shorten a wait; what fails then says that the time is over.
const Fns kWaits = {Fn::clock_gettime, Fn::pthread_mutex_clocklock, Fn::pthread_mutex_timedlock,
                    Fn::pthread_cond_timedwait};

bool Has(const Fns &fns, Fn fn) { return std::find(fns.begin(), fns.end(), fn) != fns.end(); }

// What a system may refuse.
Fns Refusable() {
    Fns fns;
    for (unsigned i = 0; i < fault::kFunctions; ++i)
        if (!Has({Fn::free, Fn::pthread_cond_signal, Fn::_AppVsnprintf}, Fn(i)) &&
            strncmp(fault::Name(Fn(i)), "mxml", 4) != 0)
            fns.push_back(Fn(i));
    return fns;
}

class Attempt;

struct Row {
    std::string ops;   // the exported operations that it covers
    const char *szLog; // whose line tells a refusal; null: at most the allocation's line comes; "": any
    std::function<void(Attempt &)> run;
    Fns harmless = {}; // the operation may do without these
    fault::Scope scope = fault::kThisThread;
    bool bFormatting = false; // fails too
};

// One run of a row.
class Attempt {
public:
    Attempt(const Row &row, unsigned nNth, HAppMemPool hPool) : m_nNth(nNth), m_row(row), m_hPool(hPool) {}

    // The operation itself: here the fault comes, not in what is around it.
    template <typename Operation>
    auto operator()(Operation operation) {
        Fns fns = Refusable();
        if (m_row.bFormatting) fns.push_back(Fn::_AppVsnprintf);
        m_log.Clear();
        fault::Fail fail(fns, m_nNth, EPERM, 1, m_row.scope);
        const auto result = operation();
        m_bHit = fail.Hits() > 0;
        m_fn = fail.Last();
        m_lines = m_log.Lines();
        return result;
    }
    // Whether the result is the good one; it must be what the fault demands.
    bool Good(int64_t qnResult, int64_t qnGood = APP_OK, int64_t qnNoMemory = APP_NO_RESOURCE,
              int64_t qnRefused = APP_FAILED) const {
        if (qnResult == qnGood) {
            EXPECT_TRUE(!m_bHit || Hit(kWaits) || Hit(m_row.harmless) || qnGood == qnNoMemory);
        } else if (!Hit(kWaits) || (qnResult != APP_TIMEOUT && qnResult != -2)) {
            EXPECT_TRUE(m_bHit);
            EXPECT_EQ(qnResult, Hit(kMemory) ? qnNoMemory : qnRefused);
            ExpectLine();
        }
        return qnResult == qnGood;
    }
    // Once more without a fault when it has failed, after a look at what it left.
    template <typename Operation>
    void Twice(
        Operation operation, const std::function<void()> &look = [] {}) {
        if (Good((*this)(operation))) return;
        look();
        EXPECT_CODE(APP_OK, operation());
    }
    bool Hit(const Fns &fns) const { return m_bHit && Has(fns, m_fn); }
    bool Hit() const { return m_bHit; }
    Fn Met() const { return m_fn; }
    // The row is run with the heap and with a pool.
    HAppMemPool Pool() {
        m_bPool = true;
        return m_hPool;
    }
    bool UsesPool() const { return m_bPool; }

    const unsigned m_nNth;
    long m_nKept = 0; // blocks that are meant to stay

private:
    void ExpectLine() const {
        const std::string name = m_row.szLog ? m_row.szLog : m_row.ops.substr(0, m_row.ops.find(' '));
        std::string own;
        for (const std::string &line : m_lines)
            if (line.find("] " + name + ": ") != std::string::npos) own += line;
        if (!m_row.szLog) { EXPECT_TRUE(own.empty() || Hit(kMemory)) << own; }
        const bool bTransfer =
            name == "_AppSocketUDPRecv" || name == "_AppSocketTCPSend" || name == "_AppSocketTCPRecv";
        if (!m_row.szLog || name.empty() || (bTransfer && Hit({Fn::epoll_ctl, Fn::epoll_wait}))) return;
        EXPECT_NE(own, "") << name << " says nothing";
        if (name.rfind("_AppSocket", 0) == 0 && !Hit(kMemory)) ExpectCause(own);
    }
    // The call and its error.
    void ExpectCause(const std::string &line) const {
        if (line.find("F_GETFL failed 9 ") != std::string::npos) return; // of a descriptor refused before
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

Row &Add(const std::string &ops, const char *szLog, const std::function<void(Attempt &)> &run) {
    s_rows.push_back({ops, szLog, run});
    return s_rows.back();
}

// `create(pool, &handle)` and `destroy(handle)`.
template <typename Handle, typename Create, typename Destroy>
void AddCreation(const char *szOps, const char *szLog, Create create, Destroy destroy) {
    Add(szOps, szLog, [=](Attempt &attempt) {
        auto handle = reinterpret_cast<Handle>(16);
        attempt.Twice([&] { return create(attempt.Pool(), &handle); }, [&] { EXPECT_EQ(handle, nullptr); });
        destroy(handle);
    });
}

// ---- Locks, containers, pools -------------------------------------------------------------------

void AddLocks(uint32_t dwType) {
    AddCreation<HAppLock>(
        "AppLockCreate AppLockDestroy", nullptr,
        [=](HAppMemPool hPool, HAppLock *phLock) { return AppLockCreate(hPool, 1, 1, dwType, phLock); },
        AppLockDestroy);
    Add("AppLockTakeByTime AppLockGive AppGetTick", nullptr, [=](Attempt &attempt) {
        HAppLock hLock = nullptr;
        ASSERT_CODE(APP_OK, AppLockCreate(nullptr, 1, 0, dwType, &hLock));
        std::thread([&] { attempt.Good(attempt([&] { return AppLockTakeByTime(hLock, 2); }), APP_TIMEOUT); }).join();
        EXPECT_CODE(APP_OK, AppLockGive(hLock));
        EXPECT_CODE(APP_OK, AppLockTakeByTime(hLock, 1));
        EXPECT_CODE(APP_OK, AppLockGive(hLock));
        AppLockDestroy(hLock);
    });
    Add("AppGetTick", nullptr, [](Attempt &attempt) {
        const uint32_t dwTick = attempt([] { return AppGetTick(); });
        EXPECT_EQ(dwTick == ~static_cast<uint32_t>(EPERM), attempt.Hit());
    });
}

void AddInsertion(const char *szOp, decltype(&AppDoubleListInsertAfter) pfnInsert, bool bAfter) {
    Add(szOp, szOp, [=](Attempt &attempt) {
        HAppDoubleList hList = nullptr;
        HAppDoubleListNode hAnchor = nullptr, hNode = nullptr;
        ASSERT_CODE(APP_OK, AppDoubleListCreate(attempt.Pool(), 0, 1, &hList));
        EXPECT_CODE(APP_OK, AppDoubleListInsertAfter(hList, nullptr, Arg(1), &hAnchor));
        attempt.Twice([&] { return pfnInsert(hList, hAnchor, Arg(2), &hNode); },
                      [&] { EXPECT_TRUE(hList->dwCurSize == 1 && hList->ptHead == hList->ptTail); });
        EXPECT_TRUE(hList->dwCurSize == 2 && (bAfter ? hList->ptTail : hList->ptHead) == hNode);
        AppDoubleListDestroy(hList, nullptr, nullptr);
    });
}

void AddContainers() {
    AddCreation<HAppDoubleList>(
        "AppDoubleListCreate AppDoubleListDestroy", "AppDoubleListCreate",
        [](HAppMemPool hPool, HAppDoubleList *phList) { return AppDoubleListCreate(hPool, 0, 1, phList); },
        [](HAppDoubleList hList) { AppDoubleListDestroy(hList, nullptr, nullptr); });
    AddInsertion("AppDoubleListInsertAfter", AppDoubleListInsertAfter, true);
    AddInsertion("AppDoubleListInsertBefore", AppDoubleListInsertBefore, false);
    AddCreation<HAppQueue>(
        "AppQueueCreate AppQueueDestroy", "AppQueueCreate",
        [](HAppMemPool hPool, HAppQueue *phQueue) { return AppQueueCreate(hPool, 5, 1, phQueue); },
        [](HAppQueue hQueue) { AppQueueDestroy(hQueue, nullptr, nullptr); });
    Add("AppQueueIn AppQueueGetSize", "_AppQueueIn", [](Attempt &attempt) {
        HAppQueue hQueue = nullptr;
        ASSERT_CODE(APP_OK, AppQueueCreate(attempt.Pool(), 5, 1, &hQueue));
        EXPECT_CODE(APP_OK, AppQueueIn(hQueue, Arg(1), 5));
        const uint32_t dwSize = attempt.Good(attempt([&] { return AppQueueIn(hQueue, Arg(2), 9); })) ? 2 : 1;
        EXPECT_EQ(AppQueueGetSize(hQueue), dwSize);
        EXPECT_EQ(_AppQueueGetTopSize(hQueue), dwSize);
        void *pvData = nullptr;
        for (uintptr_t i = dwSize; i > 0; --i) {
            EXPECT_CODE(APP_OK, AppQueueOut(hQueue, 1, &pvData));
            EXPECT_EQ(pvData, Arg(i));
        }
        EXPECT_CODE(APP_TIMEOUT, AppQueueOut(hQueue, 1, &pvData)); // nothing was promised for the failure
        AppQueueDestroy(hQueue, nullptr, nullptr);
    });
    Add("AppQueueOut", nullptr, [](Attempt &attempt) {
        HAppQueue hQueue = nullptr;
        ASSERT_CODE(APP_OK, AppQueueCreate(nullptr, 5, 1, &hQueue));
        attempt.Good(attempt([&] { return AppQueueOut(hQueue, 2, nullptr); }), APP_TIMEOUT);
        EXPECT_CODE(APP_OK, AppQueueIn(hQueue, Arg(1), 0));
        EXPECT_CODE(APP_OK, AppQueueOut(hQueue, 1, nullptr));
        AppQueueDestroy(hQueue, nullptr, nullptr);
    });
}

// `allocate(pool, block of 10 bytes)` gives a block of another size, or the grown one.
void AddAllocation(const char *szOps, const std::function<void *(HAppMemPool, char *)> &allocate, bool bGrows = false) {
    Add(szOps, nullptr, [=](Attempt &attempt) {
        auto szOld = static_cast<char *>(AppMemPoolMalloc(attempt.Pool(), 10));
        AppStrncpy(szOld, "123456789", 10);
        char *szNew = nullptr;
        const auto operation = [&] {
            szNew = static_cast<char *>(allocate(attempt.Pool(), szOld));
            return szNew ? APP_OK : APP_NO_RESOURCE;
        };
        attempt.Twice(operation, [&] {
            EXPECT_STREQ(szOld, "123456789");
            EXPECT_EQ(attempt.Pool() ? attempt.Pool()->dwCurSize : 10u, 10u);
        });
        EXPECT_STREQ(bGrows ? szNew : szOld, "123456789");
        AppMemPoolFree(szNew);
        if (!bGrows) AppMemPoolFree(szOld);
    });
}

void Collect(const char *szText, void *pvTexts) { static_cast<std::string *>(pvTexts)->append(szText); }

// A report, its formatting failing too: it may lack lines, no more.
void Report(Attempt &attempt, const std::function<void(PFAppShow, void *)> &show) {
    std::string before, during, after;
    show(Collect, &before);
    attempt([&] { return show(Collect, &during), 0; });
    show(Collect, &after);
    EXPECT_EQ(before, after);
    EXPECT_NE(before, "");
    EXPECT_LE(during.size(), before.size());
    if (!attempt.Hit()) { EXPECT_EQ(during, before); }
}

void AddPools() {
    Add("AppMemPoolCreate AppMemPoolDestroy", "AppMemPoolCreate", [](Attempt &attempt) {
        auto hPool = reinterpret_cast<HAppMemPool>(16), hUntouched = hPool;
        const uint32_t dwCode = attempt([&] { return AppMemPoolCreate(0, 1, 0, &hPool); });
        // The record and its lock's, then the engine with its lists.
        if (!attempt.Good(dwCode, APP_OK, attempt.m_nNth <= 2 ? APP_NO_RESOURCE : APP_FAILED)) {
            EXPECT_EQ(hPool, hUntouched);
            return;
        }
        AppMemPoolFree(AppMemPoolMalloc(hPool, 10));
        AppMemPoolDestroy(hPool);
    });
    Add("AppMemPoolShow", nullptr, [](Attempt &attempt) {
        if (!attempt.Pool()) return;
        Report(attempt, [&](PFAppShow pfnShow, void *pv) { AppMemPoolShow(attempt.Pool(), pfnShow, pv); });
    }).bFormatting = true;
    AddAllocation("AppMemPoolMalloc AppMemPoolFree",
                  [](HAppMemPool hPool, char *) { return AppMemPoolMalloc(hPool, 100); });
    AddAllocation("AppMemPoolMalloc", [](HAppMemPool hPool, char *) { return AppMemPoolMalloc(hPool, 5000000); });
    AddAllocation("AppStrndup", [](HAppMemPool hPool, char *szOld) { return AppStrndup(hPool, szOld, 60); });
    AddAllocation(
        "AppMemPoolRealloc", [](HAppMemPool hPool, char *szOld) { return AppMemPoolRealloc(hPool, szOld, 1000); },
        true);
}

// ---- Actions, files, conversions ----------------------------------------------------------------

void AddRegistration(const char *szOps, decltype(&AppRegisterShareAction) pfnRegister) {
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
    TLogFile() {
        char achDir[] = "/tmp/appcore-sweep-XXXXXX";
        dir = mkdtemp(achDir);
    }
    ~TLogFile() { // a line reaches the file, opened anew if need be
        EXPECT_EQ(Open(1000), 1u);
        AppLog(9, APP_LOG_ALWAYS, "[INFO ] AppLog: works\n");
        std::ifstream file(dir / "log");
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        EXPECT_NE(text.find("[INFO ] AppLog: works\n"), std::string::npos);
        AppCloseFileLog(9);
        std::filesystem::remove_all(dir);
    }
    uint32_t Open(uint32_t dwMaxSize) const { return AppSetFileLog(9, (dir / "log").c_str(), dwMaxSize); }

    std::filesystem::path dir;
    test::StdoutCapture quiet;
};

void AddFiles() {
    Add("AppSetFileLog AppCloseFileLog", nullptr, [](Attempt &attempt) {
        TLogFile file;
        attempt.Good(attempt([&] { return file.Open(1000); }), 1, 0, 0);
    });
    Add("AppLog AppLogFile", nullptr, [](Attempt &attempt) {
        TLogFile file;
        EXPECT_EQ(file.Open(0), 1u); // the line rotates
        attempt([] { return AppLogFile(9, APP_LOG_ALWAYS, "[INFO ] AppLogFile: text\n"), 0; });
    });
}

// `pfnConvert` writes `wanted` into a buffer of 64 bytes.
void AddConversion(const std::string &ops, const char *szLog, const std::string &wanted, uint32_t (*pfnConvert)(char *),
                   const char *szEncoding = "UTF-8") {
    const iconv_t hConv = iconv_open(szEncoding, "UTF-16LE");
    if (hConv != reinterpret_cast<iconv_t>(-1)) iconv_close(hConv);
    const bool bRun = hConv != reinterpret_cast<iconv_t>(-1); // an emulated system's iconv may lack it
    Add(ops, szLog, [=](Attempt &attempt) {
        char achBuf[64] = "";
        if (bRun) attempt.Twice([&] { return pfnConvert(achBuf); });
        if (bRun) { EXPECT_EQ(std::string(achBuf, wanted.size()), wanted); }
    });
}

template <uint32_t (*pfnConvert)(const void *, void *, uint32_t *)>
uint32_t ToUnicode(char *szBuf) {
    uint32_t dwLen = 8;
    return pfnConvert("A", szBuf, &dwLen);
}

template <uint32_t (*pfnConvert)(const void *, uint32_t, void *, uint32_t)>
uint32_t FromUnicode(char *szBuf) {
    return pfnConvert(u"A", 1, szBuf, 8);
}

void AddConversions() {
    constexpr uint32_t kNone = 0xFFFFFFFF;
    // A month that only the system's function carries over.
    AddConversion("AppConvertTimeToU32", nullptr, "1735689600", [](char *szBuf) {
        const TAppTime time = {2024, 13, 1, 0, 0, 0, 0};
        const uint32_t dwTime = AppConvertTimeToU32(&time);
        AppSnprintf(szBuf, 64, "%u", dwTime);
        return uint32_t{dwTime == kNone ? APP_FAILED : APP_OK};
    });
    AddConversion("AppConvertXsdDatetime2U32", nullptr, "1735689600", [](char *szBuf) {
        uint32_t dwTime = 0;
        EXPECT_CODE(APP_OK, AppConvertXsdDatetime2U32("2024-13-01T00:00:00", &dwTime, nullptr, nullptr, nullptr));
        AppSnprintf(szBuf, 64, "%u", dwTime);
        return uint32_t{dwTime == kNone ? APP_FAILED : APP_OK};
    });
    AddConversion("AppConvertU32ToTime", nullptr, "1970", [](char *szBuf) {
        TAppTime time = {1, 1, 1, 1, 1, 1, 1};
        const uint32_t dwCode = AppConvertU32ToTime(0, &time);
        AppSnprintf(szBuf, 64, "%d", time.wYear);
        EXPECT_EQ(time.wYear, dwCode == APP_OK ? 1970 : 1);
        return dwCode;
    });
    AddConversion("AppConvertU322XsdDatetime", "AppConvertU322XsdDatetime", "1970-01-01T00:00:00Z",
                  [](char *szBuf) { return AppConvertU322XsdDatetime(0, 1, nullptr, nullptr, szBuf, 30); });
    AddConversion("AppConvertStrtoNet", "_AppConvertStrtoNet", "AA", [](char *szBuf) {
        TAppNetAddr addr = {7, {0}};
        const uint32_t dwCode = AppConvertStrtoNet("4141::", &addr);
        EXPECT_EQ(addr.dwType, 1u);
        EXPECT_EQ(addr.abyIpv6[0] != 0, dwCode == APP_OK);
        memcpy(szBuf, addr.abyIpv6, 3);
        return dwCode;
    });
    AddConversion("AppConvertNettoStr", "_AppConvertNettoStr", "::", [](char *szBuf) {
        const TAppNetAddr addr = {APP_NET_ADDR_IPV6, {0}};
        return AppConvertNettoStr(&addr, szBuf, 46);
    });
#define CONVERTER(name) "AppConvert" #name " IpcConvConvert" #name, "_AppUtilsUnicodeConvert" #name, "A"
    AddConversion(CONVERTER(Utf8toUnicode), ToUnicode<AppConvertUtf8toUnicode>);
    AddConversion(CONVERTER(GbktoUnicode), ToUnicode<AppConvertGbktoUnicode>, "GBK");
    AddConversion(CONVERTER(UnicodetoUtf8), FromUnicode<AppConvertUnicodetoUtf8>);
    AddConversion(CONVERTER(UnicodetoGbk), FromUnicode<AppConvertUnicodetoGbk>, "GBK");
#undef CONVERTER
}

// ---- Sockets ------------------------------------------------------------------------------------

// A socket that works afterwards.
struct TUdp : test::TUdp {
    ~TUdp() {
        while (Receive(1) > 0) {} // what came late
        EXPECT_EQ(SendToItself(), 1);
        EXPECT_EQ(Receive(kLong), 1);
    }
    int32_t SendToItself() const { return Send(*this, "x", kShort); }
};

void AddDatagrams() {
    for (const uint32_t dwType : {APP_SOCKET_UDP, APP_SOCKET_TCP})
        Add("AppSocketCreate AppSocketDestroy AppSocketBind", "_AppSocketCreate", [=](Attempt &attempt) {
            HAppSocket hSocket = attempt([&] { return AppSocketCreate(attempt.Pool(), dwType, 0); });
            // Without a descriptor the first operation fails.
            if (attempt.Good(hSocket != nullptr, 1, 0, 0)) {
                EXPECT_CODE(attempt.Hit({Fn::socket}) ? APP_FAILED : APP_OK, AppSocketBind(hSocket, &kLoopback, 0, 0));
            }
            AppSocketDestroy(hSocket);
        }).harmless = {Fn::socket};
    Add("AppSocketBind", "_AppSocketBind", [](Attempt &attempt) {
        HAppSocket hSocket = AppSocketCreate(nullptr, APP_SOCKET_UDP, 0);
        attempt.Twice([&] { return AppSocketBind(hSocket, &kLoopback, 0, 1); });
        AppSocketDestroy(hSocket);
    });
    Add("AppSocketUDPSend", "_AppSocketUDPSend", [](Attempt &attempt) {
        TUdp udp;
        if (attempt.Good(attempt([&] { return udp.SendToItself(); }), 1, -1, -1)) { EXPECT_EQ(udp.Receive(kLong), 1); }
    });
    Add("AppSocketUDPRecv", "_AppSocketUDPRecv", [](Attempt &attempt) {
        TUdp udp;
        fault::Fail comes(Fn::epoll_wait, 1, 0); // the datagram, while its receiver waits
        comes.Action([&] { udp.SendToItself(); });
        attempt.Good(attempt([&] { return udp.Receive(kShort); }), 1, -1, -1);
    });
    Add("AppSocketUDPJoinMulticastGroup", "_AppSocketUDPJoinMulticastGroup", [](Attempt &attempt) {
        const TAppNetAddr group = {APP_NET_ADDR_IPV4, {inet_addr("239.1.2.3")}};
        TUdp udp;
        const auto join = [&] { return AppSocketUDPJoinMulticastGroup(udp.hSocket, &group, &kLoopback, 1); };
        if (attempt.m_nNth == 1) // the interface is chosen by the system then
            EXPECT_CODE(APP_OK, attempt(join));
        else
            attempt.Twice(join);
    });
}

void AddStreams() {
    Add("AppSocketTCPConnect", "_AppSocketTCPConnect", [](Attempt &attempt) {
        test::TListener listener;
        const auto connect = [&] {
            return AppSocketTCPConnect(attempt.Pool(), &kLoopback, listener.wPort, kLong, nullptr);
        };
        HAppSocket hSocket = attempt(connect);
        if (!attempt.Good(hSocket != nullptr, 1, 0, 0)) hSocket = connect();
        EXPECT_NE(hSocket, nullptr);
        AppSocketDestroy(hSocket);
    }).harmless = {Fn::setsockopt};
    Add("AppSocketTCPSend", "_AppSocketTCPSend", [](Attempt &attempt) {
        test::TListener listener;
        HAppSocket hSocket = listener.Connect();
        std::string large(1 << 20, 'x');
        const auto send = [&] { return AppSocketTCPSend(hSocket, large.data(), 1 << 20, kShort) > 0 ? 1 : -1; };
        const auto drain = [&] {
            while (recv(listener.nPeer, large.data(), large.size(), MSG_DONTWAIT) > 0) {}
        };
        while (send() > 0) {} // until the peer's buffer is full
        fault::Fail drained(Fn::epoll_wait, 1, 0);
        drained.Action(drain);
        attempt.Good(attempt(send), 1, -1, -1);
        drain();
        EXPECT_EQ(send(), 1);
        AppSocketDestroy(hSocket);
    });
    Add("AppSocketTCPRecv", "_AppSocketTCPRecv", [](Attempt &attempt) {
        test::TListener listener;
        HAppSocket hSocket = listener.Connect();
        char achBuf[8];
        uint32_t dwLen = sizeof(achBuf);
        fault::Fail comes(Fn::epoll_wait, 1, 0);
        comes.Action([&] { EXPECT_EQ(send(listener.nPeer, "x", 1, 0), 1); });
        const auto receive = [&] { return AppSocketTCPRecv(hSocket, achBuf, &dwLen, kShort); };
        attempt.Good(attempt(receive), 1, -1, -1);
        EXPECT_EQ(send(listener.nPeer, "y", 1, 0), 1);
        EXPECT_GT(receive(), 0);
        AppSocketDestroy(hSocket);
    });
}

void AddAddresses() {
    TAppNetAddr loopback6 = {APP_NET_ADDR_IPV6, {0}}, local = {};
    loopback6.abyIpv6[15] = 1;
    const auto addLocal = [](const TAppNetAddr &remote, const char *szLog) {
        Add("AppSocketCalLocalAddr", szLog, [=](Attempt &attempt) {
            TAppNetAddr found = {};
            attempt.Twice([&] { return AppSocketCalLocalAddr(&remote, &found); });
            EXPECT_EQ(memcmp(&found, &remote, remote.dwType ? 20 : 8), 0);
        });
    };
    addLocal(kLoopback, "_AppSocketCalLocalAddr");
    if (AppSocketCalLocalAddr(&loopback6, &local) == APP_OK) addLocal(loopback6, ""); // else there is no IPv6
    Add("AppSocketCalNATAddr IpcCapGetHwExternal IpcGetNetEthParam", "AppSocketCalNATAddr", [](Attempt &attempt) {
        TAppNetAddr found = {};
        uint16_t wPort = 0;
        attempt.Twice([&] { return AppSocketCalNATAddr(&kLoopback, APP_SOCKET_TCP, 80, &found, &wPort); },
                      [&] { EXPECT_EQ(wPort, 0); });
        EXPECT_EQ(found.dwIpv4, kLoopback.dwIpv4);
        EXPECT_EQ(wPort, 80);
    }).harmless = {Fn::getifaddrs};
}

// ---- Tasks --------------------------------------------------------------------------------------

void AddNewTask(bool bReuse) {
    Add("AppTaskMgrNewTask AppTaskMgrShow", "AppTaskMgrNewTask", [=](Attempt &attempt) {
        Diary diary;
        Manager manager(4, 0, attempt.Pool() ? 1 << 24 : 0);
        if (bReuse) manager.Park(manager.New(diary));
        auto hTask = reinterpret_cast<HAppTask>(16);
        const uint32_t dwCode = attempt(
            [&] { return AppTaskMgrNewTask(manager.Get(), "t", 9, 65536, 0, 0, Diary::Handle, &diary, &hTask); });
        // The engine of the task's pool has a code of its own.
        if (!attempt.Good(dwCode, APP_OK, dwCode == APP_FAILED ? APP_FAILED : APP_NO_RESOURCE)) {
            EXPECT_EQ(hTask, nullptr);
            hTask = manager.New(diary);
        }
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr));
        diary.Await(bReuse ? "stop, user 1" : "user 1");
        // A name and a refresh are done without.
    }).harmless = {Fn::malloc, Fn::pthread_attr_setinheritsched};
}

// While the task's thread stands in a handler; `szAfter` is what comes of it.
void AddOnBusy(const char *szOps, const char *szLog, const char *szAfter, uint32_t (*pfnOperation)(HAppTask)) {
    Add(szOps, szLog, [=](Attempt &attempt) {
        Diary diary;
        test::Door door;
        Diary holder([&](const Diary::Call &) { door.Pass(); });
        Manager manager(4, 0, attempt.Pool() ? 1 << 24 : 0);
        HAppTask hTask = manager.New(diary);
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, nullptr, Diary::Handle, &holder));
        door.AwaitVisitor();
        const bool bGood = attempt.Good(attempt([&] { return pfnOperation(hTask); }));
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(2), nullptr, nullptr));
        door.Open();
        diary.Await(bGood ? szAfter : "user 2");
    });
}

// The whole life of a manager; its tasks' threads meet the faults too.
void LiveAndDie(Attempt &attempt, test::Ledger &ledger) {
    HAppTaskMgr hTaskMgr = nullptr;
    if (AppTaskMgrCreate(attempt.Pool(), 3, 0, &hTaskMgr) != APP_OK) return;
    HAppTask ahTask[3] = {};
    for (HAppTask &hTask : ahTask) {
        AppTaskMgrNewTask(hTaskMgr, "t", 9, 65536, 0, 0, test::Ledger::Handle, &ledger, &hTask);
        if (!hTask) continue;
        ledger.Send(hTask);
        ledger.Set(hTask, 0);
        ledger.Set(hTask, 100000);
        ledger.Send(hTask, true);
    }
    AppTaskTerminate(ahTask[0]);
    AppTaskMgrDestroy(hTaskMgr);
}

void AddTasks() {
    AddCreation<HAppTaskMgr>(
        "AppTaskMgrCreate", "AppTaskMgrCreate",
        [](HAppMemPool hPool, HAppTaskMgr *phMgr) { return AppTaskMgrCreate(hPool, 4, 0, phMgr); }, AppTaskMgrDestroy);
    AddNewTask(false);
    AddNewTask(true);
    const char *const szSend = "_AppTaskSendEvent";
    AddOnBusy("AppTaskSendEvent", szSend, "user 1, user 2",
              [](HAppTask hTask) { return AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr); });
    AddOnBusy("AppTaskAssignEvent", szSend, "user 1, user 2",
              [](HAppTask hTask) { return AppTaskAssignEvent(hTask, Arg(1), nullptr, nullptr); });
    AddOnBusy("AppTaskTerminate", szSend, "drop 2, stop", AppTaskTerminate);
    AddOnBusy("AppTaskSetTimer", "AppTaskSetTimer", "timeout, user 2", [](HAppTask hTask) {
        return uint32_t{AppTaskSetTimer(hTask, 0, nullptr, nullptr) ? APP_OK : APP_NO_RESOURCE};
    });
    AddOnBusy("AppTaskResetTimer AppTaskTimerGetRemainTime AppTaskCancelTimer", "AppTaskSetTimer", "cancel, user 2",
              [](HAppTask hTask) {
                  HAppTimer hTimer = AppTaskSetTimer(hTask, 100000, nullptr, nullptr);
                  if (!hTimer) return uint32_t{APP_NO_RESOURCE};
                  const uint32_t dwCode = AppTaskResetTimer(hTimer);
                  EXPECT_LE(AppTaskTimerGetRemainTime(hTimer), 100000u);
                  AppTaskCancelTimer(hTimer);
                  return dwCode;
              });
    Add("AppTaskMgrShow", nullptr, [](Attempt &attempt) {
        Diary diary;
        Manager manager(4, 0, attempt.Pool() ? 1 << 24 : 0);
        manager.Park(manager.New(diary));
        Report(attempt, [&](PFAppShow pfnShow, void *pv) { AppTaskMgrShow(manager.Get(), pfnShow, pv); });
    }).bFormatting = true;
    Add("AppTaskMgrDestroy", nullptr, [](Attempt &attempt) {
        test::Ledger ledger(16);
        attempt([&] { return LiveAndDie(attempt, ledger), 0; });
        ledger.ExpectBalance();
    }).scope = fault::kEveryThread;
}

// ---- XML ----------------------------------------------------------------------------------------

std::string Save(mxml_node_t *ptRoot) {
    char *szText = mxmlSaveAllocString(ptRoot, MXML_NO_CALLBACK);
    const std::string text = szText ? szText : "";
    free(szText);
    return text;
}

// `write(element, &new)`; the document holds `szAfter` then.  With an attribute at first: Mini-XML
// loses the block of a first one whose name it cannot copy.
void AddWriting(const char *szOp, const char *szLog, const char *szAfter,
                const std::function<uint32_t(mxml_node_t *, mxml_node_t **)> &write) {
    Add(szOp, szLog, [=](Attempt &attempt) {
        mxml_node_t *const ptRoot = mxmlNewElement(nullptr, "cfg");
        mxmlElementSetAttr(ptRoot, "a", "1");
        mxml_node_t *ptNew = ptRoot;
        attempt.Twice([&] { return write(ptRoot, &ptNew); },
                      [&] {
                          const std::string text = Save(ptRoot);
                          EXPECT_TRUE(text == "<cfg a=\"1\" />\n" || text == "<cfg a=\"1\"><v /></cfg>\n") << text;
                          EXPECT_EQ(ptNew, nullptr);
                      });
        EXPECT_NE(Save(ptRoot).find(szAfter), std::string::npos);
        mxmlDelete(ptRoot);
    });
}

template <typename T, typename V>
void AddAdding(const char *szOp, const char *szLog, const char *szAfter,
               uint32_t (*pfnAdd)(mxml_node_t *, const char *, T, mxml_node_t **), V value) {
    AddWriting(szOp, szLog, szAfter,
               [=](mxml_node_t *pt, mxml_node_t **pptNew) { return pfnAdd(pt, "v", value, pptNew); });
}

template <typename T>
void AddSetting(const char *szOp, const char *szName, const char *szAfter,
                uint32_t (*pfnSet)(mxml_node_t *, const char *, T), T value) {
    AddWriting(szOp, szOp, szAfter, [=](mxml_node_t *pt, mxml_node_t **pptNew) {
        *pptNew = nullptr;
        return pfnSet(pt, szName, value);
    });
}

void AddWriters() {
    mxmlSetErrorCallback([](const char *) {});
    AddWriting("AppXmlAddSonNode", "AppXmlAddSonNode", "<v />",
               [](mxml_node_t *pt, mxml_node_t **pptNew) { return AppXmlAddSonNode(pt, "v", pptNew); });
    const char *const szStr = "AppXmlAddSonNode_Str", *const szData = "AppXmlAddSonNode_CDATA";
    AddAdding(szStr, szStr, "<v>text</v>", AppXmlAddSonNode_Str, "text");
    AddAdding("AppXmlAddSonNode_s32", szStr, "<v>-5</v>", AppXmlAddSonNode_s32, -5);
    AddAdding("AppXmlAddSonNode_u32", szStr, "<v>5</v>", AppXmlAddSonNode_u32, 5u);
    AddAdding("AppXmlAddSonNode_u64", szStr, "<v>5</v>", AppXmlAddSonNode_u64, 5u);
    AddAdding("AppXmlAddSonNode_Double", szStr, "<v>0.500000</v>", AppXmlAddSonNode_Double, 0.5);
    AddAdding("AppXmlAddSonNode_Bool", szStr, "<v>true</v>", AppXmlAddSonNode_Bool, 2u);
    AddAdding(szData, szData, "<v><![CDATA[text]]></v>", AppXmlAddSonNode_CDATA, "text");
    AddSetting("AppXmlSetAttr_s32", "v", "v=\"-5\"", AppXmlSetAttr_s32, -5);
    AddSetting("AppXmlSetAttr_u32", "a", "a=\"5\"", AppXmlSetAttr_u32, 5u);
}

// ---- The sweep ----------------------------------------------------------------------------------

// What is left: it takes no memory, and calls nothing of the system that can fail.
constexpr char kNothingToFail[] =
    "AppCheckIpv4Class AppConvEnum2Str AppConvStr2Enum AppConvertHton* AppConvertNtoh* AppConvertStrtoDouble "
    "AppConvertPrefixLengthtoSubnetMask AppConvertStrtoFloat AppConvertStrtoS32 AppConvertStrtoU* "
    "AppConvertSubnetMasktoPrefixLength AppConvertTickToMS AppTickDiff AppDelay AppDumpMem AppFindS32StrPair_* "
    "AppMakeCapStr_* AppGenerateLogChannel AppSetLogLevel AppSetLogViaStdout AppMemcmp AppMemcpy AppMemzero "
    "AppSnprintf AppSscanf AppStr* AppDoubleListRemove AppSocketStartUp AppSocketClearUp AppShareActionLock "
    "AppShareActionUnlock AppTaskGetLastEvent AppTaskGetMemPool AppXmlGet* AppXmlMxmlParseCB AppRegCommand AppHost* "
    "QorPrintf QorRegCommand IpcGetUpupCfg ";

// Returns the number of faults met; `pbPool`: with a pool, and whether the row makes use of it.
unsigned Sweep(const Row &row, bool *pbPool) {
    const bool bPool = *pbPool;
    for (unsigned n = 1; n < 1000; ++n) {
        SCOPED_TRACE(Text("%s: call %u%s", row.ops.c_str(), n, bPool ? " with a pool" : ""));
        const long nBlocks = fault::LiveBlocks(), nDescriptors = fault::OpenDescriptors();
        HAppMemPool hPool = nullptr;
        if (bPool) { EXPECT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool)); }
        Attempt attempt(row, n, hPool);
        row.run(attempt);
        if (bPool) { EXPECT_EQ(hPool->dwCurSize, 0u); }
        AppMemPoolDestroy(hPool);
        EXPECT_EQ(fault::LiveBlocks(), nBlocks + attempt.m_nKept);
        EXPECT_EQ(fault::OpenDescriptors(), nDescriptors);
        *pbPool = attempt.UsesPool();
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << "the fault: " << (attempt.Hit() ? fault::Name(attempt.Met()) : "none");
            return n;
        }
        if (!attempt.Hit()) return n - 1;
    }
    ADD_FAILURE() << "the operation never succeeds";
    return 0;
}

TEST(Sweep, EveryOperationUnderEveryFault) {
    test::Watchdog watchdog;
    AddLocks(APP_LOCK_TYPE_SEM);
    AddLocks(APP_LOCK_TYPE_RECURSIVE);
    AddContainers();
    AddPools();
    AddRegistration("AppRegisterShareAction AppRunShareAction", AppRegisterShareAction);
    AddRegistration("AppRegisterBlockShareAction", AppRegisterBlockShareAction);
    Add("AppShareActionShow", nullptr, [](Attempt &attempt) { Report(attempt, AppShareActionShow); }).bFormatting =
        true;
    AddFiles();
    AddConversions();
    AddDatagrams();
    AddStreams();
    AddAddresses();
    AddTasks();
    AddWriters();
    std::string covered = kNothingToFail;
    unsigned nFaults = 0;
    for (const Row &row : s_rows) {
        covered += row.ops + " ";
        bool bPool = false;
        unsigned nMet = Sweep(row, &bPool);
        if (bPool) nMet += Sweep(row, &bPool);
        EXPECT_TRUE(nMet > 0 || row.ops.find("Gbk") != std::string::npos) << row.ops << ": nothing failed";
        nFaults += nMet;
        if (HasFailure()) return;
    }
    std::set<std::string> names;
    for (const auto &exported : test::Exported()) names.insert(exported.first);
    EXPECT_EQ(test::Unlisted(names, covered), "") << "not in the table, or unknown";
    printf("%zu operations, %u faults\n", s_rows.size(), nFaults);
}

} // namespace
