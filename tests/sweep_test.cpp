// SPDX-License-Identifier: MIT
//
// Every operation of the library that allocates or calls the system, under every fault.  A scenario
// is run again and again: in run n the n-th call that can fail does so, until a run meets no fault.
// The operation that met it gives the result that its header states, tells it in the log, has
// changed nothing, leaks nothing and works when it is called again.
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
#include "utils/queue.h"
#include "utils/share_action_registry.h"
#include "xml/mxml_version.h"

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

// These only shorten a wait; what fails then says that the time is over.
const Fns kWaits = {Fn::clock_gettime, Fn::_AppConditionWait};
// What fails in these is told at most by what they call.
constexpr char kSilent[] =
    "AppLockCreate AppMemPoolMalloc AppMemPoolRealloc AppStrndup AppRegisterShareAction "
    "AppRegisterBlockShareAction AppSetFileLog AppConvertTimeToU32 AppConvertXsdDatetime2U32 "
    "AppConvertU32ToTime ";

bool Has(const Fns &fns, Fn fn)
{
    return std::find(fns.begin(), fns.end(), fn) != fns.end();
}

// What a system may refuse, and more.
Fns Refusable(Fns fns)
{
    for (unsigned i = 0; i < unsigned(Fn::kCount); ++i)
        if (!Has({Fn::free, Fn::_AppConditionSignal, Fn::_AppVsnprintf, Fn::AppMemPoolMalloc,
                  Fn::AppTaskSetTimer},
                 Fn(i)) &&
            strncmp(fault::Name(Fn(i)), "mxml", 4) != 0)
            fns.push_back(Fn(i));
    return fns;
}

constexpr uint32_t kNothing = 1; // the code of an operation that gives a value when it gives none
uint32_t Got(bool bValue)
{
    return bValue ? uint32_t{APP_OK} : kNothing;
}
uint32_t Bytes(int32_t nBytes)
{
    return nBytes == -2 ? uint32_t{APP_TIMEOUT} : Got(nBytes > 0);
}

std::map<std::string, bool> s_ops; // as written; whether it has met a fault

// An operation: its text, and what does it.
#define OP(operation) #operation, [&]() -> uint32_t { return operation; }

// One run of a scenario.
class Run
{
public:
    Run(unsigned nNth, HAppMemPool hPool) : m_nNth(nNth), m_hPool(hPool) {}

    // The operation once; whether it met the fault.
    template <typename Operation>
    bool Once(const char *szOp, Operation operation, const Fns &more = {},
              fault::Scope scope = fault::kThisThread)
    {
        m_log.Clear();
        fault::Fail fail(Refusable(more), m_nNth > m_nCalls ? m_nNth - m_nCalls : 0, EPERM, 1,
                         scope);
        operation();
        m_nCalls += fail.Calls();
        s_ops[szOp] |= fail.Hits() > 0;
        if (fail.Hits() == 0)
            return false;
        m_fn = fail.Last();
        m_what = Text("%s in %s", fault::Name(m_fn), szOp);
        return true;
    }
    // The operation until it has succeeded.
    template <typename Operation>
    void Do(const char *szOp, Operation operation, const Fns &harmless = {})
    {
        SCOPED_TRACE(szOp);
        const std::string before = m_state();
        uint32_t dwCode = 0;
        if (Once(szOp, [&] { dwCode = operation(); }))
            Judge(szOp, dwCode, harmless);
        else
            EXPECT_CODE(APP_OK, dwCode);
        if (dwCode != APP_OK) {
            EXPECT_EQ(m_state(), before);
            EXPECT_CODE(APP_OK, operation());
        }
    }
    // One that hands out something, or null.
    template <typename Handle, typename Operation>
    void Make(Handle &handle, const char *szOp, Operation operation, const Fns &harmless = {})
    {
        const auto make = [&] {
            handle = reinterpret_cast<Handle>(16);
            const uint32_t dwCode = operation();
            EXPECT_EQ(handle == nullptr, dwCode != APP_OK);
            return dwCode;
        };
        Do(szOp, make, harmless);
    }
    // What an operation that fails leaves as it is.
    void State(const std::function<std::string()> &state) { m_state = state; }
    // Null: the scenario is run with the heap too.
    HAppMemPool Pool() const { return m_hPool; }
    // The fault; "": none was met.
    const std::string &What() const { return m_what; }

