// SPDX-License-Identifier: MIT
//
// Every operation of the library that allocates or calls the system, under every fault: the n-th
// call that can fail does so, n = 1, 2, …, until the operation meets no fault any more.  After each
// the result is the one that its header states, nothing has leaked, and the object still works.
#include <arpa/inet.h>
#include <iconv.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "cross_linux/socket.h"
#include "mempool/mempool.h"
#include "support/exported.h"
#include "support/log_capture.h"
#include "support/tasks.h"
#include "utils/double_list.h"
#include "utils/queue.h"
#include "utils/share_action.h"

using fault::Fn;
using test::Arg;
using test::Diary;
using test::Door;
using test::LogCapture;
using test::Manager;
using test::Text;

namespace {

using Fns = std::vector<Fn>;

const Fns kMemory = fault::kMemory;
// These only shorten a wait; what fails then says that the time is over.
const Fns kWaits = {Fn::clock_gettime, Fn::pthread_mutex_clocklock, Fn::pthread_mutex_timedlock,
                    Fn::pthread_cond_timedwait};
bool Has(const Fns &fns, Fn fn) { return std::find(fns.begin(), fns.end(), fn) != fns.end(); }

// Every function that can be made to fail and that a system may refuse.
Fns All() {
    Fns fns;
    for (unsigned i = 0; i < fault::kFunctions; ++i)
        if (!Has({Fn::free, Fn::pthread_cond_signal, Fn::_AppVsnprintf}, static_cast<Fn>(i)) &&
            strncmp(fault::Name(static_cast<Fn>(i)), "mxml", 4) != 0)
            fns.push_back(static_cast<Fn>(i));
    return fns;
}
const Fns kAll = All();

class Attempt;

struct Row {
    const char *szOps; // the exported operations that it covers
    const char *szLog; // whose line ends a refusal; null: only a failed allocation has a line
    std::function<void(Attempt &)> run;
    Fns harmless = {};        // the operation may do without these
    bool bFormatting = false; // fails too
    fault::Scope scope = fault::kThisThread;
};

// One run of a row.
class Attempt {
public:
    Attempt(const Row &row, unsigned nNth, HAppMemPool hPool) : m_row(row), m_nNth(nNth), m_hPool(hPool) {}

