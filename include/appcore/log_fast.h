/* SPDX-License-Identifier: MIT */
/**
 * @file log_fast.h
 * A log call whose threshold is tested in the caller's own code: for lines that are normally off and
 * stand where nanoseconds count.  Not part of appcore.h.
 *
 * A disabled AppLog() is a call with all its arguments; a disabled APP_LOG_FAST() is two loads and a
 * comparison, and evaluates nothing that is to be printed.  The price: a program that includes this
 * header is bound to the table of thresholds as it is, one byte for each of 256 channels, which
 * AppLog() keeps to itself.
 */
#ifndef APPCORE_LOG_FAST_H
#define APPCORE_LOG_FAST_H

#include "appcore/foundation.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The thresholds of all channels, as AppSetLogLevel() sets them at any time.
 * @return 256 bytes, the same ones for the life of the process; to be read only, and atomically
 */
APP_API const uint8_t *AppGetLogLevels(void);

/**
 * Whether AppLog() would let a message pass.
 * @param byChannel the channel
 * @param byLevel   the level
 * @return 1 or 0
 */
static inline int AppLogPasses(uint8_t byChannel, uint8_t byLevel)
{
    static const uint8_t *s_pbyLevels; /* threads that find it null store the same */
    const uint8_t *pbyLevels = __atomic_load_n(&s_pbyLevels, __ATOMIC_RELAXED);
    if (__builtin_expect(!pbyLevels, 0)) {
        pbyLevels = AppGetLogLevels();
        __atomic_store_n(&s_pbyLevels, pbyLevels, __ATOMIC_RELAXED);
    }
    return byLevel <= __atomic_load_n(&pbyLevels[byChannel], __ATOMIC_RELAXED);
}

/**
 * AppLog() behind its threshold.  Channel and level are evaluated a second time when the message
 * passes; the format and what follows it are evaluated only then.
 */
#define APP_LOG_FAST(byChannel, byLevel, ...)                                                      \
    do {                                                                                           \
        if (AppLogPasses((byChannel), (byLevel)))                                                  \
            AppLog((byChannel), (byLevel), __VA_ARGS__);                                           \
    } while (0)

#ifdef __cplusplus
}
#endif

#endif
