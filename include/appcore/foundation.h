/* SPDX-License-Identifier: MIT */
/**
 * @file foundation.h
 * Result codes, logging, strings and memory.
 *
 * Rules common to this header: every operation may be called from any thread at any time, none
 * blocks except for the writing of the log itself, and none reports a failure other than through
 * the result stated.  There is no initialisation call.
 */
#ifndef APPCORE_FOUNDATION_H
#define APPCORE_FOUNDATION_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define APP_API __attribute__((visibility("default")))
#define APP_PRINTF(nFormat, nArgs) __attribute__((format(printf, nFormat, nArgs)))
#define APP_SCANF(nFormat, nArgs) __attribute__((format(scanf, nFormat, nArgs)))
#else
#define APP_API
#define APP_PRINTF(nFormat, nArgs)
#define APP_SCANF(nFormat, nArgs)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Result codes.  Operations return them as an unsigned 32-bit value. */
enum EAppResult {
    APP_OK = 0,                 /**< success */
    APP_FAILED = 101,           /**< a system, threading or host-platform call failed */
    APP_INVALID_ARG = 103,      /**< a null handle or pointer, or a value out of range */
    APP_NO_RESOURCE = 104,      /**< an allocation failed, or a list or queue is full */
    APP_INVALID_STATE = 105,    /**< the task's state does not allow the operation */
    APP_TIMEOUT = 106,          /**< a timed lock take or queue wait expired */
    APP_BUFFER_TOO_SMALL = 107, /**< the caller's output buffer is too small */
    APP_NOT_FOUND = 108,        /**< an element or attribute is missing, a timer is not active */
    APP_XML_NODE_INVALID = 206, /**< an XML node has no usable value */
    APP_BAD_VALUE = 207,        /**< a text value did not convert or is out of range */
    APP_IN_PROGRESS = 208       /**< last result of the action registry while an action runs */
};

/**
 * The name of a result code, for log lines.
 * @param dwResult a code
 * @return a constant such as "APP_TIMEOUT"; "UNKNOWN" for a value that is none
 */
APP_API const char *AppGetResultName(uint32_t dwResult);

/** Log levels: the lower, the more important. */
enum EAppLogLevel {
    APP_LOG_ALWAYS = 0,    /**< passes every threshold; the only level written to a log file */
    APP_LOG_INFO = 1,      /**< "[INFO ]" */
    APP_LOG_ERROR = 16,    /**< "[ERROR]" */
    APP_LOG_DEBUG = 240,   /**< "[DEBUG]" */
    APP_LOG_MEMDBG1 = 241, /**< "[MEMDBG-1]": the memory pools' fronts */
    APP_LOG_MEMDBG2 = 242  /**< "[MEMDBG-2]": the memory pools' engines */
};

/**
 * Receives a piece of a report.
 * @param szText    terminated text, at most 3071 characters, valid during the call only
 * @param pvContext the value given with the callback
 */
typedef void (*PFAppShow)(const char *szText, void *pvContext);

/** @name Log channels
 * A channel is a number from 0 to 255 with a threshold, a standard-output switch and, if wanted, a
 * log file.  The library itself logs on channel 0.  At start channel 0 has threshold 16
 * (::APP_LOG_ERROR), every other channel 0, and standard output is off everywhere.
 * @{ */

/**
 * Hands out the next channel, 1 to 255 and then from 1 again, with threshold 16 and standard
 * output on.  Its log file, if it has one, is not touched.  Calls at the same time never get the
 * same channel.
 * @return the channel
 */
APP_API uint8_t AppGenerateLogChannel(void);

/**
 * Sets a channel's threshold: a message passes when its level is at most this value.
 * @param byChannel the channel; on channel 0 a value below 16 is ignored, so that the library's
 *                  own errors cannot be switched off
 * @param byLevel   the threshold
 */
APP_API void AppSetLogLevel(uint8_t byChannel, uint8_t byLevel);

/**
 * Switches a channel's standard output.
 * @param byChannel  the channel
 * @param bViaStdout exactly 1 prints messages on standard output too, any other value does not
 */
APP_API void AppSetLogViaStdout(uint8_t byChannel, uint32_t bViaStdout);

/**
 * Prints lines once where standard output and the console would show them twice: a channel whose
 * standard output is on does not print there while that is the same file or terminal as standard
 * error, the console of most platforms.  Which is looked at by this call.
 * @param bOnce exactly 1 switches it on, any other value off, as at the start
 */
