// SPDX-License-Identifier: MIT
//
// Every operation that refuses null pointers: each of them null in turn.  The result is the one
// that its header states, what it logs names the operation and shows the null, and no output is
// written.
#include <string.h>

#include <functional>
#include <set>
#include <sstream>
#include <tuple>

#include "appcore/appcore.h"
#include "appcore/host.h"
#include "support/expect.h"
#include "support/exported.h"
#include "support/log_capture.h"
#include "utils/queue.h"
#include "utils/share_action_registry.h"

using test::LogCapture;
using test::Text;

namespace
{

std::string s_covered;
unsigned char s_abyOutput[256];

// An argument that is not null: converts to every pointer and is found unchanged afterwards.
struct TOutput {
    template <typename T>
    operator T *() const
    {
        return reinterpret_cast<T *>(s_abyOutput);
    }
} const kOut;

// A pointer that may be null.
struct TOptional {
    template <typename T>
    operator T *() const
    {
        return reinterpret_cast<T *>(s_abyOutput);
    }
} const kMay;

// The lines of a refusal, given the operation and which of its pointers is null.
using Lines = std::function<std::string(const char *szOp, size_t nNull)>;

const Lines kSilent = [](const char *, size_t) { return ""; };

// "[ERROR] Op: ptFirst (nil), szSecond P", for the names "ptFirst szSecond".
Lines Names(const char *szNames, const char *szOther = nullptr)
{
    return [=](const char *szOp, size_t nNull) {
        std::istringstream names(szNames);
        std::string line = Text("[ERROR] %s:", szOther ? szOther : szOp), name;
        for (size_t i = 0; names >> name; ++i)
            line += (i ? ", " : " ") + name + (i == nNull ? " (nil)" : " P");
        return line + "\n";
    };
}

// The same text whatever is null.
Lines Fixed(const char *szText)
{
    return [=](const char *szOp, size_t) { return Text("[ERROR] %s: %s\n", szOp, szText); };
}

// The same for one pointer, other lines for those before it.
Lines Last(size_t nLast, const char *szText, const Lines &others)
{
    return [=](const char *szOp, size_t nNull) {
        return (nNull == nLast ? Fixed(szText) : others)(szOp, nNull);
    };
}

// Passes arguments on, one of them as null.
struct TNulling {
    size_t nNull, nNext = 0;
    template <typename P, typename A>
    P Pass(const A &argument)
    {
        const bool bNull = nNext++ == nNull;
        if constexpr (std::is_pointer_v<P>)
            return bNull ? nullptr : static_cast<P>(argument);
        else
            return static_cast<P>(argument);
    }
};

template <typename Result, typename... P, typename Refused, typename... A>
void Refuse(const char *szOp, Result (*pfn)(P...), Refused refused, const Lines &lines, A... args)
{
    if (*szOp != '_')
        s_covered += std::string(szOp) + " ";
    constexpr bool abTaken[] = {std::is_pointer_v<P> && !std::is_same_v<A, TOptional>...};
    size_t nNull = 0;
    for (size_t i = 0; i < sizeof...(P); ++i) {
        if (!abTaken[i])
            continue;
        SCOPED_TRACE(Text("%s: pointer %zu", szOp, nNull));
        LogCapture log;
        memset(s_abyOutput, 0xA5, sizeof(s_abyOutput));
        TNulling nulling{i};
        const std::tuple<P...> arguments{nulling.Pass<P>(args)...}; // in this order
        if constexpr (std::is_void_v<Result>)
            std::apply(pfn, arguments);
        else
            EXPECT_EQ(std::apply(pfn, arguments), static_cast<Result>(refused));
        std::string said;
        for (const std::string &line : log.Lines())
            said += test::Masked(line);
        EXPECT_EQ(said, lines(szOp, nNull++));
        for (const unsigned char by : s_abyOutput)
            ASSERT_EQ(by, 0xA5) << "written";
    }
    EXPECT_GT(nNull, 0u) << szOp;
}

#define REFUSES(name, ...) Refuse(#name, name, __VA_ARGS__)

TEST(Refusals, EveryOperationRefusesNull)
{
    HAppDoubleList hList = nullptr;
    HAppDoubleListNode hNode = nullptr;
    HAppQueue hQueue = nullptr;
    HAppMemPool hPool = nullptr;
    HAppTaskMgr hTaskMgr = nullptr;
    HAppLock hLock = nullptr;
    ASSERT_CODE(APP_OK, AppDoubleListCreate(nullptr, 0, 0, &hList));
    ASSERT_CODE(APP_OK, AppDoubleListInsertAfter(hList, nullptr, nullptr, &hNode));
    ASSERT_CODE(APP_OK, AppQueueCreate(nullptr, 5, 1, &hQueue));
    ASSERT_CODE(APP_OK, AppMemPoolCreate(0, 1, 0, &hPool));
    ASSERT_CODE(APP_OK, AppTaskMgrCreate(nullptr, 5, 0, &hTaskMgr));
    ASSERT_CODE(APP_OK, AppLockCreate(nullptr, 1, 1, 0, &hLock));
    constexpr uint32_t bad = APP_INVALID_ARG;
    REFUSES(AppDoubleListCreate, bad, kSilent, kMay, 1, 1, kOut);
    REFUSES(AppDoubleListInsertAfter, bad, kSilent, hList, kMay, kMay, kMay);
    REFUSES(AppDoubleListInsertBefore, bad, kSilent, hList, kMay, kMay, kMay);
    REFUSES(AppDoubleListRemove, bad, kSilent, hList, hNode, kMay);
    REFUSES(AppDoubleListDestroy, 0, kSilent, hList, kMay, kMay);
    REFUSES(AppQueueCreate, bad, kSilent, kMay, 1, 1, kOut);
    REFUSES(AppQueueIn, bad, kSilent, hQueue, kMay, 0);
    REFUSES(_AppQueueIn, bad, kSilent, hQueue, kMay, 0, 1);
    REFUSES(AppQueueOut, bad, kSilent, hQueue, 1, kMay);
    REFUSES(AppQueueGetSize, 4294967295u, kSilent, hQueue);
    REFUSES(_AppQueueGetMaxSize, 0, kSilent, hQueue);
    REFUSES(_AppQueueGetTopSize, 0, kSilent, hQueue);
    REFUSES(_AppQueueChangeMaxSize, bad, kSilent, hQueue, 1);
    REFUSES(AppQueueDestroy, 0, kSilent, hQueue, kMay, kMay);
    REFUSES(AppLockCreate, bad, kSilent, kMay, 1, 1, 0, kOut);
    REFUSES(AppLockTakeByTime, bad, kSilent, hLock, 1);
    REFUSES(AppLockGive, bad, kSilent, hLock);
    REFUSES(AppLockDestroy, 0, kSilent, hLock);
    REFUSES(AppMemPoolCreate, bad, kSilent, 1, 1, 0, kOut);
    REFUSES(AppMemPoolFree, 0, kSilent, kOut);
    REFUSES(AppMemPoolShow, 0, kSilent, hPool, kMay, kMay);
    REFUSES(AppMemPoolDestroy, 0, kSilent, hPool);
    REFUSES(AppStrndup, nullptr, kSilent, kMay, "text", 5);
    REFUSES(AppRegisterShareAction, bad, kSilent, "key", kMay);
    REFUSES(AppRegisterBlockShareAction, bad, kSilent, "key", kMay);
    REFUSES(AppHostRunCommand, bad, kSilent, "command", kMay);
    REFUSES(AppTaskMgrCreate, bad, kSilent, kMay, 1, 1, kOut);
    REFUSES(AppTaskMgrNewTask, bad, kSilent, hTaskMgr, kMay, 1, 0, 0, 0, kMay, kMay, kOut);
    REFUSES(AppTaskMgrShow, 0, kSilent, hTaskMgr, kMay, kMay);
    REFUSES(AppTaskMgrDestroy, 0, kSilent, hTaskMgr);
    REFUSES(AppTaskSendEvent, bad, kSilent, kOut, kMay, kMay, kMay);
    REFUSES(AppTaskAssignEvent, bad, kSilent, kOut, kMay, kMay, kMay);
    REFUSES(AppTaskTerminate, bad, kSilent, kOut);
    REFUSES(AppTaskGetLastEvent, bad, kSilent, kOut, kOut, kOut, kOut, kOut);
    REFUSES(AppTaskGetMemPool, nullptr, kSilent, kOut);
    REFUSES(AppTaskSetTimer, nullptr, kSilent, kOut, 1, kMay, kMay);
    REFUSES(AppTaskResetTimer, bad, Fixed("Invalid Arg"), kOut);
    REFUSES(AppTaskTimerGetRemainTime, 0, Fixed("Invalid Arg"), kOut);
    REFUSES(AppTaskCancelTimer, 0, kSilent, kOut);
    AppTaskMgrDestroy(hTaskMgr);
    AppMemPoolDestroy(hPool);
    AppLockDestroy(hLock);
    AppQueueDestroy(hQueue, nullptr, nullptr);
    AppDoubleListDestroy(hList, nullptr, nullptr);
    EXPECT_EQ(g_hAppShareActionList.load(), nullptr) << "the refused registrations created nothing";

    const TAppNetAddr any = {APP_NET_ADDR_IPV4, {0}};
    HAppSocket hUdp = AppSocketCreate(nullptr, APP_SOCKET_UDP, 0),
               hTcp = AppSocketCreate(nullptr, APP_SOCKET_TCP, 0);
    uint32_t dwLen = 1;
    REFUSES(AppSocketBind, bad, kSilent, hUdp, &any, 0, 0);
    REFUSES(AppSocketUDPRecv, -1, kSilent, hUdp, kOut, &dwLen, 1, kMay, kMay, kMay, kMay);
    REFUSES(AppSocketUDPSend, -1, kSilent, hUdp, "x", 1, 1, &any, 1);
    REFUSES(AppSocketUDPJoinMulticastGroup, bad, kSilent, hUdp, &any, kMay, 0);
    REFUSES(AppSocketTCPConnect, nullptr, kSilent, kMay, &any, 1, 1, kMay);
    REFUSES(AppSocketTCPSend, -1, kSilent, hTcp, "x", 1, 1);
    REFUSES(AppSocketTCPRecv, -1, kSilent, hTcp, kOut, &dwLen, 1);
    REFUSES(AppSocketDestroy, 0, kSilent, hTcp);
    REFUSES(AppSocketCalLocalAddr, bad, Fixed("AppSocketCalLocalAddr failed."), &any, kOut);
    REFUSES(AppSocketCalNATAddr, bad, kSilent, &any, 0, 1, kOut, kMay);
    AppSocketDestroy(hUdp);
    AppSocketDestroy(hTcp);

    REFUSES(AppConvertStrtoNet, bad, kSilent, "1.2.3.4", kOut);
    REFUSES(AppConvertNettoStr, bad, kSilent, &any, kOut, 46);
    REFUSES(AppConvertTimeToU32, 0, kSilent, kOut);
    REFUSES(AppConvertU32ToTime, bad, kSilent, 0, kOut);
    REFUSES(AppConvertXsdDatetime2U32, bad, kSilent, "text", kMay, kMay, kMay, kMay);
    REFUSES(AppConvertU322XsdDatetime, bad, kSilent, 0, 0, kMay, kMay, kOut, 30);
    REFUSES(AppConvertUtf8toUnicode, bad, kSilent, "x", kOut, &dwLen);
    REFUSES(AppConvertGbktoUnicode, bad, kSilent, "x", kOut, &dwLen);
    REFUSES(AppConvertUnicodetoUtf8, bad, kSilent, "x", 1, kOut, 8);
    REFUSES(AppConvertUnicodetoGbk, bad, kSilent, "x", 1, kOut, 8);
    REFUSES(AppCheckIpv4Class, APP_IPV4_CLASS_INVALID, kSilent, &any, kMay);
    REFUSES(AppConvertSubnetMasktoPrefixLength, -1, kSilent, &any);
    REFUSES(AppConvertPrefixLengthtoSubnetMask, 0, kSilent, 1, kOut);
    REFUSES(AppSetFileLog, 0, kSilent, 9, "path", 1);
    REFUSES(AppDumpMem, 0, kSilent, kOut, 1, kOut, 100);
    const TAppS32StrPair row = {0, "a"};
    REFUSES(AppMakeCapStr_u8, bad, Names("ptPairArr abyCapArr szDstBuf"), &row, 1, kOut, 1, kOut,
            9);
    REFUSES(AppMakeCapStr_u32, bad, Names("ptPairArr adwCapArr szDstBuf"), &row, 1, kOut, 1, kOut,
            9);
    REFUSES(AppMakeCapStr_Bool, bad, Names("ptPairArr abCapArr szDstBuf"), &row, 1, kOut, 1, kOut,
            9);

    REFUSES(AppXmlLoad, bad, Names("szText pptTree"), "<a/>", 4, kOut);
    mxml_node_t *const pt = mxmlLoadString(nullptr, "<c v='1'><v>1</v></c>", AppXmlMxmlParseCB);
    REFUSES(AppXmlGetFirstChildWithName, nullptr, Names("ptParent szName"), pt, "v");
    REFUSES(AppXmlGetNextSiblingWithName, nullptr, Names("ptNode szName"), pt, "v");
    REFUSES(AppXmlGetSonNode, bad, Names("ptParent szNodeName pptSonNode"), pt, "v", kOut);
    REFUSES(AppXmlGetNodeValue_Str, bad, Names("ptNode pszStr"), pt, kOut);
    REFUSES(AppXmlGetNodeValue_u16, bad, Names("ptNode pwValue"), pt, kOut);
    REFUSES(AppXmlGetNodeValue_u32, bad, Names("ptNode pdwValue"), pt, kOut);
    REFUSES(AppXmlGetAttr_Str, bad, Names("ptNode szAttrName pszValue"), pt, "v", kOut);
    REFUSES(AppXmlGetAttr_s32, bad, Names("ptNode szAttrName pnValue"), pt, "v", kOut);
    REFUSES(AppXmlGetAttr_u8, bad, Names("ptNode szAttrName pbyValue"), pt, "v", kOut);
    REFUSES(AppXmlGetAttr_u16, bad, Names("ptNode szAttrName pwValue"), pt, "v", kOut);
    REFUSES(AppXmlGetAttr_u32, bad, Names("ptNode szAttrName pdwValue"), pt, "v", kOut);
    REFUSES(AppXmlGetAttr_Bool, bad, Names("ptNode szAttrName pbValue"), pt, "v", kOut);
    REFUSES(AppXmlGetSonNodeValue_Str, bad, Names("ptParent szNodeName szText"), pt, "v", kOut);
    REFUSES(AppXmlGetSonNodeValue_Str_Copy, bad, Names("ptParent szNodeName szBuf"), pt, "v", kOut,
            8);
    REFUSES(AppXmlGetSonNodeValue_CData, bad, Names("ptParent szNodeName pszText"), pt, "v", kOut);
    const char *szS32 = "AppXmlGetSonNodeValue_s32", *szNames = "ptParent szNodeName pnValue";
    REFUSES(AppXmlGetSonNodeValue_s32, bad, Names(szNames), pt, "v", kOut);
    REFUSES(AppXmlGetSonNodeValue_u8, bad, Last(2, "pbyValue NULL", Names(szNames, szS32)), pt, "v",
            kOut);
    REFUSES(AppXmlGetSonNodeValue_u16, bad, Last(2, "pwValue NULL", Names(szNames, szS32)), pt, "v",
            kOut);
    REFUSES(AppXmlGetSonNodeValue_u32, bad, Names("ptParent szNodeName pdwValue"), pt, "v", kOut);
    REFUSES(AppXmlGetSonNodeValue_u64, bad, Names("ptParent szNodeName pqwValue"), pt, "v", kOut);
    REFUSES(AppXmlGetSonNodeValue_Bool, bad,
            Names("ptParent szNodeName szText", "AppXmlGetSonNodeValue_Str"), pt, "v", kMay);
    REFUSES(AppXmlAddSonNode, bad, Names("ptFather szNodeName pptNewNode"), pt, "v", kOut);
    const Lines text = Names("ptFather szNodeName szValue", "AppXmlAddSonNode_Str");
    REFUSES(AppXmlAddSonNode_Str, bad, text, pt, "v", "1", kMay);
    REFUSES(AppXmlAddSonNode_s32, bad, text, pt, "v", 1, kMay);
    REFUSES(AppXmlAddSonNode_u32, bad, text, pt, "v", 1, kMay);
    REFUSES(AppXmlAddSonNode_u64, bad, text, pt, "v", 1, kMay);
    REFUSES(AppXmlAddSonNode_Double, bad, text, pt, "v", 1, kMay);
    REFUSES(AppXmlAddSonNode_Bool, bad, text, pt, "v", 1, kMay);
    REFUSES(AppXmlAddSonNode_CDATA, bad,
            Last(3, "pptElem NULL", Names("ptFather szNodeName szData")), pt, "v", "1", kOut);
    REFUSES(AppXmlSetAttr_s32, bad, Names("ptNode szAttrName"), pt, "v", 1);
    REFUSES(AppXmlSetAttr_u32, bad, Names("ptNode szAttrName"), pt, "v", 1);
    mxmlDelete(pt);

    // What takes null for a value, or looks at no pointer.
    s_covered +=
        "AppLog AppLogFile AppSnprintf AppSscanf AppMem* AppStr* AppConvertStrto* "
        "AppRunShareAction "
        "AppShareActionShow AppRegCommand AppHostWalkCommands QorPrintf QorRegCommand Ipc* "
        "AppFindS32StrPair_* AppConvEnum2Str AppConvStr2Enum AppSocketCreate AppXmlMxmlParseCB";
    std::set<std::string> names;
    for (const auto &[name, parameters] : test::Exported())
        if (parameters.find('*') != std::string::npos || parameters.find("(H") != std::string::npos)
            names.insert(name);
    EXPECT_EQ(test::Unlisted(names, s_covered), "");
}

} // namespace
