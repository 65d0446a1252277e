// SPDX-License-Identifier: MIT
//
// What the camera prints, on its way to whoever reads it, or does not:
//
//   Print(), printf() ──> standard output, a pipe ──> relay ──> standard output as it was given to us
//   lines of the log ───> another pipe ─────────────> relay ──> standard error
//
// A terminal that is held, or a pipe that nobody empties, must not stop a module, let alone the end.
// The descriptors we were given cannot be told not to block: that belongs to the open file, which we
// share with the shell that started us.  So our writes go to pipes of our own, which do not block,
// and the relays, threads of nothing else, wait for the readers as long as they like.  When both
// descriptors are one file one pipe serves both, which keeps the order.
//
// Descriptor 1 becomes a pipe because the library too prints on standard output; 2 stays as it is:
// the last words of a process that dies must not depend on a thread.
//
// No lock is needed around a write: a pipe takes up to PIPE_BUF bytes whole or not at all, whoever
// else writes, and the counts are atomic.
#include "camera.h"
#include "guard.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace camera
{

namespace
{

constexpr uint32_t kTextSize = 1024;       // of a text that is formatted here
constexpr uint32_t kStackSize = 64 * 1024; // a thread's of StartThread()
constexpr uint32_t kPatienceMs = 500;      // with each relay, at the end

struct TStream {
    int nTo;                      // the descriptor that we were given
    int nFrom;                    // the relay's end of the pipe
    int nWrite;                   // ours
    std::atomic<uint32_t> dwLost; // lines that were lost, and not told yet
};

// Until ConsoleOpen() texts go straight to where they lead.
TStream s_tOut = {STDOUT_FILENO, -1, STDOUT_FILENO, {}};
TStream s_tErr = {STDERR_FILENO, -1, STDERR_FILENO, {}};
TStream *s_ptLog = &s_tErr;
int s_nNull = -1;    // leads nowhere
HAppLock s_hRelayed; // given by each relay at its end
std::atomic<uint32_t> s_dwLost, s_dwRepeated;

// ---- Writing ------------------------------------------------------------------------------------

void Lose(TStream *ptStream, const char *pchText, size_t nLen)
{
    uint32_t dwLines = nLen > 0 && pchText[nLen - 1] != '\n'; // the one that does not end
    for (size_t i = 0; i < nLen; ++i)
        dwLines += pchText[i] == '\n';
    ptStream->dwLost += dwLines;
    s_dwLost += dwLines;
}

bool WriteWhole(const TStream *ptStream, const iovec *ptParts, int nParts)
{
    ssize_t nWritten;
    do {
        nWritten = writev(ptStream->nWrite, ptParts, nParts);
    } while (nWritten < 0 && errno == EINTR);
    return nWritten >= 0;
}

// False while there is no room even for this.
bool TellLost(TStream *ptStream)
{
    const uint32_t dwLost = ptStream->dwLost.exchange(0);
    if (dwLost == 0)
        return true;
    char achText[64];
    const int32_t nLen = AppSnprintf(achText, sizeof(achText), "console: %lu lines lost\n",
                                     static_cast<unsigned long>(dwLost));
    const iovec tText = {achText, static_cast<size_t>(nLen)};
    const bool bTold = WriteWhole(ptStream, &tText, 1);
    ptStream->dwLost += bTold ? 0 : dwLost;
    return bTold;
}

// As much as is written at once: whole lines, or a part of one that is too long for that.
size_t PieceLength(const char *szText, size_t nLen)
{
    if (nLen <= PIPE_BUF)
        return nLen;
    size_t nPiece = PIPE_BUF;
    while (nPiece > 0 && szText[nPiece - 1] != '\n')
        --nPiece;
    return nPiece > 0 ? nPiece : PIPE_BUF - 1;
}

// False when something was lost.
bool WriteText(TStream *ptStream, const char *szText)
{
    bool bAll = true;
    size_t nPiece = 0;
    for (size_t nLeft = AppStrlen(szText); nLeft > 0; nLeft -= nPiece, szText += nPiece) {
        nPiece = PieceLength(szText, nLeft);
        // The parts of a line are lines, so that none is ever torn.
        char chEnd = '\n';
        const bool bPart = nPiece < nLeft && szText[nPiece - 1] != chEnd;
        const iovec atPart[] = {{const_cast<char *>(szText), nPiece}, {&chEnd, bPart}};
        if (!TellLost(ptStream) || !WriteWhole(ptStream, atPart, 2)) {
            Lose(ptStream, szText, nPiece);
            bAll = false;
        }
    }
    return bAll;
}

// A text that is cut still ends its line.
void Format(char (&achText)[kTextSize], const char *szFormat, va_list args) APP_PRINTF(2, 0);
void Format(char (&achText)[kTextSize], const char *szFormat, va_list args)
{
    const int nLen = vsnprintf(achText, kTextSize, szFormat, args);
    if (nLen < 0)
        achText[0] = '\0';
    else if (static_cast<uint32_t>(nLen) >= kTextSize)
        achText[kTextSize - 2] = '\n';
}

// ---- Errors that repeat -------------------------------------------------------------------------

// What the network makes the library say must not bury the rest.
constexpr char kError[] = "[ERROR] ";
constexpr uint32_t kRepeatMs = 60 * 1000;

struct TRepeat {
    char achLine[256]; // without its end; empty for none
    uint32_t dwTick;   // when it was printed
    uint32_t dwTimes;  // it has come again since then
};
TRepeat s_atRepeat[16];
TMutex s_tRepeatMutex;

// Takes what is to be told of an entry; false, and an empty text, for nothing.
bool TakeTimes(TRepeat *ptRepeat, char (&achText)[kTextSize])
{
    achText[0] = '\0';
    if (ptRepeat->dwTimes == 0)
        return false;
    AppSnprintf(achText, kTextSize, "%s (%lu times more)\n", ptRepeat->achLine,
                static_cast<unsigned long>(ptRepeat->dwTimes));
    ptRepeat->dwTimes = 0;
    return true;
}

// Under the mutex: a free entry, or that which was printed longest ago.
TRepeat *FindRoom(uint32_t dwTick)
{
    TRepeat *ptOldest = &s_atRepeat[0];
    for (TRepeat &repeat : s_atRepeat) {
        if (!repeat.achLine[0])
            return &repeat;
        if (AppTickDiff(repeat.dwTick, dwTick) > AppTickDiff(ptOldest->dwTick, dwTick))
            ptOldest = &repeat;
    }
    return ptOldest;
}

// Whether a line has been printed within the last minute, and need not be again.  If not it is
// remembered, and achTold tells of the one that makes room for it.
bool IsRepeated(const char *szText, char (&achTold)[kTextSize])
{
    achTold[0] = '\0';
    const uint32_t dwLen = AppStrlen(szText);
    if (AppStrncmp(szText, kError, sizeof(kError) - 1) != 0 || szText[dwLen - 1] != '\n' ||
        dwLen > sizeof(TRepeat::achLine))
        return false;
    char achLine[sizeof(TRepeat::achLine)];
    AppStrncpy(achLine, szText, dwLen);
    const Guard guard(s_tRepeatMutex);
    for (TRepeat &repeat : s_atRepeat) {
        if (AppStrcmp(repeat.achLine, achLine) == 0) {
            ++repeat.dwTimes;
            ++s_dwRepeated;
            return true;
        }
    }
    const uint32_t dwTick = AppGetTick();
    TRepeat *ptRoom = FindRoom(dwTick);
    TakeTimes(ptRoom, achTold);
    AppStrncpy(ptRoom->achLine, achLine, sizeof(achLine));
    ptRoom->dwTick = dwTick;
    return false;
}

// Makes the next line that tells how often one has come.  Telling it is printing it: with that its
// next minute begins, so that a flood of it makes one line a minute.
bool TakeRepeats(bool bNow, char (&achText)[kTextSize])
{
    const Guard guard(s_tRepeatMutex);
    const uint32_t dwTick = AppGetTick();
    for (TRepeat &repeat : s_atRepeat) {
        const bool bOver = AppConvertTickToMS(AppTickDiff(repeat.dwTick, dwTick)) >= kRepeatMs;
        if (!repeat.achLine[0] || !(bOver || bNow))
            continue;
        if (TakeTimes(&repeat, achText)) {
            repeat.dwTick = dwTick;
            return true;
        }
        repeat.achLine[0] = '\0';
    }
    return false;
}

void TellRepeats(bool bNow)
{
    char achText[kTextSize];
    while (TakeRepeats(bNow, achText))
        WriteText(s_ptLog, achText);
}

bool WriteLogText(const char *szText)
{
    char achTold[kTextSize];
    TellRepeats(false);
    const bool bRepeated = IsRepeated(szText, achTold);
    WriteText(s_ptLog, achTold);
    return bRepeated || WriteText(s_ptLog, szText);
}

// ---- The relays ---------------------------------------------------------------------------------

// A reader that is gone, or a full disk, is no reason to let the pipe fill.
void Forward(TStream *ptStream, const char *pchText, size_t nLeft)
{
    while (nLeft > 0) {
        const ssize_t nWritten = write(ptStream->nTo, pchText, nLeft);
        if (nWritten > 0) {
            pchText += nWritten;
            nLeft -= static_cast<size_t>(nWritten);
        } else if (nWritten < 0 && errno == EAGAIN) { // another process has told it not to block
            pollfd tPoll = {ptStream->nTo, POLLOUT, 0};
            poll(&tPoll, 1, -1);
        } else if (nWritten == 0 || errno != EINTR) {
            Lose(ptStream, pchText, nLeft);
            return;
        }
    }
}

void *Relay(void *pvStream)
{
    auto ptStream = static_cast<TStream *>(pvStream);
    char achText[PIPE_BUF];
    ssize_t nRead;
    while ((nRead = read(ptStream->nFrom, achText, sizeof(achText))) != 0) {
        if (nRead > 0)
            Forward(ptStream, achText, static_cast<size_t>(nRead));
        else if (errno != EINTR)
            break;
    }
    AppLockGive(s_hRelayed);
    return nullptr;
}

bool OpenStream(TStream *ptStream)
{
    int anEnd[2];
    if (pipe2(anEnd, O_CLOEXEC) != 0)
        return false;
    fcntl(anEnd[1], F_SETFL, O_NONBLOCK);
    ptStream->nFrom = anEnd[0];
    ptStream->nWrite = anEnd[1];
    return StartThread(Relay, ptStream);
}

bool AreSameFile(int nOne, int nOther)
{
    struct stat tOne, tOther;
    return fstat(nOne, &tOne) == 0 && fstat(nOther, &tOther) == 0 && tOne.st_dev == tOther.st_dev &&
           tOne.st_ino == tOther.st_ino;
}

// Afterwards the relay finds the end of its pipe.  The number stays ours, so that who still prints
// does no harm.
void CloseStream(const TStream *ptStream)
{
    dup3(s_nNull, ptStream->nWrite, O_CLOEXEC);
}

} // namespace

bool StartThread(void *(*pfnRun)(void *), void *pvArg)
{
    pthread_t tThread;
    pthread_attr_t tAttr;
    sigset_t tAll, tBefore;
    sigfillset(&tAll);
    pthread_attr_init(&tAttr);
    pthread_attr_setstacksize(&tAttr, kStackSize);
    pthread_attr_setdetachstate(&tAttr, PTHREAD_CREATE_DETACHED);
    pthread_sigmask(SIG_SETMASK, &tAll, &tBefore);
    const bool bStarted = pthread_create(&tThread, &tAttr, pfnRun, pvArg) == 0;
    pthread_sigmask(SIG_SETMASK, &tBefore, nullptr);
    pthread_attr_destroy(&tAttr);
    return bStarted;
}

bool ConsoleOpen()
{
    // Of 0, 1 and 2 those that are closed are taken too: no pipe of ours may get their numbers.
    do {
        s_nNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (s_nNull >= 0 && s_nNull <= STDERR_FILENO);
    s_tOut.nTo = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (s_nNull < 0 || s_tOut.nTo < 0 ||
        AppLockCreate(nullptr, 2, 0, APP_LOCK_TYPE_SEM, &s_hRelayed) != APP_OK ||
        !OpenStream(&s_tOut))
        return false;
    if (AreSameFile(STDOUT_FILENO, STDERR_FILENO))
        s_ptLog = &s_tOut;
    else if (!OpenStream(&s_tErr))
        return false;
    // What the library prints there by stdio comes in its turn, as to a terminal.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return dup2(s_tOut.nWrite, STDOUT_FILENO) == STDOUT_FILENO;
}

void ConsoleClose()
{
    TellRepeats(true);
    TellLost(s_ptLog);
    TellLost(&s_tOut);
    dup2(s_nNull,
         STDOUT_FILENO); // and not what it was: stdio flushes it at the exit, and would wait
    CloseStream(&s_tOut);
    AppLockTakeByTime(s_hRelayed, kPatienceMs);
    if (s_ptLog != &s_tOut) {
        CloseStream(s_ptLog);
        AppLockTakeByTime(s_hRelayed, kPatienceMs);
    }
}

void Print(const char *szFormat, ...)
{
    char achText[kTextSize];
    va_list args;
    va_start(args, szFormat);
    Format(achText, szFormat, args);
    va_end(args);
    WriteText(&s_tOut, achText);
}

void PrintText(const char *szText)
{
    WriteText(&s_tOut, szText);
}

// By the alarm whoever reads it may stop just now: then the process ends without.
void ConsoleLastWords(const char *szText)
{
    pollfd tPoll = {STDERR_FILENO, POLLOUT, 0};
    alarm(kPatienceMs / 1000 + 1);
    if (poll(&tPoll, 1, kPatienceMs) > 0) {
        [[maybe_unused]] const ssize_t nWritten = write(STDERR_FILENO, szText, AppStrlen(szText));
    }
    alarm(0);
}

int32_t ConsoleStatus(char *szBuf, uint32_t dwSize)
{
    TellRepeats(false);
    return AppSnprintf(szBuf, dwSize, "console: lost %lu, repeated %lu\n",
                       static_cast<unsigned long>(s_dwLost),
                       static_cast<unsigned long>(s_dwRepeated));
}

} // namespace camera

// The log's console, in place of the library's own.
extern "C" int32_t QorPrintf(int32_t, int32_t, const char *szFormat, ...)
{
    const int nErrno = errno;
    char achText[camera::kTextSize];
    const char *szText = achText;
    va_list args;
    va_start(args, szFormat);
    if (AppStrcmp(szFormat, "%s") == 0) // of any length, as it is
        szText = va_arg(args, const char *);
    else
        camera::Format(achText, szFormat, args);
    va_end(args);
    const bool bWritten = camera::WriteLogText(szText ? szText : "(null)");
    errno = nErrno;
    return bWritten ? static_cast<int32_t>(AppStrlen(szText)) : -1;
}
