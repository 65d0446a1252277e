/* SPDX-License-Identifier: MIT */
/**
 * @file convert.h
 * Numbers, network addresses, times and text encodings, to and from text.
 *
 * Every operation may be called from any thread; none keeps a state, allocates or blocks.
 */
#ifndef APPCORE_CONVERT_H
#define APPCORE_CONVERT_H

#include "appcore/foundation.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Address families of ::TAppNetAddr. */
enum EAppNetAddrType {
    APP_NET_ADDR_IPV4 = 0, /**< `dwIpv4` counts */
    APP_NET_ADDR_IPV6 = 1  /**< `abyIpv6` counts */
};

/** A network address, always in network byte order. */
typedef struct TAppNetAddr {
    uint32_t dwType; /**< ::EAppNetAddrType */
    union {
        uint32_t dwIpv4;     /**< the four address bytes, read as one word */
        uint8_t abyIpv6[16]; /**< the sixteen address bytes */
    };
} TAppNetAddr;

/** Broken-down time, always UTC. */
typedef struct TAppTime {
    uint16_t wYear;   /**< full year */
    uint8_t byMonth;  /**< 1 to 12 */
    uint8_t byDay;    /**< 1 to 31 */
    uint8_t byHour;   /**< 0 to 23 */
    uint8_t byMinute; /**< 0 to 59 */
    uint8_t bySecond; /**< 0 to 59 */
    uint32_t dwMs;    /**< milliseconds, 0 to 999 */
} TAppTime;

/** @name Numbers
 * Decimal texts.  A null text is the value 0, no failure.  Leading white space and one sign are
 * read over, and reading stops at the first character that does not belong to the number: "12 V" is
 * 12, "abc" is 0, neither a failure.  `pbErr`, which may be null, receives 1 for a failure and 0
 * otherwise.
 * @{ */

/** strtof().  Fails, with an ERROR line, when there is no number or it is out of range; the value
 *  is strtof()'s all the same. */
APP_API float AppConvertStrtoFloat(const char *szStr, uint32_t *pbErr);
/** strtod(); otherwise as AppConvertStrtoFloat(). */
APP_API double AppConvertStrtoDouble(const char *szStr, uint32_t *pbErr);
/** A signed number.  Fails, with the value 0, beyond 32 bits; the two limits themselves are read
 *  only as their exact texts, with nothing before or after. */
APP_API int32_t AppConvertStrtoS32(const char *szStr, uint32_t *pbErr);
/** An unsigned number.  Fails, with the value 0, beyond 32 bits and for a text with a '-' anywhere;
 *  the largest value is read only as its exact text. */
APP_API uint32_t AppConvertStrtoU32(const char *szStr, uint32_t *pbErr);
/** An unsigned number.  Fails, with the value 0, beyond 64 bits and for a text with a '-'
 *  anywhere. */
APP_API uint64_t AppConvertStrtoU64(const char *szStr, uint32_t *pbErr);

/** @} */

/** @name Network addresses
 * Texts as inet_pton() and inet_ntop() (POSIX.1) read and write them.
 * @{ */

/** What an IPv4 address is; see AppCheckIpv4Class(). */
typedef enum EAppIpv4Class {
    APP_IPV4_CLASS_INVALID = 0,   /**< no IPv4 address, or 0.x.y.z */
    APP_IPV4_CLASS_A = 1,         /**< first octet 1 to 126 */
    APP_IPV4_CLASS_B = 2,         /**< first octet 128 to 191 */
    APP_IPV4_CLASS_C = 3,         /**< first octet 192 to 223 */
    APP_IPV4_CLASS_D = 4,         /**< first octet 224 to 239, multicast */
    APP_IPV4_CLASS_E = 5,         /**< first octet 240 to 255, reserved */
    APP_IPV4_CLASS_LOOPBACK = 6,  /**< first octet 127 */
    APP_IPV4_CLASS_BROADCAST = 7, /**< 255.255.255.255, or all host bits one */
    APP_IPV4_CLASS_NETWORK = 8    /**< 0.0.0.0, or all host bits zero */
} EAppIpv4Class;

/**
 * Reads an address: a text with a ':' as IPv6 (RFC 4291), one with a '.' as IPv4.
 * @param szIp   the text
 * @param ptAddr receives the address; after ::APP_FAILED only its type has been written
 * @retval APP_OK          read
 * @retval APP_INVALID_ARG a null or empty argument, or neither ':' nor '.'
 * @retval APP_FAILED      not an address; logged
 */
APP_API uint32_t AppConvertStrtoNet(const char *szIp, TAppNetAddr *ptAddr);

/**
 * Writes an address: a dotted quad, or the shortened form of IPv6 (RFC 5952).
 * @param ptAddr    the address
 * @param szBuf     receives the text
 * @param dwBufSize its size in bytes; 16 and 46 are always enough for IPv4 and IPv6
 * @retval APP_OK          written
 * @retval APP_INVALID_ARG a null argument, or an unknown type
 * @retval APP_FAILED      the buffer is too small; logged
 */
APP_API uint32_t AppConvertNettoStr(const TAppNetAddr *ptAddr, char *szBuf, uint32_t dwBufSize);

/**
 * The class of an IPv4 address.  Under a mask, network and broadcast addresses come before the
 * classes, whatever the first octet.
 * @param ptAddr the address; null or another family is ::APP_IPV4_CLASS_INVALID
 * @param ptMask its subnet mask; may be null
 */