APP_API void AppSetLogOnce(uint32_t bOnce);

/**
 * Limits how often a channel tells the same: on channel 0 the library itself, of a network that is
 * gone.  Of lines with the same level and text, one directly after the other or among a few others,
 * only so many are printed and written within a second that begins with the first of them.  The
 * others are counted and told by one line with their number and their first 127 characters, which
 * goes where they would have gone: in front of the first line that the channel logs once the second
 * is over, or earlier when more lines have come between than are kept in mind (the last 16 of all
 * channels with a limit), when the limit is switched off and when the channel's log file changes or
 * is closed.  What is owed when the process ends is not told.
 *
 * On a channel with a limit each line costs a comparison with these 16, and waits for others that
 * compare or read statistics, for moments; nothing is waited for while a line is printed.
 * @param byChannel the channel
 * @param dwMost    identical lines a second; 0 is no limit, as at the start
 */
APP_API void AppSetLogRepeat(uint8_t byChannel, uint32_t dwMost);

/**
 * Logs a message to the platform's console (QorPrintf()), to standard output when the channel has
 * it on, and, at level 0 only, to the channel's log file.
 *
 * A message that does not pass the threshold costs the call and one comparison; log_fast.h has a
 * form that costs the comparison only.  The text is formatted in 5120
 * bytes on the caller's stack; a longer one keeps its first 5118 characters and a newline.  No tag,
 * stamp or newline is added.  Failures of the console and of standard output are ignored.  The
 * lines of the library itself that arise while it holds a lock are printed once the lock has been
 * given, without memory to keep them at once.
 *
 * Stack of the caller, with the console's stand-in: 8 KiB; 10 KiB with floating-point values, 13
 * KiB for the line that tells a file's loss (see AppSetFileLog()), and 9 KiB more while standard
 * output is on and unbuffered; on a channel with AppSetLogRepeat() 1 KiB more.
 * @param byChannel the channel
 * @param byLevel   the level (::EAppLogLevel or any other byte)
 * @param szFormat  printf format; null logs nothing
 */
APP_API void AppLog(uint8_t byChannel, uint8_t byLevel, const char *szFormat, ...) APP_PRINTF(3, 4);

/**
 * Logs a message to the channel's log file only.  Without a file, or at a level other than 0, the
 * call has no effect.  Arguments as for AppLog().
 */
APP_API void AppLogFile(uint8_t byChannel, uint8_t byLevel, const char *szFormat, ...)
    APP_PRINTF(3, 4);

/**
 * Opens a log file for a channel and prints its present size on standard output.  The channel's
 * previous file is closed.  Each line written is stamped with the local time; when the file has
 * grown beyond its limit it becomes `path1` (the one backup) and an empty file takes its place.  A
 * line is written with one system call, whole or not at all, and none is lost or torn by other
 * threads or a rotation.  The descriptor is close-on-exec and never 0, 1 or 2.
 *
 * What can be lost, and what is then told by one line on channel 0, printed in the thread that
 * logged, after the file is free for others again:
 * - Lines that cannot be written, as on a full disk: the first one lost is told with the reason,
 *   the next one written with the number lost.  A piece of a line is taken back; where the system
 *   refuses that, it gets an end of its own.
 * - A file that was deleted or moved away is opened anew by the first line of the next second; what
 *   is written within that second goes with the old file, without a word.  A deleted file that
 *   cannot be opened anew loses lines, told as above, and is tried again once a second.
 * - The file's contents, when it is full and the system refuses to rename it, or where its backup
 *   would be stands the file of another channel, which is spared: the file starts anew without a
 *   backup, told once until a rename succeeds.
 * - Every line from a rotation after which the file cannot be opened again, told once, until the
 *   next AppSetFileLog().
 * - On a power cut, what the system has not yet brought to the disk: nothing is synchronised.
 *
 * So no flood on one channel reaches what another has in a file of its own.  Channels that are set
 * to one path share its history: each counts its own lines towards its limit, and whichever is full
 * first rotates for all.
 * @param byChannel the channel
 * @param szPath    the file, created when missing, at most 127 characters
 * @param dwMaxSize the limit in bytes; 0 rotates after every line
 * @return 1 when the file is open, 0 for a null or too long path (then nothing has changed) or
 *         when it cannot be opened (the channel then has no file)
 */
APP_API uint32_t AppSetFileLog(uint8_t byChannel, const char *szPath, uint32_t dwMaxSize);

