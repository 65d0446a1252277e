// SPDX-License-Identifier: MIT
//
// What there is to set, and the text of camera.xml: pure functions, but for the lines they log.
#include "config.h"
#include "document.h"
#include "text.h"

#include <string.h>

namespace camera
{

namespace
{

constexpr uint32_t kAny = UINT32_MAX;

#define TEXT(szPath, field, eEffect, dwMin, szAssumed)                                             \
    {                                                                                              \
        szPath, eEffect, true, offsetof(TConfig, field), dwMin, sizeof(TConfig::field), szAssumed  \
    }
#define NUMBER(szPath, field, eEffect, dwMin, dwMax, szAssumed)                                    \
    {                                                                                              \
        szPath, eEffect, false, offsetof(TConfig, field), dwMin, dwMax, szAssumed                  \
    }

constexpr TSetting s_atSetting[] = {
    TEXT("name", achName, kTold, 1, "camera"),
    TEXT("hardware", achHardware, kTold, 1, "unknown"),
    TEXT("uuid", achUuid, kFixed, 0, ""),
    NUMBER("metadata", dwMetadata, kFixed, 1, kAny, "1"),
    NUMBER("service", dwService, kTold, 1, 65535, "80"),
    TEXT("log/file", achLogFile, kLogs, 1, "camera.log"),
    NUMBER("log/limit", dwLogLimit, kLogs, 1024, kAny, "262144"),
    TEXT("log/alarmfile", achAlarmFile, kLogs, 1, "alarm.log"),
    NUMBER("log/alarmlimit", dwAlarmLimit, kLogs, 1024, kAny, "65536"),
    NUMBER("motion/interval", dwInterval, kNone, 10, 3600000, "3000"),
    NUMBER("motion/threshold", dwThreshold, kNone, 0, 100, "60"),
    NUMBER("motion/alarm", dwAlarm, kNone, 0, 100, "90"),
    TEXT("receiver/address", achReceiver, kNone, 0, ""),
    NUMBER("receiver/port", dwReceiverPort, kNone, 1, 65535, "9100"),
    NUMBER("receiver/queue", dwQueue, kAtStart, 4, kMostNotices, "32"),
    NUMBER("idle/receiver", dwReceiverIdle, kNone, 100, 3600000, "30000"),
    NUMBER("idle/task", dwTaskIdle, kAtStart, 10, 3600000, "60000"),
    NUMBER("report", dwReport, kNone, 100, 3600000, "60000"),
    NUMBER("discovery/answers", dwAnswers, kNone, 1, 1000, "50"),
    NUMBER("discovery/source", dwSourceAnswers, kNone, 1, 1000, "10"),
    NUMBER("discovery/remote", bRemote, kNone, 0, 1, "0"),
};
constexpr uint32_t kSettingCount = sizeof(s_atSetting) / sizeof(s_atSetting[0]);

// The library logs what is no address as it is: what cannot be one does not come so far.
bool IsIpv4(const char *szText)
{
    TAppNetAddr tAddr;
    return strspn(szText, "0123456789.") == AppStrlen(szText) &&
           AppConvertStrtoNet(szText, &tAddr) == APP_OK && tAddr.dwType == APP_NET_ADDR_IPV4;
}

bool IsField(const TSetting *ptSetting, size_t dwOffset)
{
    return ptSetting->dwOffset == dwOffset;
}

// ---- Where in the text --------------------------------------------------------------------------

struct TSource {
    const char *szName;
    const char *szText;
    uint32_t dwLength;
};

unsigned long LineAt(const TSource &source, uint32_t dwAt)
{
    unsigned long dwLine = 1;
    for (uint32_t i = 0; i < dwAt; ++i)
        dwLine += source.szText[i] == '\n';
    return dwLine;
}

bool IsAt(const TSource &source, uint32_t dwAt, const char *szWord)
{
    const uint32_t dwLen = AppStrlen(szWord);
    return dwAt + dwLen <= source.dwLength && AppStrncmp(source.szText + dwAt, szWord, dwLen) == 0;
}

// Behind the next szEnd, or the end.
uint32_t SkipTo(const TSource &source, uint32_t dwAt, const char *szEnd)
{
    const uint32_t dwLen = AppStrlen(szEnd);
    const void *pvEnd = memmem(source.szText + dwAt, source.dwLength - dwAt, szEnd, dwLen);
    return pvEnd ? static_cast<uint32_t>(static_cast<const char *>(pvEnd) - source.szText) + dwLen
                 : source.dwLength;
}

// Behind what begins with the '<' at dwAt.
uint32_t SkipTag(const TSource &source, uint32_t dwAt)
{
    static constexpr const char *aaszKind[][2] = {
        {"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}, {"<!", ">"}, {"</", ">"}};
    for (const auto &aszKind : aaszKind)
        if (IsAt(source, dwAt, aszKind[0]))
            return SkipTo(source, dwAt + AppStrlen(aszKind[0]), aszKind[1]);
    while (dwAt < source.dwLength && source.szText[dwAt] != '>') {
        const char achQuote[] = {source.szText[dwAt++], '\0'};
        if (achQuote[0] == '"' || achQuote[0] == '\'')
            dwAt = SkipTo(source, dwAt, achQuote);
    }
    return dwAt;
}

// The line of an element.  Mini-XML does not keep it, so the elements that begin before it are
// counted in the tree and again in the text.
unsigned long LineOf(const TSource &source, mxml_node_t *ptTree, mxml_node_t *ptElement)
{
    uint32_t dwBefore = 0, dwAt = 0;
    for (mxml_node_t *pt = ptTree; pt != ptElement; pt = DocumentNext(ptTree, pt)) {
        const char *szName = mxmlGetElement(pt);
        dwBefore += szName && szName[0] != '!' && szName[0] != '?';
    }
    while (dwAt + 1 < source.dwLength) {
        const bool bTag = source.szText[dwAt] == '<';
        if (bTag && !AppStrchr("!?/", source.szText[dwAt + 1]) && dwBefore-- == 0)
            break;
        dwAt = bTag ? SkipTag(source, dwAt) : dwAt + 1;
    }
    return LineAt(source, dwAt);
}

// ---- Reading ------------------------------------------------------------------------------------

void ReportXmlError(const char *szText)
{
    char achText[200];
    AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s\n", EscapeForLog(szText, achText, sizeof(achText)));
}

// For a text that AppXmlLoad() has refused: the reason may be a character.
void TellBadChar(const TSource &source)
{
    uint32_t dwAt = 0, dwChar = 0;
    while (dwAt < source.dwLength) {
        const uint32_t dwLen = ReadChar(source.szText + dwAt, source.dwLength - dwAt, &dwChar);
        if (dwLen == 0 || (dwChar < ' ' && (dwChar == 0 || !IsBlank(static_cast<char>(dwChar))))) {
            AppLog(g_byLog, APP_LOG_ALWAYS, "config: line %lu: no character of XML {\\x%02x}\n",
                   LineAt(source, dwAt), static_cast<unsigned>(source.szText[dwAt]) & 0xFF);
            return;
        }
        dwAt += dwLen;
    }
}

mxml_node_t *LoadTree(const TSource &source)
{
    if (mxml_node_t *ptTree = DocumentLoad(source.szText, source.dwLength, ReportXmlError))
        return ptTree;
    TellBadChar(source);
    AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s is not well-formed XML\n", source.szName);
    return nullptr;
}

// The part of a path before its slash, empty without one; returns the part behind.
const char *SplitPath(const char *szPath, char (&achGroup)[32])
{
    const char *szSlash = AppStrchr(szPath, '/');
    achGroup[0] = '\0';
    if (!szSlash)
        return szPath;
    AppStrncpy(achGroup, szPath, static_cast<uint32_t>(szSlash - szPath) + 1); // cut before it
    return szSlash + 1;
}

mxml_node_t *FindElement(mxml_node_t *ptRoot, const char *szPath)
{
    char achGroup[32];
    const char *szName = SplitPath(szPath, achGroup);
    if (achGroup[0])
        ptRoot = AppXmlGetFirstChildWithName(ptRoot, achGroup);
    return ptRoot ? AppXmlGetFirstChildWithName(ptRoot, szName) : nullptr;
}

// A document being read: what it says goes into the settings.
struct TReading {
    TConfig *ptConfig;
    TSource tSource;
    mxml_node_t *ptTree;
    mxml_node_t *ptRoot; // <camera>
};

// A wrong uuid ends the start: with another one the camera would be a stranger to its clients.
bool TellWrong(const TReading &reading, const TSetting *ptSetting, const char *szValue)
{
    char achValue[100];
    const unsigned long dwLine =
        LineOf(reading.tSource, reading.ptTree, FindElement(reading.ptRoot, ptSetting->szPath));
    EscapeForLog(szValue, achValue, sizeof(achValue));
    if (IsField(ptSetting, offsetof(TConfig, achUuid))) {
        AppLog(g_byLog, APP_LOG_ALWAYS, "config: line %lu: <%s> is wrong {%s}\n", dwLine,
               ptSetting->szPath, achValue);
        return false;
    }
    AppLog(g_byLog, APP_LOG_ALWAYS, "config: line %lu: <%s> is wrong {%s}, assumed {%s}\n", dwLine,
           ptSetting->szPath, achValue, ptSetting->szAssumed);
    return true;
}

bool ReadSetting(const TReading &reading, const TSetting *ptSetting)
{
    const char *szValue = nullptr;
    if (AppXmlGetSonNodeValue_Str(reading.ptRoot, ptSetting->szPath, &szValue) == APP_OK) {
        if (SettingTake(reading.ptConfig, ptSetting, szValue))
            return true;
        SettingAssume(reading.ptConfig, ptSetting);
        return TellWrong(reading, ptSetting, szValue);
    }
    SettingAssume(reading.ptConfig, ptSetting);
    AppLog(g_byLog, APP_LOG_ALWAYS, "config: <%s> is missing {no such element}, assumed {%s}\n",
           ptSetting->szPath, ptSetting->szAssumed);
    return true;
}

bool ReadTree(TReading &reading)
{
    reading.ptRoot = AppStrcmp(mxmlGetElement(reading.ptTree), "camera") == 0
                         ? reading.ptTree
                         : AppXmlGetFirstChildWithName(reading.ptTree, "camera");
    if (!reading.ptRoot) {
        AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s has no element <camera>\n",
               reading.tSource.szName);
        return false;
    }
    for (const TSetting &setting : s_atSetting)
        if (!ReadSetting(reading, &setting))
            return false;
    return true;
}

// ---- Writing ------------------------------------------------------------------------------------

bool WriteSetting(mxml_node_t *ptRoot, const TConfig *ptConfig, const TSetting *ptSetting)
{
    char achGroup[32], achNumber[kNumberSize];
    const char *szName = SplitPath(ptSetting->szPath, achGroup);
    mxml_node_t *ptParent = ptRoot;
    if (achGroup[0]) {
        ptParent = AppXmlGetFirstChildWithName(ptRoot, achGroup); // there already, or now
        if (!ptParent && AppXmlAddSonNode(ptRoot, achGroup, &ptParent) != APP_OK)
            return false;
    }
    return AppXmlAddSonNode_Str(ptParent, szName, SettingText(ptConfig, ptSetting, achNumber),
                                nullptr) == APP_OK;
}

// Mini-XML asks what to put around a tag: a line break and blanks by depth, but none around values.
const char *Indent(mxml_node_t *ptNode, int nWhere)
{
    static const char *const aszIndent[] = {nullptr, "\n", "\n  ", "\n    "};
    const bool bGroup = mxmlGetElement(mxmlGetFirstChild(ptNode));
    if (nWhere != MXML_WS_BEFORE_OPEN && !(nWhere == MXML_WS_BEFORE_CLOSE && bGroup))
        return nullptr;
    uint32_t dwDepth = 0; // the declaration is the root
    while ((ptNode = mxmlGetParent(ptNode)))
        ++dwDepth;
    return aszIndent[dwDepth < 4 ? dwDepth : 3];
}

} // namespace

const TSetting *SettingAt(uint32_t dwIndex)
{
    return dwIndex < kSettingCount ? &s_atSetting[dwIndex] : nullptr;
}

const TSetting *SettingFind(const char *szPath)
{
    for (const TSetting &setting : s_atSetting)
        if (AppStrcmp(szPath, setting.szPath) == 0)
            return &setting;
    return nullptr;
}

const char *SettingText(const TConfig *ptConfig, const TSetting *ptSetting,
                        char (&achNumber)[kNumberSize])
{
    const void *pvField = reinterpret_cast<const char *>(ptConfig) + ptSetting->dwOffset;
    if (ptSetting->bText)
        return static_cast<const char *>(pvField);
    AppSnprintf(achNumber, sizeof(achNumber), "%lu",
                static_cast<unsigned long>(*static_cast<const uint32_t *>(pvField)));
    return achNumber;
}

bool SettingTake(TConfig *ptConfig, const TSetting *ptSetting, const char *szValue)
{
    void *pvField = reinterpret_cast<char *>(ptConfig) + ptSetting->dwOffset;
    if (!ptSetting->bText)
        return ParseNumber(szValue, ptSetting->dwMin, ptSetting->dwMax,
                           static_cast<uint32_t *>(pvField));
    const uint32_t dwLen = AppStrlen(szValue);
    if (dwLen < ptSetting->dwMin || dwLen >= ptSetting->dwMax || !IsPlainText(szValue))
        return false;
    if (IsField(ptSetting, offsetof(TConfig, achReceiver)) && dwLen > 0 && !IsIpv4(szValue))
        return false;
    if (IsField(ptSetting, offsetof(TConfig, achUuid)) && dwLen > 0 && !IsUuid(szValue))
        return false;
    AppStrncpy(static_cast<char *>(pvField), szValue, ptSetting->dwMax);
    return true;
}

void SettingAssume(TConfig *ptConfig, const TSetting *ptSetting)
{
    SettingTake(ptConfig, ptSetting, ptSetting->szAssumed);
}

bool ConfigRead(TConfig *ptConfig, const char *szName, const char *szText, uint32_t dwLength)
{
    TReading tReading = {ptConfig, {szName, szText, dwLength}, nullptr, nullptr};
    tReading.ptTree = LoadTree(tReading.tSource);
    const bool bRead = tReading.ptTree && ReadTree(tReading);
    mxmlDelete(tReading.ptTree);
    return bRead;
}

uint32_t ConfigWrite(const TConfig *ptConfig, char *szBuf, uint32_t dwSize)
{
    mxml_node_t *ptTree = DocumentNew(), *ptRoot = nullptr;
    bool bDone = ptTree && AppXmlAddSonNode(ptTree, "camera", &ptRoot) == APP_OK;
    for (uint32_t i = 0; bDone && i < kSettingCount; ++i)
        bDone = WriteSetting(ptRoot, ptConfig, &s_atSetting[i]);
    const uint32_t dwLength = bDone ? DocumentSave(ptTree, szBuf, dwSize, Indent) : 0;
    mxmlDelete(ptTree);
    return dwLength;
}

} // namespace camera