    // The operation itself: here the fault comes, not in what is around it.
    template <typename Operation>
    auto operator()(Operation operation) {
        m_log.Clear();
        Fns fns = kAll;
        if (m_row.bFormatting) fns.push_back(Fn::_AppVsnprintf);
        fault::Fail fail(fns, m_nNth, EPERM, 1, m_row.scope);
        const auto result = operation();
        m_bHit = fail.Hits() > 0;
        m_fn = fail.Last();
        m_lines = m_log.Lines();
        return result;
    }
    // Whether the operation has succeeded: what it gave is compared with what the fault demands.
    bool Good(int64_t qnResult, int64_t qnGood = APP_OK, int64_t qnNoMemory = APP_NO_RESOURCE,
              int64_t qnRefused = APP_FAILED) const {
        const bool bLate = Hit(kWaits) && (qnResult == APP_TIMEOUT || qnResult == -2);
        if (qnResult == qnGood || bLate) {
            EXPECT_TRUE(!m_bHit || bLate || Hit(kWaits) || Hit(m_row.harmless) || qnGood == qnNoMemory);
        } else {
            EXPECT_EQ(qnResult, Hit(kMemory) ? qnNoMemory : qnRefused);
            EXPECT_TRUE(m_bHit);
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
    HAppMemPool Pool() {
        m_bPool = true;
        return m_hPool;
    }

    unsigned m_nKept = 0; // blocks that are meant to stay
    const Row &m_row;
    const unsigned m_nNth;
    bool m_bHit = false, m_bPool = false;
    Fn m_fn = Fn::malloc;
    std::vector<std::string> m_lines;
    LogCapture m_log;

private:
    void ExpectLine() const {
        const std::string name = m_row.szLog ? m_row.szLog : std::string(m_row.szOps, strcspn(m_row.szOps, " "));
        std::string own;
        for (const std::string &line : m_lines)
            if (line.find("] " + name + ": ") != std::string::npos) own += line;
        if (!m_row.szLog) { EXPECT_TRUE(own.empty() || Hit(kMemory)) << own; }
        const bool bTransfer = strstr(m_row.szOps, "Send") || strstr(m_row.szOps, "Recv");
        if (!m_row.szLog || !*m_row.szLog || (bTransfer && Hit({Fn::epoll_ctl, Fn::epoll_wait}))) return;
        EXPECT_NE(own, "") << m_row.szLog << " says nothing";
        if (m_row.szLog[0] == '_' && strstr(m_row.szLog, "_AppSocket") && !Hit(kMemory)) NamesCause(own);
    }
    // The call and its error; getpeername() tells how a connection went.
    void NamesCause(const std::string &line) const {
        if (line.find("F_GETFL failed 9 ") != std::string::npos) return; // of a descriptor refused before
        const std::string call = Hit({Fn::getpeername}) ? "connect"
                                 : Hit({Fn::epoll_ctl}) ? "epoll_wait"
                                                        : fault::Name(m_fn);
        EXPECT_NE(line.find(call.substr(0, call.find('1'))), std::string::npos) << line;
        EXPECT_NE(line.find(Text(" %d", EPERM)), std::string::npos) << line;
    }

    HAppMemPool m_hPool;
};

// ---- What the rows share ------------------------------------------------------------------------

template <typename Handle>
Handle NotNull() {
    return reinterpret_cast<Handle>(16);
}

// `create(pool, &handle)` and `destroy(handle)`.
template <typename Handle, typename Create, typename Destroy>
Row Creation(const char *szOps, const char *szLog, Create create, Destroy destroy) {
    const auto run = [=](Attempt &attempt) {
        auto handle = NotNull<Handle>();
        const uint32_t dwCode = attempt([&] { return create(attempt.Pool(), &handle); });
        if (!attempt.Good(dwCode)) {
            EXPECT_EQ(handle, nullptr);
            ASSERT_CODE(APP_OK, create(attempt.Pool(), &handle));
        }
        destroy(handle);
    };
    return {szOps, szLog, run};
}

Row LockCreation(uint32_t dwType) {
    return Creation<HAppLock>(
        "AppLockCreate AppLockDestroy", nullptr,
        [=](HAppMemPool hPool, HAppLock *phLock) { return AppLockCreate(hPool, 1, 1, dwType, phLock); },
        [](HAppLock hLock) {
            EXPECT_CODE(APP_OK, AppLockTakeByTime(hLock, 1));
            EXPECT_CODE(APP_OK, AppLockGive(hLock));
            AppLockDestroy(hLock);
        });
}

// A take that expires: the recursive lock is held by another thread.
Row TimedTake(uint32_t dwType) {
    const auto run = [=](Attempt &attempt) {
        HAppLock hLock = nullptr;
        ASSERT_CODE(APP_OK, AppLockCreate(nullptr, 1, 0, dwType, &hLock));
        std::thread([&] { attempt.Good(attempt([&] { return AppLockTakeByTime(hLock, 2); }), APP_TIMEOUT); }).join();
        EXPECT_CODE(APP_OK, AppLockGive(hLock));
        EXPECT_CODE(APP_OK, AppLockTakeByTime(hLock, 1));
        EXPECT_CODE(APP_OK, AppLockGive(hLock));
        AppLockDestroy(hLock);
    };
    return {"AppLockTakeByTime AppLockGive", nullptr, run};
}

Row Insertion(const char *szOp, decltype(&AppDoubleListInsertAfter) pfnInsert, bool bAfter) {
    const auto run = [=](Attempt &attempt) {
        HAppDoubleList hList = nullptr;
        HAppDoubleListNode hAnchor = nullptr, hNode = nullptr;
        ASSERT_CODE(APP_OK, AppDoubleListCreate(attempt.Pool(), 0, 1, &hList));
        EXPECT_CODE(APP_OK, AppDoubleListInsertAfter(hList, nullptr, Arg(1), &hAnchor));
        attempt.Twice([&] { return pfnInsert(hList, hAnchor, Arg(2), &hNode); },
                      [&] { EXPECT_TRUE(app::ListIsValid(hList) && hList->dwCurSize == 1); });
        EXPECT_TRUE(app::ListIsValid(hList) && hList->dwCurSize == 2);
        EXPECT_EQ(bAfter ? hList->ptTail : hList->ptHead, hNode);
        EXPECT_EQ(hNode->pvData, Arg(2));
        AppDoubleListDestroy(hList, nullptr, nullptr);
    };
    return {szOp, szOp, run};
}

// Gets a block of 10 bytes, gives one of another size.
template <typename Allocate>
Row Allocation(const char *szOps, Allocate allocate, bool bOldStays = true) {
    const auto run = [=](Attempt &attempt) {
        auto szOld = static_cast<char *>(AppMemPoolMalloc(attempt.Pool(), 10));
        AppStrncpy(szOld, "123456789", 10);
        void *pvNew = nullptr;
        const auto operation = [&] {
            pvNew = allocate(attempt.Pool(), szOld);
            return pvNew ? APP_OK : APP_NO_RESOURCE;
        };
        attempt.Twice(operation, [&] {
            EXPECT_STREQ(szOld, "123456789");
            if (attempt.Pool()) { EXPECT_EQ(attempt.Pool()->dwCurSize, 10u); }
        });
        AppMemPoolFree(pvNew);
        if (bOldStays) AppMemPoolFree(szOld);
    };
    return {szOps, nullptr, run};
}

void Collect(const char *szText, void *pvTexts) { static_cast<std::string *>(pvTexts)->append(szText); }

// A report, its formatting failing too: it may lack lines, no more.
template <typename Show>
void Report(Attempt &attempt, Show show) {
    std::string before, during, after;
    show(Collect, &before);
    attempt([&] { return show(Collect, &during), 0; });
    show(Collect, &after);
    EXPECT_EQ(before, after);
    EXPECT_NE(before, "");
    EXPECT_LE(during.size(), before.size());
    if (!attempt.m_bHit) { EXPECT_EQ(during, before); }
}

uint32_t Six(uint32_t, uint32_t, uint32_t) { return 6; }

Row Registration(const char *szOps, decltype(&AppRegisterShareAction) pfnRegister) {
    const auto run = [=](Attempt &attempt) {
        static int s_nKeys = 0;
        const std::string key = Text("sweep %d", ++s_nKeys);
        const bool bBefore = g_hAppShareActionList.load() != nullptr;
        const bool bGood = attempt.Good(attempt([&] { return pfnRegister(key.c_str(), Six); }));
        const bool bNow = g_hAppShareActionList.load() != nullptr;
        EXPECT_EQ(bNow, g_hAppShareActionRecursiveLock.load() != nullptr);
        uint32_t dwResult = 7;
        const uint32_t dwWithout = bNow ? APP_INVALID_ARG : APP_FAILED;
        EXPECT_CODE(bGood ? 0 : dwWithout, AppRunShareAction(key.c_str(), 0, 0, 0, &dwResult));
        EXPECT_EQ(dwResult, bGood ? 6u : 7u);
        // For the life of the process: the lock, the list and its lock; the entry and its node.
        attempt.m_nKept = (bNow && !bBefore ? 3 : 0) + (bGood ? 2 : 0);
    };
    return {szOps, nullptr, run};
}

struct TLogFile {
    TLogFile() {
        char achDir[] = "/tmp/appcore-sweep-XXXXXX";
        dir = mkdtemp(achDir);
    }
    ~TLogFile() {
        AppCloseFileLog(9);
        std::filesystem::remove_all(dir);
    }
    uint32_t Open(uint32_t dwMaxSize) const { return AppSetFileLog(9, (dir / "log").c_str(), dwMaxSize); }
    // A line reaches the file, opened anew if need be.
    void ExpectWorks() const {
        EXPECT_EQ(Open(1000), 1u);
        AppLog(9, APP_LOG_ALWAYS, "[INFO ] AppLog: works\n");
        std::ifstream file(dir / "log");
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        EXPECT_NE(text.find("[INFO ] AppLog: works\n"), std::string::npos);
    }
    std::filesystem::path dir;
    test::StdoutCapture quiet;
};

bool Knows(const char *szEncoding) {
    const iconv_t hConv = iconv_open(szEncoding, "UTF-16LE");
    return hConv != reinterpret_cast<iconv_t>(-1) && iconv_close(hConv) == 0;
}

// A conversion that writes a text, or a record's bytes, into a buffer.
Row Conversion(const char *szOps, const char *szLog, const std::string &wanted, uint32_t (*pfnConvert)(char *),
               const char *szEncoding = "UTF-8") {
    const auto run = [=](Attempt &attempt) {
        if (!Knows(szEncoding)) return; // an emulated system's iconv may lack it
        char achBuf[64] = "";
        attempt.Twice([&] { return pfnConvert(achBuf); });
        EXPECT_EQ(std::string(achBuf, wanted.size()), wanted);
    };
    return {szOps, szLog, run};
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

uint32_t ReadIpv6(char *szBuf) {
    TAppNetAddr addr = {7, {0}};
    const uint32_t dwCode = AppConvertStrtoNet("4141::", &addr);
    EXPECT_EQ(addr.dwType, 1u);
    EXPECT_EQ(addr.abyIpv6[0] != 0, dwCode == APP_OK);
    memcpy(szBuf, addr.abyIpv6, 3);
    return dwCode;
}

uint32_t WriteIpv6(char *szBuf) {
    const TAppNetAddr addr = {APP_NET_ADDR_IPV6, {0}};
    return AppConvertNettoStr(&addr, szBuf, 46);
}

// A month that only the system's function carries over.
uint32_t WriteOddMonth(char *szBuf) {
    const TAppTime time = {2024, 13, 1, 0, 0, 0, 0};
    const uint32_t dwTime = AppConvertTimeToU32(&time);
    if (dwTime == 0xFFFFFFFF) return APP_FAILED;
    return AppConvertU322XsdDatetime(dwTime, 0, nullptr, nullptr, szBuf, 30);
}

uint32_t ReadOddMonth(char *szBuf) {
    uint32_t dwTime = 0;
    EXPECT_CODE(APP_OK, AppConvertXsdDatetime2U32("2024-13-01T00:00:00", &dwTime, nullptr, nullptr, nullptr));
    AppSnprintf(szBuf, 64, "%u", dwTime);
    return dwTime == 0xFFFFFFFF ? APP_FAILED : APP_OK;
}

uint32_t BreakDown(char *szBuf) {
    TAppTime time = {1, 1, 1, 1, 1, 1, 1};
    const uint32_t dwCode = AppConvertU32ToTime(0, &time);
    AppSnprintf(szBuf, 64, "%d", time.wYear);
    EXPECT_EQ(time.wYear, dwCode == APP_OK ? 1970 : 1);
    return dwCode;
}

uint32_t WriteTime(char *szBuf) { return AppConvertU322XsdDatetime(0, 1, nullptr, nullptr, szBuf, 30); }

constexpr uint32_t kShort = 60, kLong = 60000;
const TAppNetAddr kLoopback = {APP_NET_ADDR_IPV4, {htonl(INADDR_LOOPBACK)}};
const TAppNetAddr kGroup = {APP_NET_ADDR_IPV4, {htonl(0xEF010203)}};
TAppNetAddr Loopback6() {
    TAppNetAddr addr = {APP_NET_ADDR_IPV6, {0}};
    addr.abyIpv6[15] = 1;
    return addr;
}

uint16_t PortOf(int nFd) {
    struct sockaddr_in tAddr = {};
    socklen_t nLen = sizeof(tAddr);
    EXPECT_EQ(getsockname(nFd, app::Generic(&tAddr), &nLen), 0);
    return tAddr.sin_port;
}

// A UDP socket that sends to itself.
struct TUdp {
    TUdp() : hSocket(AppSocketCreate(nullptr, APP_SOCKET_UDP, 0)) {
        EXPECT_CODE(APP_OK, AppSocketBind(hSocket, &kLoopback, 0, 1));
        wPort = PortOf(hSocket->nFd);
    }
    ~TUdp() {
        while (Receive(1) > 0) {} // what came late
        EXPECT_EQ(Send(), 1);
        EXPECT_EQ(Receive(kLong), 1);
        AppSocketDestroy(hSocket);
    }
    int32_t Send() const { return AppSocketUDPSend(hSocket, "x", 1, kShort, &kLoopback, wPort); }
    int32_t Receive(uint32_t dwTimeout) const {
        char achBuf[8];
        uint32_t dwLen = sizeof(achBuf);
        return AppSocketUDPRecv(hSocket, achBuf, &dwLen, dwTimeout, nullptr, nullptr, nullptr, nullptr);
    }
    HAppSocket hSocket;
    uint16_t wPort;
};

// A connection with the system's own socket at its other end.
struct TTcp {
    TTcp() : nListener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const struct sockaddr_in tAddr = app::ToSockaddr(kLoopback, 0);
        EXPECT_EQ(bind(nListener, app::Generic(&tAddr), sizeof(tAddr)), 0);
        EXPECT_EQ(listen(nListener, 64), 0);
        wPort = PortOf(nListener);
        EXPECT_NE(hSocket = Connect(nullptr), nullptr);
        nPeer = accept4(nListener, nullptr, nullptr, SOCK_CLOEXEC);
    }
    ~TTcp() {
        close(nPeer);
        close(nListener);
        AppSocketDestroy(hSocket);
    }
    HAppSocket Connect(HAppMemPool hPool) const {
        return AppSocketTCPConnect(hPool, &kLoopback, wPort, kLong, nullptr);
    }
    int32_t Send() const { return AppSocketTCPSend(hSocket, large.data(), 1 << 20, kShort) > 0 ? 1 : -1; }
    int32_t Receive() const {
        char achBuf[8];
        uint32_t dwLen = sizeof(achBuf);
        return AppSocketTCPRecv(hSocket, achBuf, &dwLen, kShort);
    }
    void Drain() {
        while (recv(nPeer, large.data(), large.size(), MSG_DONTWAIT) > 0) {}
    }
    int nListener, nPeer = -1;
    uint16_t wPort = 0;
    HAppSocket hSocket = nullptr;
    std::string large = std::string(1 << 20, 'x');
};

Row SocketCreation(uint32_t dwType) {
    const auto run = [=](Attempt &attempt) {
        HAppSocket hSocket = attempt([&] { return AppSocketCreate(attempt.Pool(), dwType, 0); });
        attempt.Good(hSocket != nullptr, 1, 0, 0);
        // Without a descriptor the first operation fails.
        const bool bRefused = attempt.Hit({Fn::socket});
        if (hSocket) { EXPECT_CODE(bRefused ? APP_FAILED : APP_OK, AppSocketBind(hSocket, &kLoopback, 0, 0)); }
        AppSocketDestroy(hSocket);
    };
    return {"AppSocketCreate AppSocketDestroy", "_AppSocketCreate", run, {Fn::socket}};
}

Row LocalAddress(const TAppNetAddr &remote, const char *szLog) {
    const auto run = [=](Attempt &attempt) {
        TAppNetAddr local = {};
        if (AppSocketCalLocalAddr(&remote, &local) != APP_OK) return; // this machine has no IPv6
        attempt.Twice([&] { return AppSocketCalLocalAddr(&remote, &local); });
        EXPECT_EQ(memcmp(&local, &remote, remote.dwType ? 20 : 8), 0);
    };
    return {"AppSocketCalLocalAddr", szLog, run};
}

Row NewTask(bool bReuse) {
    const auto run = [=](Attempt &attempt) {
        Diary diary;
        Manager manager(4, 0, attempt.Pool() ? 1 << 24 : 0);
        if (bReuse) manager.Park(manager.New(diary));
        auto hTask = NotNull<HAppTask>();
        const uint32_t dwCode = attempt(
            [&] { return AppTaskMgrNewTask(manager.Get(), "t", 9, 65536, 0, 0, Diary::Handle, &diary, &hTask); });
        // The engine of the task's pool has a code of its own.
        if (!attempt.Good(dwCode, APP_OK, dwCode == APP_FAILED ? APP_FAILED : APP_NO_RESOURCE)) {
            EXPECT_EQ(hTask, nullptr);
            hTask = manager.New(diary);
        }
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr));
        diary.Await(bReuse ? "stop, user 1" : "user 1");
    };
    return {"AppTaskMgrNewTask", "AppTaskMgrNewTask", run, {Fn::malloc, Fn::pthread_attr_setinheritsched}};
}

// While the task's thread stands in a handler; `szAfter` is what comes of it.
Row OnBusyTask(const char *szOps, const char *szLog, const char *szAfter, uint32_t (*pfnOperation)(HAppTask)) {
    const auto run = [=](Attempt &attempt) {
        Diary diary;
        Door door;
        Diary holder([&](const Diary::Call &) { door.Pass(); });
        Manager manager(4, 0, attempt.Pool() ? 1 << 24 : 0);
        HAppTask hTask = manager.New(diary);
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, nullptr, Diary::Handle, &holder));
        door.AwaitVisitor();
        const bool bGood = attempt.Good(attempt([&] { return pfnOperation(hTask); }));
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(2), nullptr, nullptr));
        door.Open();
        diary.Await(bGood ? szAfter : "user 2");
    };
    return {szOps, szLog, run};
}

