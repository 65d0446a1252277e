/* SPDX-License-Identifier: MIT */
/**
 * @file host.h
 * What the device's platform library and the host application must provide.
 *
 * A build with stand-ins (the default) brings a weak definition of each that does real work on any
 * Linux; a definition in the application overrides it, whatever the way of linking and optimising.
 * It must be linked: one in an archive of the application that nothing else needs is not.  For the
 * library of a plug-in, shared or in an archive, the application must export its definitions
 * (`-rdynamic`); what a plug-in with the archive calls itself of these functions it must not bind
 * inside (`-Bsymbolic`).  A device build takes them from `libqor.so` and from the process.
 */
#ifndef APPCORE_HOST_H
#define APPCORE_HOST_H

#include "appcore/foundation.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Prints on the platform's console.  Receives every log line that passes its threshold, from any
 * thread, on that thread's stack.  Stand-in: standard error, with one write() a text, past stdio;
 * what a full descriptor that does not block refuses is lost, and a pipe that nobody reads any
 * more raises SIGPIPE, unless the program ignores it.  A text of another format than "%s" is cut to
 * 511 characters.
 *
 * Called with no lock of the library held while there is memory to keep a line until then, so it
 * may take its time, and may call the library.  The lines that this causes reach it too, from
 * within itself; those which these cause in turn go to standard output and the log file only, so
 * that a console which uses a full pool comes to an end.
 * @param nFlag1   always 1
 * @param nFlag2   always 0
 * @param szFormat printf format, always "%s"
 * @return ignored
 */
APP_API int32_t QorPrintf(int32_t nFlag1, int32_t nFlag2, const char *szFormat, ...)
    APP_PRINTF(3, 4);

/** @name Debug shell
 * @{ */

/** A command of the debug shell, as ::PFAppCommand. */
typedef int32_t (*PFQorCommand)(int32_t nArgc, char **ppszArgv);

/**
 * Registers a command of the platform's debug shell.  Stand-in: a table of 64 commands, served by
 * AppHostRunCommand(); a name that is there already gets the new function.
 * @param szName     name, kept by reference
 * @param pfnCommand function
 * @param szHelp     one line of help, kept by reference; may be null
 * @return ignored
 */
APP_API int32_t QorRegCommand(const char *szName, PFQorCommand pfnCommand, const char *szHelp);

/** Receives one command of the table. */
typedef void (*PFAppHostCommand)(const char *szName, const char *szHelp, void *pvContext);

/**
 * Stand-in only: hands every command of the table to a callback, in the order of registration.
 * @param pfnVisit  called for each
 * @param pvContext handed to `pfnVisit`
 */
APP_API void AppHostWalkCommands(PFAppHostCommand pfnVisit, void *pvContext);

/**
 * Stand-in only: splits a line at blanks (at most 15 words) and runs the command it names, in the
 * calling thread.
 * @param szLine   at most 255 characters
 * @param pnResult receives the command's result; may be null
 * @retval APP_OK          run
 * @retval APP_INVALID_ARG an empty or too long line
 * @retval APP_NOT_FOUND   no such command
 */
APP_API uint32_t AppHostRunCommand(const char *szLine, int32_t *pnResult);

/** @} */

/** @name Text converters
 * Answer 1 for success and anything else for failure.  The stand-ins use iconv(): Unicode text is
 * UTF-16 in host byte order; its lengths count 16-bit units, those of UTF-8 and GBK bytes.  What
 * they write is always terminated.  A text that does not fit is cut at a whole character and
 * reported as a failure, as is a source that is not valid, and any where iconv() lacks an encoding
 * (musl's writes no GBK).  They may be called from any thread.
 * @{ */

/**
 * @param pvSrc  terminated UTF-8 text
 * @param pvDst  receives the Unicode text
 * @param pdwLen in: room at `pvDst` in units, terminator included; out: units written without it
 */
APP_API int32_t IpcConvConvertUtf8toUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen);
/** As IpcConvConvertUtf8toUnicode(), from GBK. */
APP_API int32_t IpcConvConvertGbktoUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen);
/**
 * @param pvSrc    Unicode text; ends at a terminator or after `dwSrcLen` units
 * @param dwSrcLen units at `pvSrc`
 * @param pvDst    receives the UTF-8 text
 * @param dwDstLen room at `pvDst` in bytes, terminator included
 */
APP_API int32_t IpcConvConvertUnicodetoUtf8(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                            uint32_t dwDstLen);
/** As IpcConvConvertUnicodetoUtf8(), to GBK. */
APP_API int32_t IpcConvConvertUnicodetoGbk(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                           uint32_t dwDstLen);