APP_API EAppIpv4Class AppCheckIpv4Class(const TAppNetAddr *ptAddr, const TAppNetAddr *ptMask);

/** @return the mask's leading one bits, 0 to 32; -1 for a null record, another family, or a mask
 *          with a one behind a zero */
APP_API int32_t AppConvertSubnetMasktoPrefixLength(const TAppNetAddr *ptMask);

/**
 * Writes the mask of a prefix length.
 * @param nPrefixLen leading one bits; below 0 is 0, above 32 is 32
 * @param ptMask     receives the mask; its `dwType` must say IPv4 already, else nothing happens
 */
APP_API void AppConvertPrefixLengthtoSubnetMask(int32_t nPrefixLen, TAppNetAddr *ptMask);

/** htonl(). */
APP_API uint32_t AppConvertHtonl(uint32_t dwValue);
/** ntohl(). */
APP_API uint32_t AppConvertNtohl(uint32_t dwValue);
/** htons(). */
APP_API uint16_t AppConvertHtons(uint16_t wValue);
/** ntohs(). */
APP_API uint16_t AppConvertNtohs(uint16_t wValue);

/** @} */

/** @name Time
 * Calendar time is the number of seconds since 1970-01-01T00:00:00Z as a signed 32-bit time in an
 * unsigned word: 1901-12-13T20:45:52Z to 2038-01-19T03:14:07Z.  Always UTC: the system's time zone
 * plays no part.
 * @{ */

/** @return the seconds of a record, whose fields are carried over as timegm() does (month 13 is
 *          January of the next year) and whose milliseconds are ignored; 0 for null; 4294967295 for
 *          a date that a 32-bit time cannot hold */
APP_API uint32_t AppConvertTimeToU32(const TAppTime *ptTime);

/**
 * Breaks seconds down.
 * @param dwTime the seconds
 * @param ptTime receives the record, with 0 milliseconds
 * @retval APP_OK          done
 * @retval APP_INVALID_ARG null `ptTime`
 * @retval APP_FAILED      not a time; `ptTime` is untouched
 */
APP_API uint32_t AppConvertU32ToTime(uint32_t dwTime, TAppTime *ptTime);

/**
 * Reads an xsd:dateTime (W3C XML Schema Part 2).  A zone offset is handed out, not applied: true
 * UTC is `*pdwTime` less 60 times the offset.
 * @param szDatetime the text
 * @param pdwTime    receives date and time, read as UTC; may be null
 * @param pbHasZone  receives 1 when the text has a zone, else 0; may be null
 * @param pdwMs      receives the milliseconds; further digits are ignored; may be null
 * @param pnZoneMin  receives the offset in minutes east of UTC, only when the text has a numeric
 *                   one; may be null
 * @retval APP_OK          read
 * @retval APP_INVALID_ARG not a dateTime; nothing is written
 */
APP_API uint32_t AppConvertXsdDatetime2U32(const char *szDatetime, uint32_t *pdwTime,
                                           uint32_t *pbHasZone, uint32_t *pdwMs,
                                           int32_t *pnZoneMin);

/**
 * Writes an xsd:dateTime: 2024-03-05T14:07:09[.250][Z|+01:00].
 * @param dwTime    seconds
 * @param bHasZone  0 writes no zone
 * @param pdwMs     milliseconds, below 1000; null writes no fraction
 * @param pnZoneMin offset in minutes east of UTC; null or 0 writes "Z"
 * @param szBuf     receives the text
 * @param dwBufSize its size; 30 bytes are always enough for offsets below 100 hours
 * @retval APP_OK               written
 * @retval APP_INVALID_ARG      null or empty buffer, or too many milliseconds
 * @retval APP_BUFFER_TOO_SMALL does not fit; the buffer is not to be used
 * @retval APP_FAILED           not a time; logged
 */
APP_API uint32_t AppConvertU322XsdDatetime(uint32_t dwTime, uint32_t bHasZone,
                                           const uint32_t *pdwMs, const int32_t *pnZoneMin,
                                           char *szBuf, uint32_t dwBufSize);

/** @} */

/** @name Text encodings
 * Done by the host application's converters; units, terminators and truncation are theirs, see
 * host.h.  All answer ::APP_OK, ::APP_INVALID_ARG for a null pointer, or ::APP_FAILED, logged, when
 * the host's answer was not success.
 * @{ */

/** @param pvSrc UTF-8 text  @param pvDst receives Unicode text
 *  @param pdwLen length, handed to the host; must not point to 0 */
APP_API uint32_t AppConvertUtf8toUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen);
/** @param pvSrc GBK text  @param pvDst receives Unicode text
 *  @param pdwLen length, handed to the host; must not point to 0 */
APP_API uint32_t AppConvertGbktoUnicode(const void *pvSrc, void *pvDst, uint32_t *pdwLen);
/** @param pvSrc Unicode text  @param dwSrcLen its length
 *  @param pvDst receives UTF-8 text  @param dwDstLen its room */
APP_API uint32_t AppConvertUnicodetoUtf8(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                         uint32_t dwDstLen);
/** @param pvSrc Unicode text  @param dwSrcLen its length
 *  @param pvDst receives GBK text  @param dwDstLen its room */
APP_API uint32_t AppConvertUnicodetoGbk(const void *pvSrc, uint32_t dwSrcLen, void *pvDst,
                                        uint32_t dwDstLen);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
