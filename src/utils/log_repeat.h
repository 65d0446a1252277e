// SPDX-License-Identifier: MIT
//
// Identical lines beyond a channel's limit are counted, and told by one line.  Nothing is printed
// while the table of lines is locked: a console may log itself.
#ifndef APPCORE_UTILS_LOG_REPEAT_H
#define APPCORE_UTILS_LOG_REPEAT_H

#include <stdint.h>

#include <atomic>

namespace app
{

// Of a channel.
struct TLogCount {
    std::atomic<uint32_t> dwMost; // identical lines a second; 0: no limit
    uint32_t dwHeldBack;          // lines
    uint32_t dwLines;             // that passed the threshold
};
extern TLogCount g_atLogCount[256];

// Prints a line unless it is one too many.  Tells first, in any case, what of its channel is owed.
void PrintLimited(uint8_t byChannel, uint8_t byLevel, bool bFileOnly, const char *szText);
// Tells of the channel's lines that are held back, without waiting for the end of their second.
void TellHeldBack(uint8_t byChannel);

// The channel's sinks.  In log.cpp.
void PrintToSinks(uint8_t byChannel, uint8_t byLevel, bool bFileOnly, const char *szText);

} // namespace app

#endif
