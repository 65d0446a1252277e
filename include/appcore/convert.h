/* SPDX-License-Identifier: MIT */
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

#ifdef __cplusplus
}
#endif

#endif