    long m_nKept = 0; // blocks that are meant to stay

private:
    // The code is the one that the fault demands, and a line tells it.
    void Judge(const std::string &op, uint32_t dwCode, const Fns &harmless) const
    {
        const bool bMemory = Has(fault::kMemory, m_fn), bWait = Has(kWaits, m_fn);
        if (dwCode == APP_OK || (dwCode == APP_TIMEOUT && bWait)) {
            EXPECT_TRUE(bWait || Has(harmless, m_fn));
            return;
        }
        if (dwCode != kNothing) {
            EXPECT_CODE(bMemory ? APP_NO_RESOURCE : APP_FAILED, dwCode);
        }
        const std::string name = op.substr(op.find("App"));
        const bool bTransfer = name.find("Recv") != name.npos || name.find("TCPSend") != name.npos;
        if (strstr(kSilent, name.substr(0, name.find('(')).c_str()) ||
            name.find("loopback6") != name.npos ||
            (bTransfer && Has({Fn::epoll_ctl, Fn::epoll_wait}, m_fn)))
            return;
        std::string told;
        for (const std::string &line : m_log.Lines())
            told += line.rfind("[ERROR]", 0) == 0 ? line : "";
        EXPECT_NE(told, "");
        // The cause: the error, or that there is no descriptor.
        EXPECT_TRUE(name.rfind("AppSocket", 0) != 0 || bMemory ||
                    told.find(Text(" %d", EPERM)) != told.npos ||
                    told.find("F_GETFL failed 9 ") != told.npos)
            << told;
    }

    const unsigned m_nNth;
    HAppMemPool m_hPool;
    test::LogCapture m_log;
    std::function<std::string()> m_state = [] { return ""; };
    unsigned m_nCalls = 0;
    Fn m_fn = Fn::malloc;
    std::string m_what;
};

// ---- Locks, containers, pools -------------------------------------------------------------------

void Locks(Run &run)
{
    HAppLock hLock;
    for (const uint32_t dwType : {APP_LOCK_TYPE_RECURSIVE, APP_LOCK_TYPE_SEM}) {
        run.Make(hLock, OP(AppLockCreate(run.Pool(), 1, 1, dwType, &hLock)));
        EXPECT_CODE(APP_OK, AppLockTakeByTime(hLock, 1));
        if (dwType == APP_LOCK_TYPE_SEM)
            run.Do(OP(Got(AppLockTakeByTime(hLock, 2) == APP_TIMEOUT)));
        EXPECT_CODE(APP_OK, AppLockGive(hLock));
        AppLockDestroy(hLock);
    }
    uint32_t dwTick = 0;
    const bool bHit = run.Once(OP(dwTick = AppGetTick()));
    EXPECT_EQ(dwTick == ~static_cast<uint32_t>(EPERM), bHit);
}

void Containers(Run &run)
{
    HAppDoubleList hList = nullptr;
    HAppDoubleListNode hNode, hBefore, hAfter;
    HAppQueue hQueue = nullptr;
    run.Make(hList, OP(AppDoubleListCreate(run.Pool(), 0, 1, &hList)));
    run.Make(hQueue, OP(AppQueueCreate(run.Pool(), 5, 1, &hQueue)));
    run.State([&] {
        return Text("%u %u %u", hList->dwCurSize, AppQueueGetSize(hQueue),
                    _AppQueueGetTopSize(hQueue));
    });
    run.Make(hNode, OP(AppDoubleListInsertAfter(hList, nullptr, Arg(1), &hNode)));
    run.Make(hBefore, OP(AppDoubleListInsertBefore(hList, hNode, Arg(2), &hBefore)));
    run.Make(hAfter, OP(AppDoubleListInsertAfter(hList, hNode, Arg(3), &hAfter)));
    EXPECT_TRUE(hList->ptHead == hBefore && hList->ptTail == hAfter);
    run.Do(OP(AppQueueIn(hQueue, Arg(1), 5)));
    run.Do(OP(AppQueueIn(hQueue, Arg(2), 9)));
    void *pvElement = nullptr;
    for (const uintptr_t nExpected : {2, 1}) {
        EXPECT_CODE(APP_OK, AppQueueOut(hQueue, 1, &pvElement));
        EXPECT_EQ(pvElement, Arg(nExpected));
    }
    run.Do(OP(Got(AppQueueOut(hQueue, 2, nullptr) == APP_TIMEOUT)));
    EXPECT_CODE(APP_OK, AppQueueIn(hQueue, Arg(3), 0));
    EXPECT_CODE(APP_OK, AppQueueOut(hQueue, 1, nullptr));
    AppQueueDestroy(hQueue, nullptr, nullptr);
    AppDoubleListDestroy(hList, nullptr, nullptr);
}

