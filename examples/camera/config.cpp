// SPDX-License-Identifier: MIT
//
// The settings: read from camera.xml at the start, changed by the action "config.set", and written
// back by this module's task.
#include "camera.h"
#include "text.h"

#include <stdlib.h>

namespace camera
{

namespace
{

constexpr uint32_t kAny = UINT32_MAX;
constexpr uint32_t kFileSize = 65536;

// One setting.  Texts have dwMax as the size of their field; dwMin 1 asks for a text that is not
// empty.
struct TSetting {
    const char *szPath; // element of camera.xml, and KEY of "set"
    bool bText;
    size_t dwOffset;
    uint32_t dwMin;
    uint32_t dwMax;
    const char *szAssumed; // when the element is missing or wrong
};

#define TEXT(szPath, field, dwMin, szAssumed)                                                      \
    {                                                                                              \
        szPath, true, offsetof(TConfig, field), dwMin, sizeof(TConfig::field), szAssumed           \
    }
#define NUMBER(szPath, field, dwMin, dwMax, szAssumed)                                             \
    {                                                                                              \
        szPath, false, offsetof(TConfig, field), dwMin, dwMax, szAssumed                           \
    }

constexpr TSetting s_atSetting[] = {
    TEXT("name", achName, 1, "camera"),
    TEXT("hardware", achHardware, 1, "unknown"),
    TEXT("uuid", achUuid, 0, ""),
    NUMBER("metadata", dwMetadata, 1, kAny, "1"),
    NUMBER("service", dwService, 1, 65535, "80"),
    TEXT("log/file", achLogFile, 1, "camera.log"),
    NUMBER("log/limit", dwLogLimit, 1024, kAny, "262144"),
    TEXT("log/alarmfile", achAlarmFile, 1, "alarm.log"),
    NUMBER("log/alarmlimit", dwAlarmLimit, 1024, kAny, "65536"),
    NUMBER("motion/interval", dwInterval, 10, 3600000, "3000"),
    NUMBER("motion/threshold", dwThreshold, 0, 100, "60"),
    NUMBER("motion/alarm", dwAlarm, 0, 100, "90"),
    TEXT("receiver/address", achReceiver, 0, ""),
    NUMBER("receiver/port", dwReceiverPort, 1, 65535, "9100"),
    NUMBER("receiver/queue", dwQueue, 4, 4096, "32"),
    NUMBER("idle/receiver", dwReceiverIdle, 100, 3600000, "30000"),
    NUMBER("idle/task", dwTaskIdle, 10, 3600000, "60000"),
    NUMBER("report", dwReport, 100, 3600000, "60000"),
};
constexpr uint32_t kSettings = sizeof(s_atSetting) / sizeof(s_atSetting[0]);

void Work(TModule *ptModule, EWork eWork, void *pvArg);

TModule s_tModule = {"config", Work};
HAppLock s_hLock; // guards s_tConfig once tasks run
TConfig s_tConfig;
char s_achFile[128];

void *FieldOf(TConfig *ptConfig, const TSetting &setting)
{
    return reinterpret_cast<char *>(ptConfig) + setting.dwOffset;
}

// Puts a text into the setting's field when it is a value of the setting.
bool TakeValue(TConfig *ptConfig, const TSetting &setting, const char *szValue)
{
    void *pvField = FieldOf(ptConfig, setting);
    if (!setting.bText)
        return ParseNumber(szValue, setting.dwMin, setting.dwMax, static_cast<uint32_t *>(pvField));
    TAppNetAddr tAddr;
    const uint32_t dwLen = AppStrlen(szValue);
    if (dwLen < setting.dwMin || dwLen >= setting.dwMax || HasControlChars(szValue))
        return false;
    if (pvField == ptConfig->achReceiver && dwLen > 0 &&
        (AppConvertStrtoNet(szValue, &tAddr) != APP_OK || tAddr.dwType != APP_NET_ADDR_IPV4))
        return false;
    if (pvField == ptConfig->achUuid && dwLen > 0 && !IsUuid(szValue))
        return false;
    AppStrncpy(static_cast<char *>(pvField), szValue, setting.dwMax);
    return true;
}

// ---- Reading
// -------------------------------------------------------------------------------------

void ReportXmlError(const char *szText)
{
    char achText[200];
    AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s\n", EscapeForLog(szText, achText, sizeof(achText)));
}

// Reads a file of at most kFileSize bytes; a longer one is cut, and thereby broken.  False, and
// told, when it cannot be read.
bool ReadFile(const char *szFile, char *szText, uint32_t *pdwLength)
{
    FILE *ptFile = fopen(szFile, "re");
    if (!ptFile) {
        AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s cannot be opened\n", szFile);
        return false;
    }
    *pdwLength = static_cast<uint32_t>(fread(szText, 1, kFileSize, ptFile));
    const bool bRead = !ferror(ptFile);
    fclose(ptFile);
    if (!bRead)
        AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s cannot be read\n", szFile);
    return bRead;
}

mxml_node_t *LoadTree(const char *szFile)
{
    uint32_t dwLength = 0;
    mxml_node_t *ptTree = nullptr;
    auto szText = static_cast<char *>(AppMemPoolMalloc(nullptr, kFileSize));
    mxmlSetErrorCallback(ReportXmlError);
    if (szText && ReadFile(szFile, szText, &dwLength) &&
        AppXmlLoad(szText, dwLength, &ptTree) != APP_OK)
        AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s is not well-formed XML\n", szFile);
    AppMemPoolFree(szText);
    return ptTree;
}

// A wrong uuid ends the start: with another one the camera would be a stranger to its clients.
bool ReadSetting(mxml_node_t *ptRoot, const TSetting &setting)
{
    const char *szValue = nullptr;
    const bool bThere = AppXmlGetSonNodeValue_Str(ptRoot, setting.szPath, &szValue) == APP_OK;
    if (bThere && TakeValue(&s_tConfig, setting, szValue))
        return true;
    char achValue[100];
    const char *szFault =
        bThere ? EscapeForLog(szValue, achValue, sizeof(achValue)) : "no such element";
    if (bThere && setting.dwOffset == offsetof(TConfig, achUuid)) {
        AppLog(g_byLog, APP_LOG_ALWAYS, "config: <%s> is wrong {%s}\n", setting.szPath, szFault);
        return false;
    }
    TakeValue(&s_tConfig, setting, setting.szAssumed);
    AppLog(g_byLog, APP_LOG_ALWAYS, "config: <%s> is %s {%s}, assumed {%s}\n", setting.szPath,
           bThere ? "wrong" : "missing", szFault, setting.szAssumed);
    return true;
}

bool ReadTree(mxml_node_t *ptTree)
{
    mxml_node_t *ptRoot = AppStrcmp(mxmlGetElement(ptTree), "camera") == 0
                              ? ptTree
                              : AppXmlGetFirstChildWithName(ptTree, "camera");
    if (!ptRoot) {
        AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s has no element <camera>\n", s_achFile);
        return false;
    }
    for (const TSetting &setting : s_atSetting)
        if (!ReadSetting(ptRoot, setting))
            return false;
    return true;
}

// ---- Writing
// -------------------------------------------------------------------------------------

// A path has one '/' at most: the part before it is an element that may be there already.
bool WriteSetting(mxml_node_t *ptRoot, TConfig *ptConfig, const TSetting &setting)
{
    const char *szSlash = AppStrchr(setting.szPath, '/');
    mxml_node_t *ptParent = ptRoot;
    if (szSlash) {
        char achGroup[32];
        AppStrncpy(achGroup, setting.szPath,
                   static_cast<uint32_t>(szSlash - setting.szPath) + 1); // cut before the slash
        ptParent = AppXmlGetFirstChildWithName(ptRoot, achGroup);
        if (!ptParent && AppXmlAddSonNode(ptRoot, achGroup, &ptParent) != APP_OK)
            return false;
    }
    const char *szName = szSlash ? szSlash + 1 : setting.szPath;
    const void *pvField = FieldOf(ptConfig, setting);
    const uint32_t dwResult =
        setting.bText
            ? AppXmlAddSonNode_Str(ptParent, szName, static_cast<const char *>(pvField), nullptr)
            : AppXmlAddSonNode_u32(ptParent, szName, *static_cast<const uint32_t *>(pvField),
                                   nullptr);
    return dwResult == APP_OK;
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

bool SaveTree(mxml_node_t *ptTree)
{
    char achNew[sizeof(s_achFile) + 4];
    AppSnprintf(achNew, sizeof(achNew), "%s.new", s_achFile);
    FILE *ptFile = fopen(achNew, "we");
    if (!ptFile)
        return false;
    mxmlSetWrapMargin(0);
    bool bWritten = mxmlSaveFile(ptTree, ptFile, Indent) == 0;
    bWritten = fclose(ptFile) == 0 && bWritten;
    // The old file stays whole until the new one is.
    return bWritten && rename(achNew, s_achFile) == 0;
}

void Save()
{
    TConfig tConfig = ConfigGet();
    mxml_node_t *ptTree = mxmlNewXML("1.0");
    mxml_node_t *ptRoot = nullptr;
    bool bDone = ptTree && AppXmlAddSonNode(ptTree, "camera", &ptRoot) == APP_OK;
    for (uint32_t i = 0; bDone && i < kSettings; ++i)
        bDone = WriteSetting(ptRoot, &tConfig, s_atSetting[i]);
    bDone = bDone && SaveTree(ptTree);
    mxmlDelete(ptTree);
    AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s %s\n", s_achFile,
           bDone ? "written" : "could not be written");
}

// ---- Changing
// ------------------------------------------------------------------------------------

void PrintSettings()
{
    TConfig tConfig = ConfigGet();
    for (const TSetting &setting : s_atSetting) {
        const void *pvField = FieldOf(&tConfig, setting);
        if (setting.bText)
            Print("%-18s %s\n", setting.szPath, static_cast<const char *>(pvField));
        else
            Print("%-18s %lu\n", setting.szPath,
                  static_cast<unsigned long>(*static_cast<const uint32_t *>(pvField)));
    }
}

const TSetting *FindSetting(const char *szPath)
{
    for (const TSetting &setting : s_atSetting)
        if (AppStrcmp(szPath, setting.szPath) == 0)
            return &setting;
    return nullptr;
}

// Identity and version are not for people to change.
bool IsFixed(const TSetting &setting)
{
    return setting.dwOffset == offsetof(TConfig, achUuid) ||
           setting.dwOffset == offsetof(TConfig, dwMetadata);
}

// Action "config.set": the shell's text is "KEY VALUE"; nothing prints every setting.
uint32_t SetAction(uint32_t, uint32_t, uint32_t)
{
    uint32_t dwLen = 0;
    char achKey[32];
    const char *szRest = ShellText();
    const char *szKey = NextWord(&szRest, &dwLen);
    if (!szKey) {
        PrintSettings();
        return APP_OK;
    }
    AppStrncpy(achKey, szKey, dwLen < sizeof(achKey) ? dwLen + 1 : sizeof(achKey));
    const TSetting *ptSetting = FindSetting(achKey);
    if (!ptSetting || IsFixed(*ptSetting)) {
        Print(ptSetting ? "%s is fixed\n" : "no setting %s; \"set\" alone lists them\n", achKey);
        return APP_NOT_FOUND;
    }
    const bool bTold = ptSetting->dwOffset <= offsetof(TConfig, achHardware);
    AppLockTakeByTime(s_hLock, 0);
    const bool bTaken = TakeValue(&s_tConfig, *ptSetting, *szRest ? szRest + 1 : szRest);
    s_tConfig.dwMetadata += bTaken && bTold;
    AppLockGive(s_hLock);
    if (!bTaken) {
        Print("%s: not a value of this setting\n", achKey);
        return APP_BAD_VALUE;
    }
    if (bTold)
        DiscoveryAnnounce();
    return AppTaskSendEvent(s_tModule.hTask, nullptr, nullptr, nullptr);
}

// Any event means: write the file.  One that is left at the end is not forgotten.
void Work(TModule *, EWork eWork, void *)
{
    if (eWork == kEvent || eWork == kDropped)
        Save();
}

} // namespace

bool ConfigLoad(const char *szFile)
{
    AppStrncpy(s_achFile, szFile, sizeof(s_achFile));
    mxml_node_t *ptTree = LoadTree(szFile);
    if (!ptTree)
        return false;
    const bool bRead = ReadTree(ptTree);
    mxmlDelete(ptTree);
    return bRead && AppLockCreate(g_hPool, 1, 1, APP_LOCK_TYPE_SEM, &s_hLock) == APP_OK;
}

bool ConfigStart()
{
    if (!ModuleStart(&s_tModule) || AppRegisterShareAction("config.set", SetAction) != APP_OK)
        return false;
    if (s_tConfig.achUuid[0])
        return true;
    // A camera without identity gets one for life.
    MakeUuid(s_tConfig.achUuid);
    return AppTaskSendEvent(s_tModule.hTask, nullptr, nullptr, nullptr) == APP_OK;
}

void ConfigStop()
{
    ModuleStop(&s_tModule);
    AppLockDestroy(s_hLock);
    s_hLock = nullptr;
}

TConfig ConfigGet()
{
    AppLockTakeByTime(s_hLock, 0); // before the start there is no lock, and no one to wait for
    const TConfig tConfig = s_tConfig;
    AppLockGive(s_hLock);
    return tConfig;
}

} // namespace camera