// The whole life of a manager; its tasks' threads meet the faults too.
void TaskLife(Attempt &attempt) {
    test::Ledger ledger(16);
    attempt([&] {
        HAppTaskMgr hTaskMgr = nullptr;
        if (AppTaskMgrCreate(attempt.Pool(), 3, 0, &hTaskMgr) != APP_OK) return 0;
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
        return 0;
    });
    ledger.ExpectBalance();
}

std::string Save(mxml_node_t *ptRoot) {
    char *szText = mxmlSaveAllocString(ptRoot, MXML_NO_CALLBACK);
    const std::string text = szText ? szText : "";
    free(szText);
    return text;
}

// `write(element, &new)`; the document holds `szAfter` then.  With an attribute at first: Mini-XML
// loses the block of a first one whose name it cannot copy.
template <typename Write>
Row Writing(const char *szOps, const char *szLog, const char *szAfter, Write write) {
    const auto run = [=](Attempt &attempt) {
        mxmlSetErrorCallback([](const char *) {});
        mxml_node_t *const ptRoot = mxmlNewElement(nullptr, "cfg");
        mxmlElementSetAttr(ptRoot, "a", "1");
        mxml_node_t *ptNew = ptRoot;
        attempt.Twice([&] { return write(ptRoot, &ptNew); },
                      [&] {
                          EXPECT_TRUE(ptNew == nullptr || strstr(szOps, "SetAttr"));
                          const std::string text = Save(ptRoot);
                          EXPECT_TRUE(text == "<cfg a=\"1\" />\n" || text == "<cfg a=\"1\"><v /></cfg>\n") << text;
                      });
        EXPECT_NE(Save(ptRoot).find(szAfter), std::string::npos);
        mxmlDelete(ptRoot);
    };
    return {szOps, szLog, run};
}

