// SPDX-License-Identifier: MIT
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "cross_linux/cross_linux.h"
#include "cross_linux/mutex_guard.h"

TAppFileLogInfo g_atAppFileLogInfo[256];

namespace
{

// One mutex per channel: a line is written, and the file rotated, by one thread at a time.
struct TChannelMutex {
    pthread_mutex_t tMutex = PTHREAD_MUTEX_INITIALIZER;
};
TChannelMutex s_atMutex[256];

constexpr uint32_t kStampSize = 32;

// The stamp of the present second, made once and reused by every channel.
pthread_mutex_t s_tStampMutex = PTHREAD_MUTEX_INITIALIZER;
time_t s_nStampTime = -1;
char s_achStamp[kStampSize];

void CopyStamp(char (&achStamp)[kStampSize])
{
    const time_t nNow = time(nullptr);
    app::MutexGuard guard(s_tStampMutex);
    if (nNow != s_nStampTime) {
        struct tm tLocal = {};
        tzset(); // localtime_r need not look at TZ again; a changed zone shows within a second
        localtime_r(&nNow, &tLocal);
        if (strftime(s_achStamp, kStampSize, "%Y/%m/%d %H:%M:%S ", &tLocal) == 0)
            s_achStamp[0] = '\0';
        s_nStampTime = nNow;
    }
    memcpy(achStamp, s_achStamp, kStampSize);
}

// Opened close-on-exec (a camera starts other programs) and unbuffered, so that a line is one
// system call and the count is what reached the disk.
FILE *OpenStream(const char *szPath, const char *szMode)
{
    FILE *ptFile = fopen(szPath, szMode);
    if (ptFile)
        setvbuf(ptFile, nullptr, _IONBF, 0);
    return ptFile;
}

void CloseStream(TAppFileLogInfo &tInfo)
{
    if (FILE *ptFile = tInfo.ptFile.exchange(nullptr))
        fclose(ptFile);
}

// Closes the old stream first, so that it works with the last free descriptor too, and yet leaves
// no moment without one: a writer that sees none, without the mutex, drops its line.
FILE *ReplaceStream(TAppFileLogInfo &tInfo, const char *szPath, const char *szMode)
{
    if (FILE *ptOld = tInfo.ptFile.load())
        fclose(ptOld);
    FILE *ptFile = OpenStream(szPath, szMode);
    tInfo.ptFile.store(ptFile);
    return ptFile;
}

// "[stamp] text" in one system call, with no copy of the text.
void WriteLine(TAppFileLogInfo &tInfo, FILE *ptFile, const char *szText)
{
    char achStamp[kStampSize];
    CopyStamp(achStamp);
    char achHead[kStampSize + 4];
    const int nHead = snprintf(achHead, sizeof(achHead), "[%s] ", achStamp);
    const struct iovec atPiece[] = {{achHead, static_cast<size_t>(nHead)},
                                    {const_cast<char *>(szText), strlen(szText)}};
    const size_t nLine = atPiece[0].iov_len + atPiece[1].iov_len;
    ssize_t nWritten;
    do {
        nWritten = writev(fileno(ptFile), atPiece, 2);
    } while (nWritten < 0 && errno == EINTR);
    if (nWritten <= 0)
        return;
    if (static_cast<size_t>(nWritten) < nLine) {
        // The disk is full in the middle of the line: take the piece back, so that the next line
        // that fits does not continue a torn one.
        const off_t nEnd = lseek(fileno(ptFile), 0, SEEK_END);
        if (nEnd >= nWritten && ftruncate(fileno(ptFile), nEnd - nWritten) == 0) {
            lseek(fileno(ptFile), 0, SEEK_END);
            return;
        }
    }
    tInfo.dwCurSize += static_cast<uint32_t>(nWritten);
}

// The full file becomes the one backup, replacing the older backup in the same step.
void Rotate(TAppFileLogInfo &tInfo)
{
    char achBackup[APP_FILE_LOG_PATH_SIZE + 1]; // the longest path and the digit
    AppSnprintf(achBackup, sizeof(achBackup), "%s%d", tInfo.achFilePath, 1);
    tInfo.dwCurSize = 0;
    rename(tInfo.achFilePath, achBackup);
    ReplaceStream(tInfo, tInfo.achFilePath, "wbe");
}

} // namespace

uint32_t _AppFileLogOpen(uint8_t byChannel, const char *szPath, uint32_t dwMaxSize,
                         uint32_t *pdwCurSize)
{
    app::MutexGuard guard(s_atMutex[byChannel].tMutex);
    TAppFileLogInfo &tInfo = g_atAppFileLogInfo[byChannel];
    AppStrncpy(tInfo.achFilePath, szPath, sizeof(tInfo.achFilePath));
    tInfo.dwCurSize = 0;
    tInfo.dwMaxSize = dwMaxSize;
    FILE *ptFile = ReplaceStream(tInfo, szPath, "ab+e");
    if (!ptFile)
        return 0;
    fseek(ptFile, 0, SEEK_END);
    const long nSize = ftell(ptFile);
    tInfo.dwCurSize = nSize > 0 ? static_cast<uint32_t>(nSize) : 0;
    *pdwCurSize = tInfo.dwCurSize;
    return 1;
}

void _AppFileLogClose(uint8_t byChannel)
{
    app::MutexGuard guard(s_atMutex[byChannel].tMutex);
    TAppFileLogInfo &tInfo = g_atAppFileLogInfo[byChannel];
    CloseStream(tInfo);
    tInfo.dwCurSize = 0;
    tInfo.dwMaxSize = 0;
}

void _AppFileLog(uint8_t byChannel, const char *szText)
{
    app::MutexGuard guard(s_atMutex[byChannel].tMutex);
    TAppFileLogInfo &tInfo = g_atAppFileLogInfo[byChannel];
    FILE *ptFile = tInfo.ptFile.load();
    if (!ptFile)
        return; // closed, or its rotation failed, since the caller looked
    WriteLine(tInfo, ptFile, szText);
    if (tInfo.dwCurSize > tInfo.dwMaxSize)
        Rotate(tInfo);
}