/** Closes a channel's log file, if it has one.  @param byChannel the channel */
APP_API void AppCloseFileLog(uint8_t byChannel);

/** @} */

/** @name Bounded formatting
 * @{ */

/**
 * snprintf() that reports every truncation and error as -1.
 * @param szBuf    destination
 * @param dwSize   its size in bytes, terminator included
 * @param szFormat printf format
 * @return characters written, or -1: a null argument or size 0 (nothing written), a text that did
 *         not fit (the buffer holds its first `dwSize` - 1 characters) or a formatter error
 */
APP_API int32_t AppSnprintf(char *szBuf, uint32_t dwSize, const char *szFormat, ...)
    APP_PRINTF(3, 4);

/**
 * sscanf() that takes null texts.
 * @param szText   source; null gives 0
 * @param szFormat scanf format; null gives 0
 * @return items assigned, or EOF as sscanf() reports it
 */
APP_API int32_t AppSscanf(const char *szText, const char *szFormat, ...) APP_SCANF(2, 3);

/** @} */

/** @name Strings and memory
 * The comparisons take null for the empty text.  "Size" is the size of the destination buffer in
 * bytes, terminator included.
 * @{ */

/** Fills with zero bytes.  @param pvBuf null does nothing  @param dwLen bytes */
APP_API void AppMemzero(void *pvBuf, uint32_t dwLen);
/** memcpy(); with length 0 the pointers are not looked at. */
APP_API void AppMemcpy(void *pvDst, const void *pvSrc, uint32_t dwLen);
/** memcmp(), pointers unchecked. */
APP_API int32_t AppMemcmp(const void *pvFirst, const void *pvSecond, uint32_t dwLen);
/** strlen(); 0 for null. */
APP_API uint32_t AppStrlen(const char *szText);
/** strcmp(); only the sign of the result counts. */
APP_API int32_t AppStrcmp(const char *szFirst, const char *szSecond);
/** strncmp(); when exactly one text is null the count is not looked at. */
APP_API int32_t AppStrncmp(const char *szFirst, const char *szSecond, uint32_t dwCount);
/** strcasecmp(). */
APP_API int32_t AppStrcasecmp(const char *szFirst, const char *szSecond);
/** strncasecmp(); when exactly one text is null the count is not looked at. */
APP_API int32_t AppStrncasecmp(const char *szFirst, const char *szSecond, uint32_t dwCount);
/**
 * strstr().
 * @param szText    null gives null
 * @param szPattern null or empty gives the text itself
 * @return a pointer into `szText`, or null
 */
APP_API char *AppStrstr(const char *szText, const char *szPattern);
/**
 * strchr().
 * @param szText null gives null
 * @param nChar  taken as one byte; 0 gives null
 * @return a pointer into `szText`, or null
 */
APP_API char *AppStrchr(const char *szText, int32_t nChar);

/**
 * Copies at most `dwSize` - 1 characters, always terminates, and fills the rest with NUL.
 * @param szDst  destination; returned
 * @param szSrc  source
 * @param dwSize size of the destination; with 0 or a null pointer nothing is written
 */
APP_API char *AppStrncpy(char *szDst, const char *szSrc, uint32_t dwSize);

/**
 * Appends a text and cuts the result to `dwSize` - 1 characters.  Nothing at or beyond `dwSize` is
 * read or written, even when the destination holds no terminator before it: it is then cut.
 * @param szDst  destination; returned
 * @param szSrc  text to append
 * @param dwSize size of the whole destination; with 0 or a null pointer nothing is written
 */
APP_API char *AppStrncat(char *szDst, const char *szSrc, uint32_t dwSize);

/**
 * A multiplicative hash with a changing multiplier, 31 bits.
 * @param szText its bytes are taken as unsigned values; null gives 0
 */
APP_API uint32_t AppStringHash(const char *szText);

/**
 * Writes a hexadecimal dump, 16 bytes a row with offset and characters.
 * @param pbyData   the bytes
 * @param dwLen     their number
 * @param szBuf     destination, terminated
 * @param dwBufSize its size in bytes; a dump that does not fit ends after its last whole piece
 * @return characters written; 0, and nothing written, for a null pointer or a size of 0, and 0
 *         when the header does not fit
 */
APP_API int32_t AppDumpMem(const uint8_t *pbyData, uint32_t dwLen, char *szBuf, uint32_t dwBufSize);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
