// SPDX-License-Identifier: MIT
//
// A line ends in the file whole or not at all, and no line is lost without a word: what happened is
// noted while the channel's mutex is held and told after it, for the console may log itself.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "base/field.h"
#include "base/print.h"
#include "cross_linux/cross_linux.h"
#include "cross_linux/error_text.h"
#include "cross_linux/mutex_guard.h"

TAppFileLogInfo g_atAppFileLogInfo[256];

namespace
{

constexpr uint32_t kHeadSize = 32;

// What a channel has beside its record; all of it under the mutex, so that a line is written, and
// the file rotated, by one thread at a time.  Initialised when the library is built: written when it
// is loaded, the table would cost every process four pages.  The counters of all the channel's files
// are read without it: a disk may hang.
struct TChannel {
    pthread_mutex_t tMutex = PTHREAD_MUTEX_INITIALIZER;
    time_t nSecond = 0;           // for which the head was made and the path was looked at
    char achHead[kHeadSize] = {}; // "[stamp] "
    int nGone = 0;          // why a file that has vanished could not be opened anew; 0: it is there
    uint32_t dwLost = 0;    // lines lost since the last one that was written
    uint32_t dwTorn = 0;    // bytes of a torn line at the end of the file, still to be taken back
    bool bNoBackup = false; // a refused rename has been told, and none has succeeded since
    uint32_t dwFile = 0;    // what file it is; 0: none
    uint32_t dwPath = 0;    // its path's hash
    uint32_t dwLines = 0;   // written
    uint32_t dwBytes = 0;   // written
    uint32_t dwLostAll = 0; // lines lost
    uint32_t dwRotations = 0;
    uint32_t dwLastError = 0; // errno of the last failure
};
alignas(64) TChannel s_atChannel[256]; // two lines of the cache for each

// What one line brought about: error numbers, 0 for nothing to tell.
struct TNews {
    int nLost;
    uint32_t dwRecovered; // lines lost before this one, which is written
    int nNoBackup;
    int nStopped;
};

// tzset, for localtime_r need not look at TZ again: a changed zone shows within a second.
void MakeHead(char (&achHead)[kHeadSize], time_t nNow)
{
    struct tm tLocal = {};
    tzset();
    localtime_r(&nNow, &tLocal);
    if (strftime(achHead, kHeadSize, "[%Y/%m/%d %H:%M:%S ] ", &tLocal) == 0)
        achHead[0] = '\0';
}

uint32_t Saturated(uint64_t qwSize)
{
    return qwSize < UINT32_MAX ? static_cast<uint32_t>(qwSize) : UINT32_MAX;
}

// A number that two files hardly share.
uint32_t NumberOf(const struct stat &tFile)
{
    return static_cast<uint32_t>(tFile.st_ino) * 31 + static_cast<uint32_t>(tFile.st_dev) + 1;
}

// Where the program has closed its standard input, output or error, the next file opened gets that
// number, and whatever is printed would end in the log.
FILE *AboveStandard(FILE *ptFile, const char *szMode)
{
    if (!ptFile || fileno(ptFile) > STDERR_FILENO)
        return ptFile;
    const int nFd = fcntl(fileno(ptFile), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    fclose(ptFile);
    FILE *ptAbove = nFd >= 0 ? fdopen(nFd, szMode) : nullptr;
    if (!ptAbove && nFd >= 0)
        close(nFd);
    return ptAbove;
}

// Opened close-on-exec (a camera starts other programs) and unbuffered, so that a line is one
// system call and the count is what reached the disk.  Appending whatever the mode: another program
// may empty the file.
FILE *OpenStream(const char *szPath, const char *szMode)
{
    FILE *ptFile = AboveStandard(fopen(szPath, szMode), szMode);
    if (ptFile) {
        setvbuf(ptFile, nullptr, _IONBF, 0);
        fcntl(fileno(ptFile), F_SETFL, O_APPEND);
    }
    return ptFile;
}

// Notes a failure, and gives its number back.
int Noted(TChannel &tChannel, int nError)
{
    app::SetCounter(tChannel.dwLastError, static_cast<uint32_t>(nError));
    return nError;
}

void CloseStream(TAppFileLogInfo &tInfo)
{
    if (FILE *ptFile = tInfo.ptFile.exchange(nullptr))
        fclose(ptFile);
}

// What was to be said about the old stream is over.
FILE *Adopt(TAppFileLogInfo &tInfo, TChannel &tChannel, FILE *ptFile)
{
    struct stat tFile;
    const bool bKnown = ptFile && fstat(fileno(ptFile), &tFile) == 0;
    tInfo.ptFile.store(ptFile);
    app::SetCounter(tInfo.dwCurSize, bKnown ? Saturated(static_cast<uint64_t>(tFile.st_size)) : 0);
    app::SetCounter(tChannel.dwFile, bKnown ? NumberOf(tFile) : 0);
    tChannel.nGone = 0;
    tChannel.dwTorn = 0;
    return ptFile;
}

// Closes the old stream first, so that it works with the last free descriptor too, and yet leaves
// no moment without one: a writer that sees none, without the mutex, drops its line.
FILE *ReplaceStream(TAppFileLogInfo &tInfo, TChannel &tChannel, const char *szMode)
{
    if (FILE *ptOld = tInfo.ptFile.load())
        fclose(ptOld);
    FILE *ptFile = OpenStream(tInfo.achFilePath, szMode);
    if (!ptFile)
        Noted(tChannel, errno);
    return Adopt(tInfo, tChannel, ptFile);
}

[[gnu::noinline]] bool AreSame(const struct stat &tFile, const struct stat &tOther)
{
    return tFile.st_ino == tOther.st_ino && tFile.st_dev == tOther.st_dev;
}

// Whether the path leads to the open file no longer, which may have no path at all.
[[gnu::noinline]] bool IsMoved(const TAppFileLogInfo &tInfo, bool *pbDeleted)
{
    struct stat tFile, tPath;
    if (fstat(fileno(tInfo.ptFile.load()), &tFile) != 0)
        return false;
    *pbDeleted = tFile.st_nlink == 0;
    return stat(tInfo.achFilePath, &tPath) != 0 || !AreSame(tFile, tPath);
}

// A file that was deleted or moved away is opened anew.  Where that fails, one moved away is written
// on, and of one deleted the lines are lost until it succeeds.
void LookAtPath(TAppFileLogInfo &tInfo, TChannel &tChannel)
{
    FILE *ptOld = tInfo.ptFile.load();
    bool bDeleted;
    if (!IsMoved(tInfo, &bDeleted))
        return;
    if (FILE *ptFile = OpenStream(tInfo.achFilePath, "ab+e")) {
        Adopt(tInfo, tChannel, ptFile);
        fclose(ptOld);
    } else if (bDeleted) {
        tChannel.nGone = errno;
    }
}

// Takes back the piece of a line for which alone the disk had room.
void CutTorn(TChannel &tChannel, int nFd)
{
    if (tChannel.dwTorn == 0)
        return;
    const off_t nEnd = lseek(nFd, 0, SEEK_END);
    if (nEnd >= static_cast<off_t>(tChannel.dwTorn) &&
        ftruncate(nFd, nEnd - static_cast<off_t>(tChannel.dwTorn)) == 0)
        tChannel.dwTorn = 0;
}

// In one system call.  It takes longer over several pieces than a copy of a short line takes.
constexpr size_t kPieces = 3;
constexpr size_t kShortLine = 512;
ssize_t WritePieces(int nFd, const struct iovec (&atPiece)[kPieces], size_t nLine)
{
    if (nLine > kShortLine)
        return writev(nFd, atPiece, kPieces);
    char achLine[kShortLine];
    char *szEnd = achLine;
    for (const struct iovec &tPiece : atPiece) {
        AppMemcpy(szEnd, tPiece.iov_base, static_cast<uint32_t>(tPiece.iov_len));
        szEnd += tPiece.iov_len;
    }
    return write(nFd, achLine, nLine);
}

// "[stamp] text".  A torn piece that the system does not let us take back gets an end of its own.
// Returns 0, or why the line is lost.  Out of line, like what rotates: their buffers add up otherwise.
[[gnu::noinline]] int WriteLine(TAppFileLogInfo &tInfo, TChannel &tChannel, const char *szText)
{
    const time_t nNow = time(nullptr);
    if (nNow != tChannel.nSecond) {
        tChannel.nSecond = nNow;
        MakeHead(tChannel.achHead, nNow);
        LookAtPath(tInfo, tChannel);
    }
    if (tChannel.nGone != 0)
        return tChannel.nGone;
    const int nFd = fileno(tInfo.ptFile.load());
    CutTorn(tChannel, nFd);
    char achEnd[] = "\n";
    const struct iovec atPiece[kPieces] = {{achEnd, tChannel.dwTorn > 0 ? 1u : 0u},
                                           {tChannel.achHead, strlen(tChannel.achHead)},
                                           {const_cast<char *>(szText), strlen(szText)}};
    const size_t nLine = atPiece[0].iov_len + atPiece[1].iov_len + atPiece[2].iov_len;
    ssize_t nWritten;
    do {
        nWritten = WritePieces(nFd, atPiece, nLine);
    } while (nWritten < 0 && errno == EINTR);
    if (nWritten < 0)
        return errno;
    if (static_cast<size_t>(nWritten) < nLine) {
        tChannel.dwTorn += static_cast<uint32_t>(nWritten);
        CutTorn(tChannel, nFd);
        return ENOSPC;
    }
    app::SetCounter(tInfo.dwCurSize,
                    Saturated(uint64_t{tInfo.dwCurSize} + tChannel.dwTorn + nLine));
    tChannel.dwTorn = 0;
    app::CountOne(tChannel.dwLines);
    app::SetCounter(tChannel.dwBytes, tChannel.dwBytes + static_cast<uint32_t>(nLine));
    return 0;
}

// Whether a path leads to the file of a channel of another path.  (Of the same path, it is a backup of
// that channel's too.)
bool IsOfOther(const TChannel &tChannel, const char *szPath)
{
    struct stat tFile;
    if (stat(szPath, &tFile) != 0)
        return false;
    for (const TChannel &tOther : s_atChannel)
        if (app::PeekCounter(tOther.dwFile) == NumberOf(tFile) &&
            app::PeekCounter(tOther.dwPath) != tChannel.dwPath)
            return true;
    return false;
}

// The full file becomes the one backup, replacing the older backup in the same step.  0, or why not.
[[gnu::noinline]] int MakeBackup(const TAppFileLogInfo &tInfo, const TChannel &tChannel)
{
    char achBackup[APP_FILE_LOG_PATH_SIZE + 1]; // the longest path and the digit
    AppSnprintf(achBackup, sizeof(achBackup), "%s%d", tInfo.achFilePath, 1);
    if (IsOfOther(tChannel, achBackup))
        return EEXIST;
    return rename(tInfo.achFilePath, achBackup) == 0 ? 0 : errno;
}

// Without a backup the file starts anew all the same: its limit is a promise.  But one that another
// channel of the same path has rotated by now has begun anew already.
void Rotate(TAppFileLogInfo &tInfo, TChannel &tChannel, TNews &tNews)
{
    bool bDeleted;
    const bool bMoved = IsMoved(tInfo, &bDeleted);
    if (!bMoved) {
        const int nError = MakeBackup(tInfo, tChannel);
        if (nError != 0)
            Noted(tChannel, nError);
        if (!tChannel.bNoBackup)
            tNews.nNoBackup = nError;
        tChannel.bNoBackup = nError != 0;
        app::CountOne(tChannel.dwRotations);
    }
    if (!ReplaceStream(tInfo, tChannel, bMoved ? "ab+e" : "wbe"))
        tNews.nStopped = errno;
}

// The first line lost and the first one written again are news.
void Count(TChannel &tChannel, int nError, TNews &tNews)
{
    if (nError == 0) {
        tNews.dwRecovered = tChannel.dwLost;
        tChannel.dwLost = 0;
    } else {
        Noted(tChannel, nError);
        tNews.nLost = tChannel.dwLost == 0 ? nError : 0;
        tChannel.dwLost = Saturated(uint64_t{tChannel.dwLost} + 1);
        app::CountOne(tChannel.dwLostAll);
    }
}

void Tell(uint8_t byChannel, const TNews &tNews, const char *szOp)
{
    if (tNews.nLost != 0)
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: channel %d: lines are lost from here on, %s\n", szOp,
               byChannel, app::ErrorText(tNews.nLost).Text());
    if (tNews.dwRecovered != 0)
        AppLog(0, APP_LOG_INFO, "[INFO ] %s: channel %d: written again, %lu lines were lost\n",
               szOp, byChannel, app::Ul(tNews.dwRecovered));
    if (tNews.nNoBackup != 0)
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: channel %d: starts anew without a backup, %s\n", szOp,
               byChannel, app::ErrorText(tNews.nNoBackup).Text());
    if (tNews.nStopped != 0)
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: channel %d: no file until it is set again, %s\n",
               szOp, byChannel, app::ErrorText(tNews.nStopped).Text());
}

} // namespace

