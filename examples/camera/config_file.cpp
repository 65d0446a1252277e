// SPDX-License-Identifier: MIT
//
// The configuration's file: whatever happens while it is written, the old one or the new one is
// there, whole.
#include "config.h"
#include "text.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace camera
{

namespace
{

constexpr char kNew[] = ".new";
constexpr char kBackup[] = "1"; // as AppSetFileLog() names it
constexpr uint32_t kNewSize = kPathSize + sizeof(kNew);

const char *NameIn(const char *szPath)
{
    const char *szSlash = strrchr(szPath, '/');
    return szSlash ? szSlash + 1 : szPath;
}

// The folder that a path's name is in; cut to dwSize, which no caller's path needs.
void CopyFolder(const char *szPath, char *szDst, uint32_t dwSize)
{
    const auto dwLen = static_cast<uint32_t>(NameIn(szPath) - szPath);
    AppStrncpy(szDst, dwLen > 0 ? szPath : "./", dwLen > 0 && dwLen < dwSize ? dwLen + 1 : dwSize);
}

// ---- Replacing a file ---------------------------------------------------------------------------

// Each step returns null, or its name when it failed; errno tells the cause.

const char *WriteAll(int nFd, const char *szText, uint32_t dwLength)
{
    while (dwLength > 0) {
        const ssize_t nWritten = write(nFd, szText, dwLength);
        if (nWritten < 0 && errno == EINTR)
            continue;
        if (nWritten <= 0)
            return "write";
        szText += nWritten;
        dwLength -= static_cast<uint32_t>(nWritten);
    }
    return nullptr;
}

const char *KeepMode(int nFd, const struct stat *ptOld)
{
    if (!ptOld)
        return nullptr;
    // Only root may give a file away, and not to everybody: else it is the writer's.
    [[maybe_unused]] const int nGiven = fchown(nFd, ptOld->st_uid, ptOld->st_gid);
    return fchmod(nFd, ptOld->st_mode & 07777) == 0 ? nullptr : "chmod";
}

const char *WriteNew(const char *szNew, const struct stat *ptOld, const char *szText,
                     uint32_t dwLength)
{
    unlink(szNew); // what a run that was cut off has left, or a link that somebody has laid
    // Until it has the old one's mode nobody else may read it.
    const int nFd =
        open(szNew, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, ptOld ? 0600 : 0644);
    if (nFd < 0)
        return "open";
    const char *szStep = WriteAll(nFd, szText, dwLength);
    if (!szStep)
        szStep = KeepMode(nFd, ptOld);
    if (!szStep && fsync(nFd) != 0)
        szStep = "fsync";
    const int nError = errno;
    if (close(nFd) != 0 && !szStep)
        return "close";
    errno = nError;
    return szStep;
}

// The name is the new file's for good only when the folder is on the disk too.
const char *SyncFolder(const char *szFile)
{
    char achFolder[kPathSize];
    CopyFolder(szFile, achFolder, sizeof(achFolder));
    const int nFd = open(achFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (nFd < 0)
        return "open the folder";
    const bool bDone = fsync(nFd) == 0 || errno == EINVAL; // a file system that has no such thing
    const int nError = errno;
    close(nFd);
    errno = nError;
    return bDone ? nullptr : "fsync of the folder";
}

// ---- Files that are one -------------------------------------------------------------------------

struct TPlace {
    struct stat tFolder, tFile;
    char achPath[kNewSize];
    bool bFolder, bFile; // they are there
};

void FindPlace(TPlace *ptPlace, const char *szPath, const char *szEnd)
{
    char achFolder[kPathSize];
    CopyFolder(szPath, achFolder, sizeof(achFolder));
    AppSnprintf(ptPlace->achPath, sizeof(ptPlace->achPath), "%s%s", szPath, szEnd);
    ptPlace->bFolder = stat(achFolder, &ptPlace->tFolder) == 0;
    ptPlace->bFile = stat(ptPlace->achPath, &ptPlace->tFile) == 0;
}

bool IsSame(const struct stat &tOne, const struct stat &tOther)
{
    return tOne.st_dev == tOther.st_dev && tOne.st_ino == tOther.st_ino;
}

// Two ways to a file that is there, or to a place where one would be made.
bool IsOne(const TPlace &tOne, const TPlace &tOther)
{
    if (tOne.bFile && tOther.bFile && IsSame(tOne.tFile, tOther.tFile))
        return true;
    if (tOne.bFolder && tOther.bFolder)
        return IsSame(tOne.tFolder, tOther.tFolder) &&
               AppStrcmp(NameIn(tOne.achPath), NameIn(tOther.achPath)) == 0;
    return AppStrcmp(tOne.achPath, tOther.achPath) == 0;
}

} // namespace

bool FileNameFits(const char *szFile)
{
    if (AppStrlen(szFile) < kPathSize && AppStrlen(NameIn(szFile)) + sizeof(kNew) - 1 <= NAME_MAX)
        return true;
    char achFile[100];
    AppLog(g_byLog, APP_LOG_ALWAYS,
           "config: the path of the configuration is too long, %lu characters at most, %lu without "
           "folders {%s}\n",
           static_cast<unsigned long>(kPathSize - 1),
           static_cast<unsigned long>(NAME_MAX + 1 - sizeof(kNew)),
           EscapeForLog(szFile, achFile, sizeof(achFile)));
    return false;
}

bool FileRead(const char *szFile, char *szText, uint32_t dwSize, uint32_t *pdwLength)
{
    FILE *ptFile = fopen(szFile, "re");
    if (!ptFile) {
        AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s cannot be opened\n", szFile);
        return false;
    }
    *pdwLength = static_cast<uint32_t>(fread(szText, 1, dwSize, ptFile));
    const bool bRead = !ferror(ptFile);
    fclose(ptFile);
    if (!bRead)
        AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s cannot be read\n", szFile);
    return bRead;
}

bool FileReplace(const char *szFile, const char *szText, uint32_t dwLength)
{
    char achNew[kNewSize];
    struct stat tOld;
    const bool bOld = lstat(szFile, &tOld) == 0 && S_ISREG(tOld.st_mode);
    AppSnprintf(achNew, sizeof(achNew), "%s%s", szFile, kNew);
    const char *szStep = WriteNew(achNew, bOld ? &tOld : nullptr, szText, dwLength);
    if (!szStep && rename(achNew, szFile) != 0)
        szStep = "rename";
    const int nError = errno;
    if (szStep)
        unlink(achNew);
    errno = nError;
    if (!szStep)
        szStep = SyncFolder(szFile);
    if (szStep)
        AppLog(g_byLog, APP_LOG_ALWAYS, "config: %s could not be written: %s: %s\n", szFile, szStep,
               strerror(errno));
    return !szStep;
}

bool FilesClash(const char *szFile, const TConfig *ptConfig, char *szBuf, uint32_t dwSize)
{
    TPlace atPlace[6];
    FindPlace(&atPlace[0], szFile, "");
    FindPlace(&atPlace[1], szFile, kNew);
    FindPlace(&atPlace[2], ptConfig->achLogFile, "");
    FindPlace(&atPlace[3], ptConfig->achLogFile, kBackup);
    FindPlace(&atPlace[4], ptConfig->achAlarmFile, "");
    FindPlace(&atPlace[5], ptConfig->achAlarmFile, kBackup);
    for (uint32_t i = 2; i < 6; ++i)
        for (uint32_t j = 0; j < i; ++j)
            if (IsOne(atPlace[i], atPlace[j])) {
                char achOne[100], achOther[100];
                AppSnprintf(szBuf, dwSize, "{%s} and {%s} are one file",
                            EscapeForLog(atPlace[j].achPath, achOne, sizeof(achOne)),
                            EscapeForLog(atPlace[i].achPath, achOther, sizeof(achOther)));
                return true;
            }
    return false;
}

} // namespace camera
