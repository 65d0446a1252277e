// SPDX-License-Identifier: MIT
//
// The platform layer: the only door to threads, clocks, sockets and addresses.  Nothing outside
// src/cross_linux includes a system header for these.  Null pointers are the fronts' business; what
// a twin checks itself is said at its declaration.
//
// A twin blocks only where that is said.  A failure is told by the result, never by errno, which is
// undefined after a call; "logged" is a line with the cause, "silent" none.
#ifndef APPCORE_CROSS_LINUX_CROSS_LINUX_H
#define APPCORE_CROSS_LINUX_CROSS_LINUX_H

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

#include <atomic>

#include "appcore/convert.h"
#include "appcore/mempool.h"
#include "appcore/platform.h"
#include "appcore/socket.h"
#include "appcore/stats.h"

extern "C" {

// ---- Text -----------------------------------------------------------------------------------

// vsnprintf whose every truncation and error is -1; a text that was cut is terminated.  With size 0
// nothing is written.
int32_t _AppVsnprintf(char *szBuf, uint32_t dwSize, const char *szFormat, va_list args)
    APP_PRINTF(3, 0);
// vsscanf: the items assigned, or EOF when the text ends before the first one.
int32_t _AppVsscanf(const char *szText, const char *szFormat, va_list args) APP_SCANF(2, 0);
// The C library's, whose alphabet is the process's locale.  Only the sign of the result counts.
int32_t _AppStrcasecmp(const char *szFirst, const char *szSecond);
int32_t _AppStrncasecmp(const char *szFirst, const char *szSecond, uint32_t dwCount);

// ---- Log files ------------------------------------------------------------------------------

#define APP_FILE_LOG_PATH_SIZE 128

// 1 when both are one file, pipe or terminal.
uint32_t _AppStdoutIsStderr(void);

// One channel's log file.  `ptFile` and the sizes are read without the channel's mutex, to see
// whether a file is open at all and for diagnostics; everything else is touched only under it.
struct TAppFileLogInfo {
    char achFilePath[APP_FILE_LOG_PATH_SIZE];
    uint32_t dwMaxSize; // bytes the file may reach before it is rotated
    uint32_t dwCurSize; // bytes in the current file
    std::atomic<FILE *> ptFile;
};

#if UINTPTR_MAX == UINT32_MAX
static_assert(sizeof(TAppFileLogInfo) == 140, "fixed layout");
#endif

extern TAppFileLogInfo g_atAppFileLogInfo[256];

// Opens `szPath` (at most 127 characters) for appending as the channel's file, closing the one it
// had, behind the channel's mutex.  Returns 1 when the file is open; `*pdwCurSize` then holds its
// present size.  0, silent: it could not be opened, and the channel has no file.
uint32_t _AppFileLogOpen(uint8_t byChannel, const char *szPath, uint32_t dwMaxSize,
                         uint32_t *pdwCurSize);
// Waits for a line that is being written.  Does nothing without a file.
void _AppFileLogClose(uint8_t byChannel);
// Writes one line, stamped with the local time of the wall clock, and rotates when the limit is
// passed.  Blocks behind the channel's mutex, under which others write, and as long as the disk
// does; a signal does not cut the line.  What goes wrong is logged on channel 0 once the mutex has
// been given.  Does nothing without a file.
void _AppFileLog(uint8_t byChannel, const char *szText);
// Fills in what tells of the files.  Without the mutex, so it never blocks.
void _AppFileLogGetStats(uint8_t byChannel, TAppLogStats *ptStats);

// ---- Locks ----------------------------------------------------------------------------------

// None logs.

// APP_INVALID_ARG, `*phLock` untouched, for a maximum of 0 or a recursive lock of more than 1.
// Counts are cut to 2^31 - 1.  APP_NO_RESOURCE without memory, APP_FAILED when the threading
// library refuses its objects.
uint32_t _AppLockCreate(HAppMemPool hMemPool, uint32_t dwMaxCount, uint32_t dwInitCount,
                        uint32_t dwType, HAppLock *phLock);
// Waits, by yields and then sleeps of 1 ms, for a give of another thread that still touches the
// record; for takers it does not wait.
void _AppLockDestroy(HAppLock hLock);
// Blocks until the time-out (0: none) on the monotonic clock.  Neither a signal nor a spurious
// wake-up ends the wait, and a unit that is there is taken even when the deadline has just passed.
// What a recursive lock refuses, a take beyond its depth of 32 bits, is APP_TIMEOUT too.
uint32_t _AppLockTakeByTime(HAppLock hLock, uint32_t dwTimeout);
// Does not wait but for the mutex of a semaphore on which takers sleep, held for moments.  At the
// ceiling the unit is absorbed.  APP_FAILED: nobody could be woken, and the unit is taken back.
// That a recursive lock is not the caller's goes unnoticed.
uint32_t _AppLockGive(HAppLock hLock);

// ---- The registry ---------------------------------------------------------------------------

// A mutex of the process, held for moments: see utils/registry.h.
void _AppRegistryLock(void);
void _AppRegistryUnlock(void);

// ---- Ticks, delays, threads -----------------------------------------------------------------

// The coarse monotonic clock in ticks of 10 ms, modulo 2^32; it stands still while the system is
// suspended, and is read without a system call.  Should the clock fail: the complement of errno.
uint32_t _AppGetTick(void);
// The same, noted as the tick that has been read last: for diagnostics on paths that have no time
// for the clock.  Written only when it has changed, so that its readers share the line; it may go
// back, to what a slower thread has read.
uint32_t _AppNoteTick(void);
extern std::atomic<uint32_t> g_dwAppRecentTick;
// Modulo 2^32.
uint32_t _AppConvertTickToMS(uint32_t dwTick);
#define APP_MS_PER_TICK 10u // for who does so in line
// Sleeps on the monotonic clock, never less than asked for; a signal does not cut it short.  0
// returns at once.
void _AppDelay(uint32_t dwMs);

typedef void *(*PFAppThreadEntry)(void *pvArg);

// Starts a detached thread of the ordinary scheduling class, or of the caller's where the system
// takes no other.  It may run, and end, before this returns.  A stack size that the threading
// library refuses, as it does below 16 KiB, leaves its default.  APP_FAILED: no thread; each try is
// logged.
uint32_t _AppThreadCreate(PFAppThreadEntry pfnEntry, uint32_t dwStackSize, void *pvArg);
// Does nothing: a thread ends by returning from its entry.
void _AppThreadExit(void);
// The kernel's number of the calling thread, asked for each time.
int32_t _AppThreadGetTID(void);
// Names the calling thread; the kernel keeps 15 characters.  Cannot fail.
void _AppThreadSetName(const char *szName);

// ---- Addresses and time ---------------------------------------------------------------------

// Numeric texts only, so nothing waits for a name server: IPv6 with a colon, else a dotted quad.
// APP_INVALID_ARG, silent, for a text with neither colon nor dot; APP_FAILED, logged, for any other
// that is none: the kind is set by then and the address is not.
uint32_t _AppConvertStrtoNet(const char *szIp, TAppNetAddr *ptAddr);
// APP_INVALID_ARG, silent, for an unknown kind; APP_FAILED, logged, for a buffer that is too small.
uint32_t _AppConvertNettoStr(const TAppNetAddr *ptAddr, char *szBuf, uint32_t dwBufSize);
// Between the host's byte order and the network's.
uint32_t _AppConvertHtonl(uint32_t dwValue);
uint32_t _AppConvertNtohl(uint32_t dwValue);
uint16_t _AppConvertHtons(uint16_t wValue);
uint16_t _AppConvertNtohs(uint16_t wValue);
// The signed seconds from 1970 to a UTC date; fields beyond their range carry over, milliseconds
// count nothing.  UINT32_MAX, also the second before 1970, when 32 bits do not hold them.
uint32_t _AppMktime32(const TAppTime *ptTime);
// The UTC date of signed seconds.  APP_FAILED where the C library refuses: not within 32 bits.
uint32_t _AppGmtime32(uint32_t dwTime, TAppTime *ptTime);

// ---- Sockets --------------------------------------------------------------------------------

// The waits are on the monotonic clock; time-out 0 waits without limit.  A signal does not end one:
// it goes on with the time that is left.

// Nothing to do on Linux.
void _AppSocetStartUp(void);
void _AppSocetClearUp(void);
// Null without memory, logged, and for an unknown kind, silent.  A descriptor that the system
// refuses, likewise silent, gives a socket whose every operation fails.
HAppSocket _AppSocketCreate(HAppMemPool hMemPool, uint32_t dwSockType);
// Takes null.  Does not wait for what is still to be sent, nor for other users.
void _AppSocketDestroy(HAppSocket hSocket);
// Asks the routing table, by connecting a UDP socket, which sends nothing.  APP_FAILED without a
// route: an ERROR line for IPv4, an INFO line for IPv6, none where there is no IPv6 at all.
// APP_INVALID_ARG, logged, for another kind of address.
uint32_t _AppSocketCalLocalAddr(const TAppNetAddr *ptRemoteAddr, TAppNetAddr *ptLocalAddr);
// APP_INVALID_ARG for null and APP_FAILED for an address that is not IPv4, both silent; APP_FAILED,
// logged, when the system refuses.  The port counts as the socket's own even then.
uint32_t _AppSocketBind(HAppSocket hSocket, const TAppNetAddr *ptLocalAddr, uint16_t wPort,
                        uint32_t bReuse);
// The data operations answer bytes, -1, or -2 for a time-out.  -1 is silent for null or a socket of
// the other kind and when the wait breaks off, else logged; -2 is silent.  With a time-out only the
// wait blocks, never the transfer, so that whoever finds another thread faster waits on.

// A datagram longer than the buffer is cut; an empty one counts as a failure with errno 0.  The
// local address is the one the datagram was sent to, the port that of the last bind.
int32_t _AppSocketUDPRecv(HAppSocket hSocket, void *pvBuf, uint32_t *pdwLen, uint32_t dwTimeout,
                          TAppNetAddr *ptLocalAddr, uint16_t *pwLocalPort,
                          TAppNetAddr *ptRemoteAddr, uint16_t *pwRemotePort);
// An empty datagram is sent and yet counts as a failure.
int32_t _AppSocketUDPSend(HAppSocket hSocket, const void *pvBuf, uint32_t dwLen, uint32_t dwTimeout,
                          const TAppNetAddr *ptRemoteAddr, uint16_t wPort);
// One transfer, which may take less than all.  A peer that is gone is -1; no SIGPIPE is raised.
int32_t _AppSocketTCPSend(HAppSocket hSocket, const void *pvBuf, uint32_t dwLen,
                          uint32_t dwTimeout);
// One transfer.  The peer's orderly end is -1, logged with errno 0.
int32_t _AppSocketTCPRecv(HAppSocket hSocket, void *pvBuf, uint32_t *pdwLen, uint32_t dwTimeout);
// APP_INVALID_ARG, silent, unless it is a UDP socket.  A group that it is a member of already is
// success.  An interface that the system refuses for sending is logged only; any other refusal is
// APP_FAILED, logged.
uint32_t _AppSocketUDPJoinMulticastGroup(HAppSocket hSocket, const TAppNetAddr *ptGroupAddr,
                                         const TAppNetAddr *ptIfAddr, uint32_t bLoop);
// Blocks until the time-out; 0 is 30 s here.  Null, logged, without memory or a connection in time,
// or when the socket has met itself; options that the system refuses are logged only.
// `*ptPeerAddr`, if wanted, is set only when the connection had to be waited for.
HAppSocket _AppSocketTCPConnect(HAppMemPool hMemPool, const TAppNetAddr *ptRemoteAddr,
                                uint16_t wPort, uint32_t dwTimeout, TAppNetAddr *ptPeerAddr);
// Fills in all but the size.
void _AppSocketGetStats(TAppSocketStats *ptStats);

} // extern "C"

#endif