template <typename T, typename V>
Row Adding(const char *szOp, const char *szLog, const char *szAfter,
           uint32_t (*pfnAdd)(mxml_node_t *, const char *, T, mxml_node_t **), V value) {
    return Writing(szOp, szLog, szAfter,
                   [=](mxml_node_t *pt, mxml_node_t **pptNew) { return pfnAdd(pt, "v", value, pptNew); });
}

// ---- The table ----------------------------------------------------------------------------------

std::vector<Row> Rows() {
    std::vector<Row> rows;
    const auto add = [&](Row row) { rows.push_back(std::move(row)); };
    add(LockCreation(APP_LOCK_TYPE_SEM));
    add(LockCreation(APP_LOCK_TYPE_RECURSIVE));
    add(TimedTake(APP_LOCK_TYPE_SEM));
    add(TimedTake(APP_LOCK_TYPE_RECURSIVE));
    add({"AppGetTick", nullptr, [](Attempt &attempt) {
             const uint32_t dwTick = attempt([] { return AppGetTick(); });
             EXPECT_EQ(dwTick == ~static_cast<uint32_t>(EPERM), attempt.m_bHit);
         }});
    add(Creation<HAppDoubleList>(
        "AppDoubleListCreate AppDoubleListDestroy", "AppDoubleListCreate",
        [](HAppMemPool hPool, HAppDoubleList *phList) { return AppDoubleListCreate(hPool, 0, 1, phList); },
        [](HAppDoubleList hList) { AppDoubleListDestroy(hList, nullptr, nullptr); }));
    add(Insertion("AppDoubleListInsertAfter", AppDoubleListInsertAfter, true));
    add(Insertion("AppDoubleListInsertBefore", AppDoubleListInsertBefore, false));
    add(Creation<HAppQueue>(
        "AppQueueCreate AppQueueDestroy", "AppQueueCreate",
        [](HAppMemPool hPool, HAppQueue *phQueue) { return AppQueueCreate(hPool, 5, 1, phQueue); },
        [](HAppQueue hQueue) { AppQueueDestroy(hQueue, nullptr, nullptr); }));
    add({"AppQueueIn AppQueueOut AppQueueGetSize", "_AppQueueIn", [](Attempt &attempt) {
             HAppQueue hQueue = nullptr;
             ASSERT_CODE(APP_OK, AppQueueCreate(attempt.Pool(), 5, 1, &hQueue));
             EXPECT_CODE(APP_OK, AppQueueIn(hQueue, Arg(1), 5));
             const bool bGood = attempt.Good(attempt([&] { return AppQueueIn(hQueue, Arg(2), 9); }));
             EXPECT_EQ(AppQueueGetSize(hQueue), bGood ? 2u : 1u);
             EXPECT_EQ(_AppQueueGetTopSize(hQueue), bGood ? 2u : 1u);
             void *pvData = nullptr;
             for (uintptr_t i = bGood ? 2 : 1; i > 0; --i) {
                 EXPECT_CODE(APP_OK, AppQueueOut(hQueue, 1, &pvData));
                 EXPECT_EQ(pvData, Arg(i));
             }
             EXPECT_CODE(APP_TIMEOUT, AppQueueOut(hQueue, 1, &pvData)); // nothing was promised for the failure
             AppQueueDestroy(hQueue, nullptr, nullptr);
         }});
    add({"AppQueueOut", nullptr, [](Attempt &attempt) {
             HAppQueue hQueue = nullptr;
             ASSERT_CODE(APP_OK, AppQueueCreate(nullptr, 5, 1, &hQueue));
             void *pvData = Arg(7);
             attempt.Good(attempt([&] { return AppQueueOut(hQueue, 2, &pvData); }), APP_TIMEOUT);
             EXPECT_EQ(pvData, Arg(7));
             EXPECT_CODE(APP_OK, AppQueueIn(hQueue, Arg(1), 0));
             EXPECT_CODE(APP_OK, AppQueueOut(hQueue, 1, &pvData));
             AppQueueDestroy(hQueue, nullptr, nullptr);
         }});
    add({"AppMemPoolCreate AppMemPoolDestroy", "AppMemPoolCreate", [](Attempt &attempt) {
             auto hPool = NotNull<HAppMemPool>();
             const uint32_t dwCode = attempt([&] { return AppMemPoolCreate(0, 1, 0, &hPool); });
             // The record and its lock's, then the engine with its lists.
             if (!attempt.Good(dwCode, APP_OK, attempt.m_nNth <= 2 ? APP_NO_RESOURCE : APP_FAILED)) {
                 EXPECT_EQ(hPool, NotNull<HAppMemPool>()) << "untouched";
                 ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool));
             }
             AppMemPoolFree(AppMemPoolMalloc(hPool, 10));
             AppMemPoolDestroy(hPool);
         }});
    add(Allocation("AppMemPoolMalloc AppMemPoolFree",
                   [](HAppMemPool hPool, char *) { return AppMemPoolMalloc(hPool, 100); }));
    add(Allocation("AppMemPoolMalloc", [](HAppMemPool hPool, char *) { return AppMemPoolMalloc(hPool, 5000000); }));
    add(Allocation("AppStrndup", [](HAppMemPool hPool, char *szOld) { return AppStrndup(hPool, szOld, 60); }));
    add(Allocation(
        "AppMemPoolRealloc",
        [](HAppMemPool hPool, char *szOld) {
            void *pvNew = AppMemPoolRealloc(hPool, szOld, 1000);
            EXPECT_EQ(memcmp(pvNew ? pvNew : szOld, "123456789", 10), 0);
            return pvNew;
        },
        false));
    add({"AppMemPoolShow",
         nullptr,
         [](Attempt &attempt) {
             HAppMemPool hPool = nullptr;
             ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool));
             AppMemPoolFree(AppMemPoolMalloc(hPool, 10));
             Report(attempt, [&](PFAppShow pfnShow, void *pv) { AppMemPoolShow(hPool, pfnShow, pv); });
             AppMemPoolDestroy(hPool);
         },
         {},
         true});
    add(Registration("AppRegisterShareAction AppRunShareAction", AppRegisterShareAction));
    add(Registration("AppRegisterBlockShareAction", AppRegisterBlockShareAction));
    add({"AppShareActionShow", nullptr, [](Attempt &attempt) { Report(attempt, AppShareActionShow); }, {}, true});
    add({"AppSetFileLog AppCloseFileLog", nullptr, [](Attempt &attempt) {
             TLogFile file;
             attempt.Good(attempt([&] { return file.Open(1000); }), 1, 0, 0);
             file.ExpectWorks();
         }});
    add({"AppLog AppLogFile", nullptr, [](Attempt &attempt) {
             TLogFile file;
             EXPECT_EQ(file.Open(0), 1u); // the line rotates
             attempt([] { return AppLogFile(9, APP_LOG_ALWAYS, "[INFO ] AppLogFile: text\n"), 0; });
             file.ExpectWorks();
         }});
    add(Conversion("AppConvertTimeToU32", nullptr, "2025-01-01T00:00:00", WriteOddMonth));
    add(Conversion("AppConvertXsdDatetime2U32", nullptr, "1735689600", ReadOddMonth));
    add(Conversion("AppConvertU32ToTime", nullptr, "1970", BreakDown));
    add(Conversion("AppConvertU322XsdDatetime", "AppConvertU322XsdDatetime", "1970-01-01T00:00:00Z", WriteTime));
    add(Conversion("AppConvertStrtoNet", "_AppConvertStrtoNet", "AA", ReadIpv6));
    add(Conversion("AppConvertNettoStr", "_AppConvertNettoStr", "::", WriteIpv6));
    add(Conversion("AppConvertUtf8toUnicode IpcConvConvertUtf8toUnicode", "_AppUtilsUnicodeConvertUtf8toUnicode", "A",
                   ToUnicode<AppConvertUtf8toUnicode>));
    add(Conversion("AppConvertGbktoUnicode IpcConvConvertGbktoUnicode", "_AppUtilsUnicodeConvertGbktoUnicode", "A",
                   ToUnicode<AppConvertGbktoUnicode>, "GBK"));
    add(Conversion("AppConvertUnicodetoUtf8 IpcConvConvertUnicodetoUtf8", "_AppUtilsUnicodeConvertUnicodetoUtf8", "A",
                   FromUnicode<AppConvertUnicodetoUtf8>));
    add(Conversion("AppConvertUnicodetoGbk IpcConvConvertUnicodetoGbk", "_AppUtilsUnicodeConvertUnicodetoGbk", "A",
                   FromUnicode<AppConvertUnicodetoGbk>, "GBK"));
    add(SocketCreation(APP_SOCKET_UDP));
    add(SocketCreation(APP_SOCKET_TCP));
    add({"AppSocketBind", "_AppSocketBind", [](Attempt &attempt) {
             HAppSocket hSocket = AppSocketCreate(nullptr, APP_SOCKET_UDP, 0);
             attempt.Twice([&] { return AppSocketBind(hSocket, &kLoopback, 0, 1); });
             AppSocketDestroy(hSocket);
         }});
    add({"AppSocketUDPSend", "_AppSocketUDPSend", [](Attempt &attempt) {
             TUdp udp;
             if (attempt.Good(attempt([&] { return udp.Send(); }), 1, -1, -1)) { EXPECT_EQ(udp.Receive(kLong), 1); }
         }});
    add({"AppSocketUDPRecv", "_AppSocketUDPRecv", [](Attempt &attempt) {
             TUdp udp;
             fault::Fail comes(Fn::epoll_wait, 1, 0); // the datagram, while its receiver waits
             comes.Action([&] { udp.Send(); });
             attempt.Good(attempt([&] { return udp.Receive(kShort); }), 1, -1, -1);
         }});
    add({"AppSocketUDPJoinMulticastGroup",
         "_AppSocketUDPJoinMulticastGroup",
         [](Attempt &attempt) {
             TUdp udp;
             attempt.Twice([&] { return AppSocketUDPJoinMulticastGroup(udp.hSocket, &kGroup, &kLoopback, 1); });
         },
         {Fn::setsockopt}});
    add({"AppSocketTCPConnect",
         "_AppSocketTCPConnect",
         [](Attempt &attempt) {
             TTcp tcp;
             HAppSocket hSocket = attempt([&] { return tcp.Connect(attempt.Pool()); });
             attempt.Good(hSocket != nullptr, 1, 0, 0);
             AppSocketDestroy(hSocket);
         },
         {Fn::setsockopt}});
    add({"AppSocketTCPSend", "_AppSocketTCPSend", [](Attempt &attempt) {
             TTcp tcp;
             while (tcp.Send() > 0) {} // until the peer's buffer is full
             fault::Fail drained(Fn::epoll_wait, 1, 0);
             drained.Action([&] { tcp.Drain(); });
             attempt.Good(attempt([&] { return tcp.Send(); }), 1, -1, -1);
             tcp.Drain();
             EXPECT_EQ(tcp.Send(), 1);
         }});
    add({"AppSocketTCPRecv", "_AppSocketTCPRecv", [](Attempt &attempt) {
             TTcp tcp;
             fault::Fail comes(Fn::epoll_wait, 1, 0);
             comes.Action([&] { EXPECT_EQ(send(tcp.nPeer, "x", 1, 0), 1); });
             attempt.Good(attempt([&] { return tcp.Receive(); }), 1, -1, -1);
             EXPECT_EQ(send(tcp.nPeer, "y", 1, 0), 1);
             EXPECT_GT(tcp.Receive(), 0);
         }});
    add(LocalAddress(kLoopback, "_AppSocketCalLocalAddr"));
    add(LocalAddress(Loopback6(), ""));
    add({"AppSocketCalNATAddr IpcCapGetHwExternal IpcGetNetEthParam",
         "AppSocketCalNATAddr",
         [](Attempt &attempt) {
             TAppNetAddr local = {};
             uint16_t wPort = 0;
             attempt.Twice([&] { return AppSocketCalNATAddr(&kLoopback, APP_SOCKET_TCP, 80, &local, &wPort); },
                           [&] { EXPECT_EQ(wPort, 0); });
             EXPECT_EQ(local.dwIpv4, kLoopback.dwIpv4);
             EXPECT_EQ(wPort, 80);
         },
         {Fn::getifaddrs}});
    add(Creation<HAppTaskMgr>(
        "AppTaskMgrCreate", "AppTaskMgrCreate",
        [](HAppMemPool hPool, HAppTaskMgr *phMgr) { return AppTaskMgrCreate(hPool, 4, 0, phMgr); }, AppTaskMgrDestroy));
    add(NewTask(false));
    add(NewTask(true));
    add(OnBusyTask("AppTaskSendEvent", "_AppTaskSendEvent", "user 1, user 2",
                   [](HAppTask hTask) { return AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr); }));
    add(OnBusyTask("AppTaskAssignEvent", "_AppTaskSendEvent", "user 1, user 2",
                   [](HAppTask hTask) { return AppTaskAssignEvent(hTask, Arg(1), nullptr, nullptr); }));
    add(OnBusyTask("AppTaskTerminate", "_AppTaskSendEvent", "drop 2, stop", AppTaskTerminate));
    add(OnBusyTask("AppTaskSetTimer", "AppTaskSetTimer", "timeout, user 2", [](HAppTask hTask) {
        return uint32_t{AppTaskSetTimer(hTask, 0, nullptr, nullptr) ? APP_OK : APP_NO_RESOURCE};
    }));
    add(OnBusyTask("AppTaskResetTimer AppTaskTimerGetRemainTime AppTaskCancelTimer", nullptr, "cancel, user 2",
                   [](HAppTask hTask) {
                       HAppTimer hTimer = AppTaskSetTimer(hTask, 100000, nullptr, nullptr);
                       if (!hTimer) return uint32_t{APP_NO_RESOURCE};
                       const uint32_t dwCode = AppTaskResetTimer(hTimer);
                       EXPECT_LE(AppTaskTimerGetRemainTime(hTimer), 100000u);
                       AppTaskCancelTimer(hTimer);
                       return dwCode;
                   }));
    add({"AppTaskMgrShow",
         nullptr,
         [](Attempt &attempt) {
             Diary diary;
             Manager manager(4, 0, attempt.Pool() ? 1 << 24 : 0);
             manager.Park(manager.New(diary));
             Report(attempt, [&](PFAppShow pfnShow, void *pv) { AppTaskMgrShow(manager.Get(), pfnShow, pv); });
         },
         {},
         true});
    add({"AppTaskMgrDestroy", nullptr, TaskLife, kAll, false, fault::kEveryThread});
    add(Writing("AppXmlAddSonNode", "AppXmlAddSonNode", "<v />",
                [](mxml_node_t *pt, mxml_node_t **pptNew) { return AppXmlAddSonNode(pt, "v", pptNew); }));
    const char *const szStr = "AppXmlAddSonNode_Str";
    add(Adding(szStr, szStr, "<v>text</v>", AppXmlAddSonNode_Str, "text"));
    add(Adding("AppXmlAddSonNode_s32", szStr, "<v>-5</v>", AppXmlAddSonNode_s32, -5));
    add(Adding("AppXmlAddSonNode_u32", szStr, "<v>5</v>", AppXmlAddSonNode_u32, 5u));
    add(Adding("AppXmlAddSonNode_u64", szStr, "<v>5</v>", AppXmlAddSonNode_u64, 5u));
    add(Adding("AppXmlAddSonNode_Double", szStr, "<v>0.500000</v>", AppXmlAddSonNode_Double, 0.5));
    add(Adding("AppXmlAddSonNode_Bool", szStr, "<v>true</v>", AppXmlAddSonNode_Bool, 2u));
    add(Adding("AppXmlAddSonNode_CDATA", "AppXmlAddSonNode_CDATA", "<v><![CDATA[text]]></v>", AppXmlAddSonNode_CDATA,
               "text"));
    add(Writing("AppXmlSetAttr_s32", "AppXmlSetAttr_s32", "v=\"-5\"",
                [](mxml_node_t *pt, mxml_node_t **) { return AppXmlSetAttr_s32(pt, "v", -5); }));
    add(Writing("AppXmlSetAttr_u32", "AppXmlSetAttr_u32", "a=\"5\"",
                [](mxml_node_t *pt, mxml_node_t **) { return AppXmlSetAttr_u32(pt, "a", 5); }));
    return rows;
}