void Memory(Run &run)
{
    HAppMemPool hNew = nullptr, hPool = run.Pool();
    run.State([&] { return Text("%d", hNew != nullptr); });
    // The engine and its lists have a code of their own.
    run.Do(OP(Got(AppMemPoolCreate(0, 1, 0, &hNew) == APP_OK)));
    AppMemPoolDestroy(hNew);
    void *pvBlock;
    char *szBlock, *szGrown;
    for (const uint32_t dwSize : {100u, 5000000u}) {
        run.Do(OP(Got((pvBlock = AppMemPoolMalloc(hPool, dwSize)) != nullptr)));
        AppMemPoolFree(memset(pvBlock, 'x', dwSize));
    }
    run.Do(OP(Got((szBlock = AppStrndup(hPool, "123456789", 60)) != nullptr)));
    run.State([&] { return Text("%s %u", szBlock, hPool ? hPool->dwCurSize : 0); });
    const auto grow = [&](void *pvGrown) { return szGrown = static_cast<char *>(pvGrown); };
    run.Do(OP(Got(grow(AppMemPoolRealloc(hPool, szBlock, 1000)))));
    EXPECT_STREQ(szGrown, "123456789");
    AppMemPoolFree(szGrown);
}

// ---- Reports, actions, files --------------------------------------------------------------------

// A report, its formatting failing too: it may lack lines, no more.
#define REPORT(operation) Report(run, #operation, [&](PFAppShow pfnShow, void *pv) { operation; })

void Report(Run &run, const char *szOp, const std::function<void(PFAppShow, void *)> &show)
{
    const PFAppShow collect = [](const char *szText, void *pv) {
        static_cast<std::string *>(pv)->append(szText);
    };
    std::string before, during, after;
    show(collect, &before);
    const bool bHit = run.Once(szOp, [&] { show(collect, &during); }, {Fn::_AppVsnprintf});
    show(collect, &after);
    EXPECT_EQ(before, after);
    EXPECT_NE(before, "");
    EXPECT_LE(during.size(), before.size());
    EXPECT_TRUE(bHit || during == before);
}

void Reports(Run &run)
{
    Diary diary;
    Manager manager(4, 0, run.Pool() ? 1 << 24 : 0);
    manager.Park(manager.New(diary));
    REPORT(AppTaskMgrShow(manager.Get(), pfnShow, pv));
    REPORT(AppShareActionShow(pfnShow, pv));
    if (run.Pool())
        REPORT(AppMemPoolShow(run.Pool(), pfnShow, pv));
}

void Registrations(Run &run)
{
    static int s_nKeys = 0;
    const auto action = [](uint32_t, uint32_t, uint32_t) { return 6u; };
    const auto registers = [&](const char *szOp, const auto &pfnRegister) {
        const std::string key = Text("sweep %d", ++s_nKeys);
        uint32_t dwResult = 7;
        run.State([&] {
            const bool bThere = g_hAppShareActionList.load() != nullptr;
            EXPECT_EQ(bThere, g_hAppShareActionRecursiveLock.load() != nullptr);
            EXPECT_CODE(bThere ? APP_INVALID_ARG : APP_FAILED,
                        AppRunShareAction(key.c_str(), 0, 0, 0, &dwResult));
            return Text("%u", dwResult);
        });
        // For the life of the process: the lock, the list and its lock; the entry and its node.
        run.m_nKept += g_hAppShareActionList.load() ? 2 : 5;
        run.Do(szOp, [&] { return pfnRegister(key.c_str(), action); });
        EXPECT_CODE(APP_OK, AppRunShareAction(key.c_str(), 0, 0, 0, &dwResult));
        EXPECT_EQ(dwResult, 6u);
    };
    registers("AppRegisterShareAction", AppRegisterShareAction);
    registers("AppRegisterBlockShareAction", AppRegisterBlockShareAction);
}