/** @} */

/** @name Network of the device
 * For AppSocketCalNATAddr().  Answer 1 for success and anything else for failure; called from any
 * thread that calls that operation.  Addresses, masks and ports are in network byte order.  The
 * records arrive zeroed; only the fields named here are read, all others are the host's.
 * @{ */

/** The numbers of network interfaces. */
typedef struct TIpcCapHwExternal {
    uint8_t abyHost1[17]; /**< the host's */
    uint8_t byIfCount1;   /**< interfaces 0 to `byIfCount1` + `byIfCount2` - 1 are queried */
    uint8_t byIfCount2;   /**< see `byIfCount1` */
    uint8_t abyHost2[25]; /**< the host's */
} TIpcCapHwExternal;

#define APP_HOST_ETH_ADDR_MAX 21 /**< address pairs of one interface */

/** One address of an interface. */
typedef struct TIpcNetEthAddr {
    uint32_t dwAddr; /**< address */
    uint32_t dwMask; /**< its subnet mask */
} TIpcNetEthAddr;

/** The addresses of one interface. */
typedef struct TIpcNetEthParam {
    uint8_t abyHost1[8];                          /**< the host's */
    uint32_t dwAddrNum;                           /**< pairs that follow */
    TIpcNetEthAddr atAddr[APP_HOST_ETH_ADDR_MAX]; /**< the pairs */
    uint8_t abyHost2[4];                          /**< the host's */
} TIpcNetEthParam;

#define APP_HOST_UPNP_NAME_SIZE 34 /**< bytes of a mapping's name */
#define APP_HOST_UPNP_MAP_NUM 3    /**< mappings */

/** One port mapping. */
typedef struct TIpcUpupMap {
    uint32_t dwEnable;                     /**< printed only */
    uint32_t dwMapType;                    /**< 0: TCP, 1: UDP */
    char achName[APP_HOST_UPNP_NAME_SIZE]; /**< printed only */
    uint16_t wExtPort;                     /**< external port */
    uint16_t wInPort;                      /**< local port */
    uint8_t abyHost[2];                    /**< the host's */
    uint32_t dwExtAddr;                    /**< external address */
    uint32_t dwActive;                     /**< not 0: in force */
} TIpcUpupMap;

/** The UPnP port mappings. */
typedef struct TIpcUpupCfg {
    uint32_t dwEnable;                        /**< 0: off */
    uint8_t abyHost[264];                     /**< the host's */
    TIpcUpupMap atMap[APP_HOST_UPNP_MAP_NUM]; /**< the mappings */
} TIpcUpupCfg;

/** Stand-in: the number of interfaces with an IPv4 address.  @param ptHw receives the counts */
APP_API int32_t IpcCapGetHwExternal(TIpcCapHwExternal *ptHw);
/**
 * Stand-in: the IPv4 addresses of an interface, by getifaddrs().
 * @param byIndex  interface, from 0
 * @param ptParam receives its addresses
 */
APP_API int32_t IpcGetNetEthParam(uint8_t byIndex, TIpcNetEthParam *ptParam);
/** Stand-in: off.  @param ptCfg receives the mappings */
APP_API int32_t IpcGetUpupCfg(TIpcUpupCfg *ptCfg);

/** @} */

#ifdef __cplusplus
}
#endif

/** @cond */
#if defined(__cplusplus)
#define APP_HOST_ASSERT(bCondition, szText) static_assert(bCondition, szText)
#else
#define APP_HOST_ASSERT(bCondition, szText) _Static_assert(bCondition, szText)
#endif
APP_HOST_ASSERT(sizeof(TIpcCapHwExternal) == 44, "the host's layout");
APP_HOST_ASSERT(offsetof(TIpcCapHwExternal, byIfCount1) == 17, "the host's layout");
APP_HOST_ASSERT(sizeof(TIpcNetEthParam) == 184, "the host's layout");
APP_HOST_ASSERT(offsetof(TIpcNetEthParam, atAddr) == 12, "the host's layout");
APP_HOST_ASSERT(sizeof(TIpcUpupMap) == 56, "the host's layout");
APP_HOST_ASSERT(offsetof(TIpcUpupMap, wExtPort) == 42, "the host's layout");
APP_HOST_ASSERT(offsetof(TIpcUpupMap, dwExtAddr) == 48, "the host's layout");
APP_HOST_ASSERT(sizeof(TIpcUpupCfg) == 436, "the host's layout");
APP_HOST_ASSERT(offsetof(TIpcUpupCfg, atMap) == 268, "the host's layout");
/** @endcond */

#endif
