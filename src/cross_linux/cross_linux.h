// SPDX-License-Identifier: MIT
//
// The platform layer: the only door to threads, clocks, sockets and addresses.  Nothing outside
// src/cross_linux includes a system header for these.  Handles are checked by the fronts; what a
// twin checks itself is said at its declaration.
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

extern "C" {

// ---- Text -----------------------------------------------------------------------------------

// vsnprintf whose every truncation and error is -1.
int32_t _AppVsnprintf(char *szBuf, uint32_t dwSize, const char *szFormat, va_list args)
    APP_PRINTF(3, 0);
int32_t _AppVsscanf(const char *szText, const char *szFormat, va_list args) APP_SCANF(2, 0);
int32_t _AppStrcasecmp(const char *szFirst, const char *szSecond);
int32_t _AppStrncasecmp(const char *szFirst, const char *szSecond, uint32_t dwCount);

// ---- Log files ------------------------------------------------------------------------------

#define APP_FILE_LOG_PATH_SIZE 128

// One channel's log file.  `ptFile` is read without the channel's mutex to see whether a file is
// open at all; everything else is touched only under that mutex.
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
// had.  Returns 1 when the file is open; `*pdwCurSize` then holds its present size.
uint32_t _AppFileLogOpen(uint8_t byChannel, const char *szPath, uint32_t dwMaxSize,
                         uint32_t *pdwCurSize);
void _AppFileLogClose(uint8_t byChannel);
// Writes one stamped line and rotates when the limit is passed.  Does nothing without a file.
void _AppFileLog(uint8_t byChannel, const char *szText);

// ---- Locks ----------------------------------------------------------------------------------

// The twins of the four public operations; null handles are the fronts' business.  Deadlines are
// monotonic.  A spurious wake-up goes on waiting; a unit that is there is taken even when the
// deadline has just passed.
uint32_t _AppLockCreate(HAppMemPool hMemPool, uint32_t dwMaxCount, uint32_t dwInitCount,
                        uint32_t dwType, HAppLock *phLock);
void _AppLockDestroy(HAppLock hLock);
uint32_t _AppLockTakeByTime(HAppLock hLock, uint32_t dwTimeout);
uint32_t _AppLockGive(HAppLock hLock);

// ---- Ticks, delays, threads -----------------------------------------------------------------

uint32_t _AppGetTick(void);
uint32_t _AppConvertTickToMS(uint32_t dwTick);
void _AppDelay(uint32_t dwMs);

typedef void *(*PFAppThreadEntry)(void *pvArg);

// Starts a detached thread.  It may run before this returns.
uint32_t _AppThreadCreate(PFAppThreadEntry pfnEntry, uint32_t dwStackSize, void *pvArg);
void _AppThreadExit(void);
int32_t _AppThreadGetTID(void);
// Names the calling thread; the kernel keeps 15 characters.
void _AppThreadSetName(const char *szName);

// ---- Addresses and time ---------------------------------------------------------------------

uint32_t _AppConvertStrtoNet(const char *szIp, TAppNetAddr *ptAddr);
uint32_t _AppConvertNettoStr(const TAppNetAddr *ptAddr, char *szBuf, uint32_t dwBufSize);
uint32_t _AppConvertHtonl(uint32_t dwValue);
uint32_t _AppConvertNtohl(uint32_t dwValue);
uint16_t _AppConvertHtons(uint16_t wValue);
uint16_t _AppConvertNtohs(uint16_t wValue);
uint32_t _AppMktime32(const TAppTime *ptTime);
uint32_t _AppGmtime32(uint32_t dwTime, TAppTime *ptTime);

// ---- Sockets --------------------------------------------------------------------------------

void _AppSocetStartUp(void);
void _AppSocetClearUp(void);
HAppSocket _AppSocketCreate(HAppMemPool hMemPool, uint32_t dwSockType);
void _AppSocketDestroy(HAppSocket hSocket);
uint32_t _AppSocketCalLocalAddr(const TAppNetAddr *ptRemoteAddr, TAppNetAddr *ptLocalAddr);
uint32_t _AppSocketBind(HAppSocket hSocket, const TAppNetAddr *ptLocalAddr, uint16_t wPort,
                        uint32_t bReuse);
int32_t _AppSocketUDPRecv(HAppSocket hSocket, void *pvBuf, uint32_t *pdwLen, uint32_t dwTimeout,
                          TAppNetAddr *ptLocalAddr, uint16_t *pwLocalPort,
                          TAppNetAddr *ptRemoteAddr, uint16_t *pwRemotePort);
int32_t _AppSocketUDPSend(HAppSocket hSocket, const void *pvBuf, uint32_t dwLen, uint32_t dwTimeout,
                          const TAppNetAddr *ptRemoteAddr, uint16_t wPort);
int32_t _AppSocketTCPSend(HAppSocket hSocket, const void *pvBuf, uint32_t dwLen,
                          uint32_t dwTimeout);
int32_t _AppSocketTCPRecv(HAppSocket hSocket, void *pvBuf, uint32_t *pdwLen, uint32_t dwTimeout);
uint32_t _AppSocketUDPJoinMulticastGroup(HAppSocket hSocket, const TAppNetAddr *ptGroupAddr,
                                         const TAppNetAddr *ptIfAddr, uint32_t bLoop);
HAppSocket _AppSocketTCPConnect(HAppMemPool hMemPool, const TAppNetAddr *ptRemoteAddr,
                                uint16_t wPort, uint32_t dwTimeout, TAppNetAddr *ptPeerAddr);

} // extern "C"

#endif