void LogFiles(Run &run)
{
    test::StdoutCapture quiet; // each opening prints
    char achDir[] = "/tmp/appcore-sweep-XXXXXX";
    const std::filesystem::path dir = mkdtemp(achDir), path = dir / "log";
    const auto works = [&] { // a line reaches the file, opened anew if need be
        EXPECT_EQ(AppSetFileLog(9, path.c_str(), 1000), 1u);
        AppLog(9, APP_LOG_ALWAYS, "[INFO ] AppLog: works\n");
        std::ifstream file(path);
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        EXPECT_NE(text.find("[INFO ] AppLog: works\n"), std::string::npos);
    };
    run.Do(OP(Got(AppSetFileLog(9, path.c_str(), 1000) == 1)), {Fn::fcntl});
    works();
    EXPECT_EQ(AppSetFileLog(9, path.c_str(), 0), 1u); // the line rotates
    run.Do(OP((AppLogFile(9, APP_LOG_ALWAYS, "[INFO ] AppLogFile: text\n"), APP_OK)),
           {Fn::write, Fn::rename, Fn::fopen, Fn::ftruncate, Fn::fcntl});
    works();
    AppCloseFileLog(9);
    std::filesystem::remove_all(dir);
}

// ---- Conversions --------------------------------------------------------------------------------

void Conversions(Run &run)
{
    constexpr uint32_t kNone = 0xFFFFFFFF, kOdd = 1735689600;
    // A month that only the system's function carries over.
    const TAppTime odd = {2024, 13, 1, 0, 0, 0, 0};
    const char *const szOdd = "2024-13-01T00:00:00";
    uint32_t dwTime = 0, dwRead = 0;
    TAppTime time = {};
    TAppNetAddr addr = {};
    char achText[64] = "";
    run.Do(OP(Got((dwTime = AppConvertTimeToU32(&odd)) != kNone)));
    run.Do(OP(AppConvertXsdDatetime2U32(szOdd, &dwRead, nullptr, nullptr, nullptr) +
              Got(dwRead != kNone)));
    EXPECT_TRUE(dwTime == kOdd && dwRead == kOdd);
    run.State([&] { return Text("%u", time.wYear); });
    run.Do(OP(AppConvertU32ToTime(0, &time)));
    EXPECT_EQ(time.wYear, 1970);
    run.Do(OP(AppConvertU322XsdDatetime(0, 1, nullptr, nullptr, achText, 30)));
    EXPECT_STREQ(achText, "1970-01-01T00:00:00Z");
    run.Do(OP(AppConvertStrtoNet("::1", &addr)));
    run.Do(OP(AppConvertNettoStr(&addr, achText, 46)));
    EXPECT_STREQ(achText, "::1");
}

bool Knows(const char *szEncoding)
{
    const iconv_t hConv = iconv_open(szEncoding, "UTF-16LE");
    return hConv != reinterpret_cast<iconv_t>(-1) && iconv_close(hConv) == 0;
}

void Encodings(Run &run)
{
    char achText[8];
    const auto encode = [&](const char *szEncoding, const char *szOp, const auto &convert) {
        if (!Knows(szEncoding)) { // an emulated system may lack it
            s_ops[szOp] = true;
            return;
        }
        achText[0] = 0;
        run.Do(szOp, convert);
        EXPECT_EQ(achText[0], 'A');
    };
    uint32_t dwLen = 8, dwLenGbk = 8;
    encode("UTF-8", OP(AppConvertUtf8toUnicode("A", achText, &dwLen)));
    encode("UTF-8", OP(AppConvertUnicodetoUtf8(u"A", 1, achText, 8)));
    encode("GBK", OP(AppConvertGbktoUnicode("A", achText, &dwLenGbk)));
    encode("GBK", OP(AppConvertUnicodetoGbk(u"A", 1, achText, 8)));
}

// ---- Sockets ------------------------------------------------------------------------------------