uint32_t _AppStdoutIsStderr(void)
{
    struct stat tOut, tErr;
    return fstat(STDOUT_FILENO, &tOut) == 0 && fstat(STDERR_FILENO, &tErr) == 0 &&
           AreSame(tOut, tErr);
}

uint32_t _AppFileLogOpen(uint8_t byChannel, const char *szPath, uint32_t dwMaxSize,
                         uint32_t *pdwCurSize)
{
    TChannel &tChannel = s_atChannel[byChannel];
    app::MutexGuard guard(tChannel.tMutex);
    TAppFileLogInfo &tInfo = g_atAppFileLogInfo[byChannel];
    AppStrncpy(tInfo.achFilePath, szPath, sizeof(tInfo.achFilePath));
    app::SetCounter(tInfo.dwMaxSize, dwMaxSize);
    app::SetCounter(tChannel.dwPath, AppStringHash(szPath));
    tChannel.nSecond = 0;
    tChannel.bNoBackup = 0;
    if (!ReplaceStream(tInfo, tChannel, "ab+e"))
        return 0;
    *pdwCurSize = tInfo.dwCurSize;
    return 1;
}

void _AppFileLogClose(uint8_t byChannel)
{
    app::MutexGuard guard(s_atChannel[byChannel].tMutex);
    TAppFileLogInfo &tInfo = g_atAppFileLogInfo[byChannel];
    CloseStream(tInfo);
    app::SetCounter(s_atChannel[byChannel].dwFile, 0);
    app::SetCounter(tInfo.dwCurSize, 0);
    app::SetCounter(tInfo.dwMaxSize, 0);
}

