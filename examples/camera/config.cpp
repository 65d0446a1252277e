// SPDX-License-Identifier: MIT
//
// The settings: read from camera.xml at the start, changed by the action "config.set", and written
// back by this module's task.
#include "config.h"
#include "text.h"

#include <initializer_list>

namespace camera
{

namespace
{

constexpr uint32_t kFileSize = 65536;
constexpr uint32_t kRetryMs = 10000; // until a save that failed is tried again

void Work(TModule *ptModule, EWork eWork, void *pvArg);

TModule s_tModule = {"config", Work};
HAppLock s_hLock; // guards s_tConfig once tasks run
TConfig s_tConfig;
std::atomic<uint32_t> s_dwVersion; // of s_tConfig
std::atomic<bool> s_bUnsaved;      // s_tConfig says what the file does not
char s_achFile[kPathSize];

// ---- The file -----------------------------------------------------------------------------------

bool LoadFile()
{
    uint32_t dwLength = 0;
    auto szText = static_cast<char *>(AppMemPoolMalloc(nullptr, kFileSize));
    const bool bRead = szText && FileRead(s_achFile, szText, kFileSize, &dwLength) &&
                       ConfigRead(&s_tConfig, s_achFile, szText, dwLength);
    AppMemPoolFree(szText);
    return bRead;
}

// False when the assumed names will not do either: the configuration has one of them.
bool KeepFilesApart()
{
    char achClash[kClashSize];
    if (!FilesClash(s_achFile, &s_tConfig, achClash, sizeof(achClash)))
        return true;
    for (const char *szPath : {"log/file", "log/alarmfile"})
        SettingAssume(&s_tConfig, SettingFind(szPath));
    AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s, assumed {%s} and {%s}\n", achClash,
           s_tConfig.achLogFile, s_tConfig.achAlarmFile);
    if (!FilesClash(s_achFile, &s_tConfig, achClash, sizeof(achClash)))
        return true;
    AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s\n", achClash);
    return false;
}

bool Save()
{
    char achText[kConfigSize];
    const TConfig tConfig = ConfigGet();
    const uint32_t dwLength = ConfigWrite(&tConfig, achText, sizeof(achText));
    if (dwLength == 0) {
        AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s could not be written: no memory\n", s_achFile);
        return false;
    }
    if (!FileReplace(s_achFile, achText, dwLength)) // it has told why
        return false;
    AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s written\n", s_achFile);
    return true;
}

// Whatever it is called for: what is not saved yet is saved now.
void Work(TModule *ptModule, EWork eWork, void *)
{
    if (!s_bUnsaved.exchange(false) || Save())
        return;
    s_bUnsaved = true;
    if (eWork != kStop)
        ModuleBeat(ptModule, kRetryMs);
}

// ---- Changing -----------------------------------------------------------------------------------

void PrintSettings()
{
    const TConfig tConfig = ConfigGet();
    char achNumber[kNumberSize];
    for (uint32_t i = 0; const TSetting *ptSetting = SettingAt(i); ++i)
        Print("%-18s %s\n", ptSetting->szPath, SettingText(&tConfig, ptSetting, achNumber));
}

// Why a value is refused; null when it has been taken.
const char *Change(TConfig *ptConfig, const TSetting *ptSetting, const char *szValue,
                   char (&achClash)[kClashSize])
{
    if (!SettingTake(ptConfig, ptSetting, szValue))
        return "not a value of this setting";
    if (ptSetting->eEffect == kLogs && FilesClash(s_achFile, ptConfig, achClash, sizeof(achClash)))
        return achClash;
    // Clients compare versions: 0 is none.
    if (ptSetting->eEffect == kTold && ++ptConfig->dwMetadata == 0)
        ptConfig->dwMetadata = 1;
    return nullptr;
}

void Publish(const TConfig &tConfig, const TSetting *ptSetting)
{
    AppLockTakeByTime(s_hLock, 0);
    s_tConfig = tConfig;
    s_dwVersion = ++s_tConfig.dwVersion;
    AppLockGive(s_hLock);
    if (ptSetting->eEffect == kLogs)
        LogFilesOpen(tConfig);
    s_bUnsaved = true; // before this module is told like any other
    ModulesTellSettings();
}

// Action "config.set": the shell's text is "KEY VALUE"; nothing prints every setting.  It runs in
// the shell's task, the only one that changes settings.
uint32_t SetAction(uint32_t, uint32_t, uint32_t)
{
    uint32_t dwLen = 0;
    char achKey[32], achClash[kClashSize];
    const char *szRest = ShellText();
    const char *szKey = NextWord(&szRest, &dwLen);
    if (!szKey) {
        PrintSettings();
        return APP_OK;
    }
    AppStrncpy(achKey, szKey, dwLen < sizeof(achKey) ? dwLen + 1 : sizeof(achKey));
    const TSetting *ptSetting = SettingFind(achKey);
    if (!ptSetting || ptSetting->eEffect == kFixed) {
        Print(ptSetting ? "%s is fixed\n" : "no setting %s; \"set\" alone lists them\n", achKey);
        return APP_NOT_FOUND;
    }
    TConfig tConfig = ConfigGet();
    const char *szWhy = Change(&tConfig, ptSetting, *szRest ? szRest + 1 : szRest, achClash);
    if (szWhy) {
        Print("%s: %s\n", achKey, szWhy);
        return APP_BAD_VALUE;
    }
    Publish(tConfig, ptSetting);
    if (ptSetting->eEffect == kAtStart)
        Print("%s acts at the next start\n", achKey);
    return APP_OK;
}

} // namespace

bool ConfigLoad(const char *szFile)
{
    if (!FileNameFits(szFile))
        return false;
    AppStrncpy(s_achFile, szFile, sizeof(s_achFile));
    return LoadFile() && KeepFilesApart() &&
           AppLockCreate(g_hPool, 1, 1, APP_LOCK_TYPE_SEM, &s_hLock) == APP_OK;
}

// What is to be saved is saved by the module's first beat.
bool ConfigStart()
{
    if (!s_tConfig.achUuid[0]) {
        // A camera without identity gets one for life.
        MakeUuid(s_tConfig.achUuid);
        s_bUnsaved = true;
    }
    s_dwVersion = s_tConfig.dwVersion = 1;
    return ModuleStart(&s_tModule) && AppRegisterShareAction("config.set", SetAction) == APP_OK;
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

void ConfigRefresh(TConfig *ptConfig)
{
    if (ptConfig->dwVersion != s_dwVersion)
        *ptConfig = ConfigGet();
}

} // namespace camera