void Sockets(Run &run)
{
    test::TUdp udp;
    test::TListener listener;
    HAppSocket hTcp = listener.Connect(), hNew = nullptr;
    const TAppNetAddr group = {APP_NET_ADDR_IPV4, {inet_addr("239.1.2.3")}};
    char chData = 0;
    uint32_t dwLen = 1;
    for (const uint32_t dwType : {APP_SOCKET_TCP, APP_SOCKET_UDP}) {
        AppSocketDestroy(hNew); // without a descriptor its first operation fails
        run.Do(OP(Got((hNew = AppSocketCreate(run.Pool(), dwType, 0)) != nullptr)), {Fn::socket});
    }
    if (hNew->nFd >= 0)
        run.Do(OP(AppSocketBind(hNew, &kLoopback, 0, 1)));
    AppSocketDestroy(hNew);
    run.Do(OP(Bytes(AppSocketUDPSend(udp.hSocket, "x", 1, kShort, &kLoopback, udp.wPort))));
    EXPECT_EQ(recv(udp.hSocket->nFd, &chData, 1, 0), 1);
    run.Do(OP(Bytes(AppSocketTCPSend(hTcp, "x", 1, kShort))));
    EXPECT_EQ(recv(listener.nPeer, &chData, 1, 0), 1);
    { // comes while somebody waits
        fault::Fail comes(Fn::epoll_wait, 1, 0, 1000);
        comes.Action([&] { AppSocketUDPSend(udp.hSocket, "x", 1, 0, &kLoopback, udp.wPort); });
        run.Do(OP(Bytes(AppSocketUDPRecv(udp.hSocket, &chData, &dwLen, kShort, nullptr, nullptr,
                                         nullptr, nullptr))));
        comes.Action([&] { send(listener.nPeer, "x", 1, 0); });
        run.Do(OP(Bytes(AppSocketTCPRecv(hTcp, &chData, &dwLen, kShort))));
    }
    run.Do(OP(Got((hNew = AppSocketTCPConnect(run.Pool(), &kLoopback, listener.wPort, kLong,
                                              nullptr)) != nullptr)),
           {Fn::setsockopt, Fn::getsockname, Fn::getpeername});
    run.Do(OP(AppSocketUDPJoinMulticastGroup(udp.hSocket, &group, &kLoopback, 1)),
           {Fn::setsockopt});
    AppSocketDestroy(hTcp);
    AppSocketDestroy(hNew);
}

void Addresses(Run &run)
{
    TAppNetAddr loopback6 = {APP_NET_ADDR_IPV6, {0}}, local = {};
    uint16_t wPort = 0;
    loopback6.abyIpv6[15] = 1;
    run.Do(OP(AppSocketCalLocalAddr(&kLoopback, &local)));
    EXPECT_EQ(memcmp(&local, &kLoopback, 8), 0);
    if (AppSocketCalLocalAddr(&loopback6, &local) == APP_OK) { // else there is no IPv6
        run.Do(OP(AppSocketCalLocalAddr(&loopback6, &local)));
        EXPECT_EQ(memcmp(&local, &loopback6, 20), 0);
    }
    run.Do(OP(AppSocketCalNATAddr(&kLoopback, APP_SOCKET_TCP, 80, &local, &wPort)),
           {Fn::getifaddrs});
    EXPECT_TRUE(local.dwIpv4 == kLoopback.dwIpv4 && wPort == 80);
}

// ---- Tasks --------------------------------------------------------------------------------------

void Tasks(Run &run)
{
    HAppTaskMgr hTaskMgr;
    HAppTask hTask;
    HAppTimer hTimer;
    Diary diary;
    test::Door door;
    Diary holder([&](const Diary::Call &) { door.Pass(); });
    run.Make(hTaskMgr, OP(AppTaskMgrCreate(run.Pool(), 4, 0, &hTaskMgr)));
    AppTaskMgrDestroy(hTaskMgr);
    Manager manager(4, 0, run.Pool() ? 1 << 24 : 0);
    for (const char *szTold : {"user 1", "user 1, stop, user 1"}) { // new, and used again
        // The task's pool has a code of its own; the name may be missing.
        run.Make(hTask,
                 OP(Got(AppTaskMgrNewTask(manager.Get(), "t", 9, 65536, 0, 0, Diary::Handle, &diary,
                                          &hTask) == APP_OK)),
                 {Fn::malloc, Fn::pthread_attr_setinheritsched});
        EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, Arg(1), nullptr, nullptr));
        diary.Await(szTold);
        if (szTold[6] == '\0')
            manager.Park(hTask);
    }
    EXPECT_CODE(APP_OK, AppTaskSendEvent(hTask, nullptr, Diary::Handle, &holder));
    door.AwaitVisitor();
    run.Do(OP(AppTaskSendEvent(hTask, Arg(2), nullptr, nullptr)));
    run.Do(OP(AppTaskAssignEvent(hTask, Arg(3), nullptr, nullptr)));
    run.Do(OP(Got((hTimer = AppTaskSetTimer(hTask, 100000, nullptr, nullptr)) != nullptr)));
    run.Do(OP(AppTaskResetTimer(hTimer)));
    EXPECT_LE(AppTaskTimerGetRemainTime(hTimer), 100000u);
    AppTaskCancelTimer(hTimer);
    run.Do(OP(AppTaskTerminate(hTask)));
    door.Open();
    diary.Await("user 1, stop, user 1, cancel, drop 2, drop 3, stop");
}