void _AppFileLog(uint8_t byChannel, const char *szText)
{
    TNews tNews = {};
    TChannel &tChannel = s_atChannel[byChannel];
    app::MutexGuard guard(tChannel.tMutex);
    TAppFileLogInfo &tInfo = g_atAppFileLogInfo[byChannel];
    if (!tInfo.ptFile.load())
        return; // closed, or its rotation failed, since the caller looked
    Count(tChannel, WriteLine(tInfo, tChannel, szText), tNews);
    if (tInfo.dwCurSize > tInfo.dwMaxSize && tChannel.nGone == 0)
        Rotate(tInfo, tChannel, tNews);
    guard.Unlock();
    Tell(byChannel, tNews, __func__);
}

void _AppFileLogGetStats(uint8_t byChannel, TAppLogStats *ptStats)
{
    const TAppFileLogInfo &tInfo = g_atAppFileLogInfo[byChannel];
    const TChannel &tChannel = s_atChannel[byChannel];
    ptStats->bFile = tInfo.ptFile.load() ? 1 : 0;
    ptStats->dwFileSize = app::PeekCounter(tInfo.dwCurSize);
    ptStats->dwFileLimit = app::PeekCounter(tInfo.dwMaxSize);
    ptStats->dwFileLines = app::PeekCounter(tChannel.dwLines);
    ptStats->dwFileBytes = app::PeekCounter(tChannel.dwBytes);
    ptStats->dwLost = app::PeekCounter(tChannel.dwLostAll);
    ptStats->dwRotations = app::PeekCounter(tChannel.dwRotations);
    ptStats->nLastError = static_cast<int32_t>(app::PeekCounter(tChannel.dwLastError));
}
