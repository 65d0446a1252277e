// SPDX-License-Identifier: MIT
//
// Every operation that refuses null pointers: each of them null in turn, beside arguments that are
// good for their types.  The result is the one that its header states, no output is written, and
// where the family logs refusals one line shows the null.
#include <string.h>

#include <sstream>
#include <tuple>

#include "appcore/appcore.h"
#include "appcore/host.h"
#include "support/expect.h"
#include "support/exported.h"
#include "support/log_capture.h"
#include "utils/queue.h"
#include "utils/share_action_registry.h"
#include "xml/mxml_version.h"

namespace
{

std::string s_covered;
unsigned char s_abyOutput[256]; // stands for every record too that no operation gets to look at
const TAppNetAddr kAny = {APP_NET_ADDR_IPV4, {0}};
const TAppS32StrPair kPair = {0, "a"};
HAppSocket s_hSocket;
mxml_node_t *s_ptNode;

// An argument of its type that is no reason to refuse.
template <typename P>
P Good()
{
    if constexpr (std::is_same_v<P, HAppSocket>)
        return s_hSocket;
    else if constexpr (std::is_same_v<P, mxml_node_t *>)
        return s_ptNode;
    else if constexpr (std::is_same_v<P, const TAppNetAddr *>)
        return &kAny;
    else if constexpr (std::is_same_v<P, const TAppS32StrPair *>)
        return &kPair;
    else if constexpr (std::is_same_v<P, const char *> || std::is_same_v<P, const void *>)
        return "v";
    else if constexpr (std::is_pointer_v<P>)
        return reinterpret_cast<P>(s_abyOutput);
    else
        return P(1);
}

// `szPointers` has a letter for each pointer among the parameters: 'x' for one that must not be null.
template <typename Result, typename... P>
void Refuse(const std::string &op, const char *szPointers, int nRefused, size_t nLines,
            Result (*pfn)(P...))
{
    // One of a family of types may hand the call on to another.
    const std::string family = op.substr(0, op.rfind('_'));
    constexpr bool abPointer[] = {std::is_pointer_v<P>...};
    for (size_t i = 0; i < sizeof...(P); ++i) {
        if (!abPointer[i] || *szPointers++ != 'x')
            continue;
        SCOPED_TRACE(test::Text("%s: argument %zu", op.c_str(), i));
        test::LogCapture log;
        memset(s_abyOutput, 0xA5, sizeof(s_abyOutput));
        auto isNull = [&, nNext = size_t{0}]() mutable { return nNext++ == i; };
        const std::tuple<P...> arguments{isNull() ? P() : Good<P>()...}; // in this order
        if constexpr (std::is_void_v<Result>)
            std::apply(pfn, arguments);
        else if constexpr (std::is_pointer_v<Result>)
            EXPECT_EQ(std::apply(pfn, arguments), nullptr);
        else
            EXPECT_EQ(std::apply(pfn, arguments), static_cast<Result>(nRefused));
        const std::vector<std::string> lines = log.Lines();
        ASSERT_EQ(lines.size(), nLines);
        for (const std::string &line : lines) {
            EXPECT_EQ(line.find("[ERROR] " + family), 0u) << line;
            const auto shows = [&](const auto &text) { return line.find(text) != line.npos; };
            EXPECT_TRUE(shows(test::Text(" %p", nullptr)) || shows("NULL\n") || shows("Arg\n") ||
                        shows("failed.\n"))
                << line;
        }
        for (const unsigned char by : s_abyOutput)
            ASSERT_EQ(by, 0xA5) << "written";
    }
    EXPECT_EQ(*szPointers, 0) << op;
}

// The operations' names, their pointers, the result of a refusal, and the lines that it logs.
template <typename... F>
void RefuseAll(const char *szOps, const char *szPointers, int nRefused, size_t nLines, F... pfn)
{
    s_covered += std::string(szOps) + " ";
    std::istringstream names(szOps);
    std::string name;
    ((names >> name, Refuse(name.substr(0, name.find(',')), szPointers, nRefused, nLines, pfn)),
     ...);
}

#define REFUSE(pointers, refused, lines, ...)                                                      \
    RefuseAll(#__VA_ARGS__, pointers, refused, lines, __VA_ARGS__)

constexpr int kBad = APP_INVALID_ARG;

void RefuseFoundation()
{
    REFUSE("-x", kBad, 0, AppDoubleListCreate, AppQueueCreate, AppLockCreate);
    REFUSE("x---", kBad, 0, AppDoubleListInsertAfter, AppDoubleListInsertBefore);
    REFUSE("xx-", kBad, 0, AppDoubleListRemove);
    REFUSE("x--", 0, 0, AppDoubleListDestroy, AppQueueDestroy, AppMemPoolShow, AppTaskMgrShow,
           AppTaskMgrCheck);
    REFUSE("x-", 0, 0, AppStatsWalk, AppQueueSetName, AppMemPoolSetName);
    REFUSE("x-", kBad, 0, AppQueueIn, _AppQueueIn, AppQueueOut, AppRegisterShareAction,
           AppRegisterBlockShareAction, AppHostRunCommand);
    REFUSE("x", -1, 0, AppQueueGetSize, AppConvertSubnetMasktoPrefixLength);
    REFUSE("x", 0, 0, _AppQueueGetMaxSize, _AppQueueGetTopSize, AppLockDestroy, AppMemPoolFree,
           AppMemPoolDestroy, AppTaskMgrDestroy, AppTaskGetMemPool, AppTaskCancelTimer,
           AppSocketDestroy, AppConvertTimeToU32, AppConvertPrefixLengthtoSubnetMask,
           AppSetFileLog);
    REFUSE("x", kBad, 0, _AppQueueChangeMaxSize, AppLockTakeByTime, AppLockGive, AppMemPoolCreate,
           AppTaskTerminate, AppConvertU32ToTime);
    REFUSE("x", kBad, 0, AppLogGetStats, AppShareActionGetStats, AppSocketGetStats);
    REFUSE("-x", 0, 0, AppStrndup);
    REFUSE("-x", kBad, 0, AppTaskMgrCreate);
    REFUSE("x---x", kBad, 0, AppTaskMgrNewTask);
    REFUSE("x---", kBad, 0, AppTaskSendEvent, AppTaskAssignEvent);
    REFUSE("xxxxx", kBad, 0, AppTaskGetLastEvent);
    REFUSE("x--", 0, 0, AppTaskSetTimer);
    REFUSE("x", kBad, 1, AppTaskResetTimer);
    REFUSE("x", 0, 1, AppTaskTimerGetRemainTime);
    REFUSE("xx", 0, 0, AppDumpMem);
    REFUSE("xx", kBad, 0, AppMemPoolGetStats, AppQueueGetStats, AppTaskGetStats,
           AppTaskMgrGetStats);
    REFUSE("xx", kBad, 0, AppConvertStrtoNet, AppConvertNettoStr, AppConvertUnicodetoUtf8,
           AppConvertUnicodetoGbk);
    REFUSE("x----", kBad, 0, AppConvertXsdDatetime2U32);
    REFUSE("--x", kBad, 0, AppConvertU322XsdDatetime);
    REFUSE("xxx", kBad, 0, AppConvertUtf8toUnicode, AppConvertGbktoUnicode);
    REFUSE("x-", APP_IPV4_CLASS_INVALID, 0, AppCheckIpv4Class);
    REFUSE("xxx", kBad, 1, AppMakeCapStr_u8, AppMakeCapStr_u32, AppMakeCapStr_Bool);
    EXPECT_EQ(g_hAppShareActionList.load(), nullptr) << "the refused registrations created nothing";
}

void RefuseSockets()
{
    s_hSocket = AppSocketCreate(nullptr, APP_SOCKET_UDP, 0);
    REFUSE("xx", kBad, 0, AppSocketBind);
    REFUSE("xxx----", -1, 0, AppSocketUDPRecv);
    REFUSE("xxx", -1, 0, AppSocketUDPSend);
    REFUSE("xx-", kBad, 0, AppSocketUDPJoinMulticastGroup);
    REFUSE("xx", kBad, 1, AppSocketCalLocalAddr);
    REFUSE("xx-", kBad, 0, AppSocketCalNATAddr);
    REFUSE("-x-", 0, 0, AppSocketTCPConnect);
    AppSocketDestroy(s_hSocket);
    s_hSocket = AppSocketCreate(nullptr, APP_SOCKET_TCP, 0);
    REFUSE("xx", -1, 0, AppSocketTCPSend);
    REFUSE("xxx", -1, 0, AppSocketTCPRecv);
    AppSocketDestroy(s_hSocket);
}

void RefuseDocuments()
{
    mxml_node_t *const ptTree =
        app::LoadString(nullptr, "<v v='1'><v>1</v></v>", AppXmlMxmlParseCB);
    s_ptNode = ptTree;
    REFUSE("xx", kBad, 1, AppXmlLoad, AppXmlGetNodeValue_Str, AppXmlGetNodeValue_u16,
           AppXmlGetNodeValue_u32, AppXmlGetFirstChildWithName, AppXmlGetNextSiblingWithName,
           AppXmlSetAttr_s32, AppXmlSetAttr_u32);
    REFUSE("xxx", kBad, 1, AppXmlGetSonNode, AppXmlGetAttr_Str, AppXmlGetAttr_s32, AppXmlGetAttr_u8,
           AppXmlGetAttr_u16, AppXmlGetAttr_u32, AppXmlGetAttr_Bool, AppXmlGetSonNodeValue_Str,
           AppXmlGetSonNodeValue_Str_Copy, AppXmlGetSonNodeValue_CData, AppXmlGetSonNodeValue_s32,
           AppXmlGetSonNodeValue_u8, AppXmlGetSonNodeValue_u16, AppXmlGetSonNodeValue_u32,
           AppXmlGetSonNodeValue_u64, AppXmlAddSonNode);
    REFUSE("xx-", kBad, 1, AppXmlGetSonNodeValue_Bool, AppXmlAddSonNode_s32, AppXmlAddSonNode_u32,
           AppXmlAddSonNode_u64, AppXmlAddSonNode_Double, AppXmlAddSonNode_Bool);
    REFUSE("xxx-", kBad, 1, AppXmlAddSonNode_Str);
    REFUSE("xxxx", kBad, 1, AppXmlAddSonNode_CDATA);
    mxmlDelete(ptTree);
}

TEST(Refusals, EveryOperationRefusesNull)
{
    RefuseFoundation();
    RefuseSockets();
    RefuseDocuments();
    // What takes null for a value, or looks at no pointer.
    s_covered +=
        "AppLog AppLogFile AppSnprintf AppSscanf AppMem* AppStr* AppConvertStrto* "
        "AppRunShareAction AppShareActionShow AppRegCommand AppHostWalkCommands QorPrintf "
        "QorRegCommand Ipc* AppFindS32StrPair_* AppConvEnum2Str AppConvStr2Enum AppSocketCreate "
        "AppXmlMxmlParseCB AppStatsJson";
    std::set<std::string> names;
    for (const auto &[name, parameters] : test::Exported())
        if (parameters.find('*') != std::string::npos || parameters.find("(H") != std::string::npos)
            names.insert(name);
    EXPECT_EQ(test::Unlisted(names, s_covered), "");
}

} // namespace