// The whole life of a manager; its tasks' threads meet the faults too.
void Lives(Run &run)
{
    test::Ledger ledger(16);
    const auto live = [&] {
        HAppTaskMgr hTaskMgr = nullptr;
        if (AppTaskMgrCreate(run.Pool(), 3, 0, &hTaskMgr) != APP_OK)
            return;
        HAppTask ahTask[3] = {};
        for (HAppTask &hTask : ahTask) {
            AppTaskMgrNewTask(hTaskMgr, "t", 9, 65536, 0, 0, test::Ledger::Handle, &ledger, &hTask);
            for (const uint32_t dwTimeout : {0, 100000}) {
                ledger.Send(hTask, dwTimeout != 0);
                ledger.Set(hTask, dwTimeout);
            }
        }
        AppTaskTerminate(ahTask[0]);
        AppTaskMgrDestroy(hTaskMgr);
    };
    run.Once("AppTaskMgrDestroy", live, {}, fault::kEveryThread);
    ledger.ExpectBalance();
}

// ---- XML ----------------------------------------------------------------------------------------

void Documents(Run &run)
{
    mxmlSetErrorCallback([](const char *) {});
    mxml_node_t *ptTree = nullptr, *ptNew = nullptr, *ptRoot = mxmlNewElement(nullptr, "cfg");
    // Mini-XML loses the block of a first one whose name it cannot copy.
    mxmlElementSetAttr(ptRoot, "a", "1");
    const auto save = [&] { // an element whose value could not be made stays, empty
        char *szText = mxmlSaveAllocString(ptRoot, MXML_NO_CALLBACK);
        std::string text = szText;
        free(szText);
        for (const std::string none : {" />", "<v/>", "\n"}) // version 3 of Mini-XML writes more
            for (size_t n; (n = text.find(none)) != std::string::npos;)
                text.replace(n, none.size(), none == " />" ? "/>" : "");
        return text;
    };
    const auto last = [&](uint32_t dwCode) {
        EXPECT_TRUE(dwCode != APP_OK || ptNew == mxmlGetLastChild(ptRoot));
        return dwCode;
    };
    run.State(save);
    // An attribute would only be missing.
    run.Make(ptTree, OP(AppXmlLoad("<c><v>1</v></c>", 15, &ptTree)));
    mxmlDelete(ptTree);
    run.Make(ptNew, OP(last(AppXmlAddSonNode(ptRoot, "n", &ptNew))));
    run.Make(ptNew, OP(last(AppXmlAddSonNode_Str(ptRoot, "v", "text", &ptNew))));
    run.Make(ptNew, OP(last(AppXmlAddSonNode_s32(ptRoot, "v", -5, &ptNew))));
    run.Make(ptNew, OP(last(AppXmlAddSonNode_u32(ptRoot, "v", 5, &ptNew))));
    run.Make(ptNew, OP(last(AppXmlAddSonNode_u64(ptRoot, "v", 6, &ptNew))));
    run.Make(ptNew, OP(last(AppXmlAddSonNode_Double(ptRoot, "v", 0.5, &ptNew))));
    run.Make(ptNew, OP(last(AppXmlAddSonNode_Bool(ptRoot, "v", 2, &ptNew))));
    run.Make(ptNew, OP(last(AppXmlAddSonNode_CDATA(ptRoot, "v", "data", &ptNew))));
    run.Do(OP(AppXmlSetAttr_s32(ptRoot, "b", -5)));
    run.Do(OP(AppXmlSetAttr_u32(ptRoot, "a", 5)));
    EXPECT_EQ(save(), "<cfg a=\"5\" b=\"-5\"><n/><v>text</v><v>-5</v><v>5</v><v>6</v>"
                      "<v>0.500000</v><v>true</v><v><![CDATA[data]]></v></cfg>");
    mxmlDelete(ptRoot);
}