// What is left: it takes no memory, and calls nothing of the system that can fail.
constexpr char kNothingToFail[] =
    "AppCheckIpv4Class AppConvEnum2Str AppConvStr2Enum AppConvertHton* AppConvertNtoh* "
    "AppConvertPrefixLengthtoSubnetMask "
    "AppConvertStrtoDouble AppConvertStrtoFloat AppConvertStrtoS32 AppConvertStrtoU* "
    "AppConvertSubnetMasktoPrefixLength "
    "AppConvertTickToMS AppTickDiff AppDelay AppDumpMem AppFindS32StrPair_* AppMakeCapStr_* AppGenerateLogChannel "
    "AppSetLogLevel AppSetLogViaStdout AppMemcmp AppMemcpy AppMemzero AppSnprintf AppSscanf AppStr* "
    "AppDoubleListRemove AppSocketStartUp AppSocketClearUp AppShareActionLock AppShareActionUnlock "
    "AppTaskGetLastEvent AppTaskGetMemPool AppXmlGet* AppXmlMxmlParseCB AppRegCommand AppHost* QorPrintf QorRegCommand "
    "IpcGetUpupCfg";

// Returns the number of faults met.
unsigned SweepRow(const Row &row, bool bPool, bool *pbUsesPool) {
    for (unsigned n = 1; n < 1000; ++n) {
        SCOPED_TRACE(Text("%s: call %u%s", row.szOps, n, bPool ? " with a pool" : ""));
        const long nBlocks = fault::LiveBlocks(), nDescriptors = fault::OpenDescriptors();
        HAppMemPool hPool = nullptr;
        if (bPool) { EXPECT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool)); }
        Attempt attempt(row, n, hPool);
        row.run(attempt);
        if (bPool) {
            EXPECT_EQ(hPool->dwCurSize, 0u);
            EXPECT_TRUE(app::PoolIsValid(hPool));
        }
        AppMemPoolDestroy(hPool);
        EXPECT_EQ(fault::LiveBlocks(), nBlocks + static_cast<long>(attempt.m_nKept));
        EXPECT_EQ(fault::OpenDescriptors(), nDescriptors);
        *pbUsesPool = attempt.m_bPool;
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << "the fault: " << (attempt.m_bHit ? fault::Name(attempt.m_fn) : "none");
            return n;
        }
        if (!attempt.m_bHit) return n - 1;
    }
    ADD_FAILURE() << "the operation never succeeds";
    return 0;
}

TEST(Sweep, EveryOperationUnderEveryFault) {
    test::Watchdog watchdog;
    std::set<std::string> names;
    for (const auto &[name, parameters] : test::Exported()) names.insert(name);
    std::string covered = kNothingToFail;
    unsigned nFaults = 0;
    for (const Row &row : Rows()) {
        covered = std::string(row.szOps) + " " + covered;
        bool bUsesPool = false;
        const unsigned nMet = SweepRow(row, false, &bUsesPool);
        EXPECT_GT(nMet + (strstr(row.szOps, "IpcConv") ? 1 : 0), 0u) << row.szOps << ": the sweep proves nothing";
        nFaults += nMet + (bUsesPool ? SweepRow(row, true, &bUsesPool) : 0);
        if (HasFailure()) return;
    }
    EXPECT_EQ(test::Unlisted(names, covered), "") << "not in the table, or unknown";
    printf("%zu operations, %u faults\n", Rows().size(), nFaults);
}

} // namespace