// ---- The sweep ----------------------------------------------------------------------------------

// What is left: it takes no memory and calls nothing of the system that can fail, or is part of
// what a scenario does.
constexpr char kLeft[] =
    "AppCheckIpv4Class AppConvEnum2Str AppConvStr2Enum AppConvertHton* AppConvertNtoh* "
    "AppConvertPrefixLengthtoSubnetMask AppConvertStrtoDouble AppConvertStrtoFloat "
    "AppConvertStrtoS32 AppConvertStrtoU* AppConvertSubnetMasktoPrefixLength AppConvertTickToMS "
    "AppTickDiff AppDelay AppDumpMem AppFindS32StrPair_* AppMakeCapStr_* AppGenerateLogChannel "
    "AppGetLogLevels AppGetVersion AppSetLogLevel AppSetLogViaStdout AppMemcmp AppMemcpy AppMemzero AppSnprintf "
    "AppSscanf AppStr* AppSocketStartUp AppSocketClearUp AppShareActionLock AppShareActionUnlock "
    "AppTaskGetLastEvent AppTaskGetMemPool AppXmlGet* AppXmlMxmlParseCB AppRegCommand AppHost* "
    "QorPrintf QorRegCommand IpcGetUpupCfg AppLog AppLockGive AppLockDestroy AppDoubleListRemove "
    "AppDoubleListDestroy AppQueueGetSize AppQueueDestroy AppMemPoolDestroy AppMemPoolFree "
    "AppTaskTimerGetRemainTime AppTaskCancelTimer AppSocketDestroy AppCloseFileLog "
    "AppGetResultName AppLogGetStats AppSetLogOnce AppSetLogRepeat AppShareActionGetStats "
    "AppSocketGetStats AppStats* AppTaskMgrCheck AppMemPoolSetName AppQueueSetName AppTaskGetStats AppTaskMgrGetStats "
    "AppQueueGetStats "
    "AppMemPoolGetStats "
    "AppRunShareAction IpcConvConvert* IpcCapGetHwExternal IpcGetNetEthParam ";

// Returns the number of faults met.
unsigned Sweep(void (*pfnScenario)(Run &), bool bPool)
{
    for (unsigned n = 1; n < 1000; ++n) {
        const long nBlocks = fault::LiveBlocks(), nDescriptors = fault::OpenDescriptors();
        HAppMemPool hPool = nullptr;
        if (bPool) {
            EXPECT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool));
        }
        Run run(n, hPool);
        pfnScenario(run);
        EXPECT_TRUE(!hPool || hPool->dwCurSize == 0);
        AppMemPoolDestroy(hPool);
        EXPECT_EQ(fault::LiveBlocks(), nBlocks + run.m_nKept);
        EXPECT_EQ(fault::OpenDescriptors(), nDescriptors);
        if (run.What().empty())
            return n - 1;
        if (testing::Test::HasFailure())
            return ADD_FAILURE() << run.What() << (bPool ? ", with a pool" : ""), n;
    }
    return ADD_FAILURE() << "never succeeds", 0;
}

TEST(Sweep, EveryOperationUnderEveryFault)
{
    test::Watchdog watchdog;
    unsigned nFaults = 0;
    for (const auto scenario :
         {Locks, Containers, Memory, Registrations, Reports, LogFiles, Conversions, Encodings,
          Sockets, Addresses, Tasks, Lives, Documents})
        for (const bool bPool : {false, true})
            if (!HasFailure())
                nFaults += Sweep(scenario, bPool);
    if (HasFailure())
        return;
    std::set<std::string> names;
    for (const auto &exported : test::Exported())
        names.insert(exported.first);
    std::string covered = kLeft;
    for (const auto &[op, bHit] : s_ops) {
        EXPECT_TRUE(bHit) << op << " meets no fault";
        covered += op + " ";
    }
    EXPECT_EQ(test::Unlisted(names, covered), "") << "in no scenario";
    printf("%zu operations, %u faults\n", s_ops.size(), nFaults);
}

} // namespace
