// SPDX-License-Identifier: MIT
#include "utils/log.h"

#include <stdarg.h>
#include <stdio.h>

#include "appcore/log_fast.h"
#include "base/fast_tls.h"
#include "base/function_align.h"
#include "cross_linux/cross_linux.h"
#include "host/call.h"
#include "utils/held_lines.h"
#include "utils/log_repeat.h"
#include "utils/stats.h"

std::atomic<uint8_t> g_byAppLogLevel[256] = {{APP_LOG_ERROR}};
std::atomic<uint32_t> g_bAppLogViaStdout[256];
std::atomic<uint8_t> g_byAppLogNextChannel{1};

namespace
{

constexpr uint32_t kTextSize = 5120;

std::atomic<uint32_t> s_bConsoleDoes; // what goes to standard output is on the console

// A console may call the library.  The lines which that causes reach it too, but not those which
// these cause in turn: a console that allocates from a full pool would never come to an end.
constexpr uint32_t kMostNested = 2;
__thread uint32_t t_dwNested APP_FAST_TLS;

bool Passes(uint8_t byChannel, uint8_t byLevel)
{
    return byLevel <= app::Peek(g_byAppLogLevel[byChannel]);
}

// A text that is cut still ends its line.
void FormatText(char (&achText)[kTextSize], const char *szFormat, va_list args) APP_PRINTF(2, 0);
void FormatText(char (&achText)[kTextSize], const char *szFormat, va_list args)
{
    achText[kTextSize - 1] = '\0';
    if (_AppVsnprintf(achText, kTextSize, szFormat, args) == -1) {
        achText[kTextSize - 2] = '\n';
        achText[kTextSize - 1] = '\0';
    }
}

void WriteToFile(uint8_t byChannel, uint8_t byLevel, const char *szText)
{
    // A peek is enough: _AppFileLog looks again under the channel's mutex.
    if (byLevel == APP_LOG_ALWAYS && g_atAppFileLogInfo[byChannel].ptFile.load())
        _AppFileLog(byChannel, szText);
}

// For the two calls that every line makes, most of them only to be turned back at the threshold: no
// guard on their stack, as nothing there can run over (the buffer lies in LogText()), and at the
// beginning of a line of the cache.
#if __has_attribute(no_stack_protector)
#define APP_LOG_FRONT __attribute__((no_stack_protector, aligned(app::FunctionAlign(64))))
#else
#define APP_LOG_FRONT __attribute__((aligned(app::FunctionAlign(64))))
#endif

// Out of line, so that a message below the threshold does not pay for the buffer and its stack
// protection.
[[gnu::noinline]] void LogText(uint8_t byChannel, uint8_t byLevel, bool bFileOnly,
                               const char *szFormat, va_list args) APP_PRINTF(4, 0);
void LogText(uint8_t byChannel, uint8_t byLevel, bool bFileOnly, const char *szFormat, va_list args)
{
    if (!szFormat || (byLevel == APP_LOG_ERROR && app::t_tHeldLines.bNoErrors))
        return;
    char achText[kTextSize];
    FormatText(achText, szFormat, args);
    // Without memory to keep it: printed under the lock, for a line that is lost helps nobody.
    if (!app::KeepLine(byChannel, byLevel, bFileOnly, achText))
        app::PrintLine(byChannel, byLevel, bFileOnly, achText);
}

} // namespace

void app::PrintLine(uint8_t byChannel, uint8_t byLevel, bool bFileOnly, const char *szText)
{
    TLogCount &count = g_atLogCount[byChannel];
    CountOne(count.dwLines);
    const bool bLimited = Peek(count.dwMost) != 0;
    (bLimited ? PrintLimited : PrintToSinks)(byChannel, byLevel, bFileOnly, szText);
}

void app::PrintToSinks(uint8_t byChannel, uint8_t byLevel, bool bFileOnly, const char *szText)
{
    const ErrorLines keep(false); // what a console or a file has to tell is its own affair
    if (!bFileOnly) {
        // What a sink refuses has nowhere to be told.
        if (Peek(g_bAppLogViaStdout[byChannel]) == 1 && Peek(s_bConsoleDoes) == 0)
            fputs(szText, stdout);
        if (t_dwNested < kMostNested) {
            ++t_dwNested;
            APP_HOST(QorPrintf)(1, 0, "%s", szText);
            --t_dwNested;
        }
    }
    WriteToFile(byChannel, byLevel, szText);
}

APP_LOG_FRONT void AppLog(uint8_t byChannel, uint8_t byLevel, const char *szFormat, ...)
{
    if (!Passes(byChannel, byLevel))
        return;
    va_list args;
    va_start(args, szFormat);
    LogText(byChannel, byLevel, false, szFormat, args);
    va_end(args);
}

APP_LOG_FRONT void AppLogFile(uint8_t byChannel, uint8_t byLevel, const char *szFormat, ...)
{
    if (!Passes(byChannel, byLevel))
        return;
    va_list args;
    va_start(args, szFormat);
    LogText(byChannel, byLevel, true, szFormat, args);
    va_end(args);
}

// For programs that test the threshold themselves: they read bytes, whatever they are to us.
const uint8_t *AppGetLogLevels(void)
{
    static_assert(sizeof(g_byAppLogLevel) == 256, "a byte for each channel");
    return reinterpret_cast<const uint8_t *>(g_byAppLogLevel);
}

[[gnu::cold]] uint8_t AppGenerateLogChannel(void)
{
    uint8_t byChannel = g_byAppLogNextChannel.load();
    // Two calls at once must not get the same channel; channel 0 is the library's own.
    while (!g_byAppLogNextChannel.compare_exchange_weak(
        byChannel, static_cast<uint8_t>(byChannel == 255 ? 1 : byChannel + 1))) {
    }
    app::Poke<uint8_t>(g_byAppLogLevel[byChannel], APP_LOG_ERROR);
    app::Poke<uint32_t>(g_bAppLogViaStdout[byChannel], 1);
    return byChannel;
}

void AppSetLogLevel(uint8_t byChannel, uint8_t byLevel)
{
    // The library's errors cannot be switched off.
    if (byChannel != 0 || byLevel >= APP_LOG_ERROR)
        app::Poke(g_byAppLogLevel[byChannel], byLevel);
}

void AppSetLogViaStdout(uint8_t byChannel, uint32_t bViaStdout)
{
    app::Poke(g_bAppLogViaStdout[byChannel], bViaStdout);
}

[[gnu::cold]] void AppSetLogOnce(uint32_t bOnce)
{
    app::Poke<uint32_t>(s_bConsoleDoes, bOnce == 1 && _AppStdoutIsStderr());
}

[[gnu::cold]] uint32_t AppSetFileLog(uint8_t byChannel, const char *szPath, uint32_t dwMaxSize)
{
    if (!szPath)
        return 0;
    if (AppStrlen(szPath) >= APP_FILE_LOG_PATH_SIZE) {
        AppLog(0, APP_LOG_ERROR, "[ERROR] %s: Filepath is limited under %lu digits.\n", __func__,
               app::Ul(APP_FILE_LOG_PATH_SIZE));
        return 0;
    }
    app::TellHeldBack(byChannel); // in the file that it had
    uint32_t dwCurSize = 0;
    if (!_AppFileLogOpen(byChannel, szPath, dwMaxSize, &dwCurSize))
        return 0;
    // Whatever the channel's switch for the standard output says.
    printf("dwCurSize %u\n", dwCurSize);
    return 1;
}

void AppCloseFileLog(uint8_t byChannel)
{
    app::TellHeldBack(byChannel);
    _AppFileLogClose(byChannel);
}

[[gnu::cold]] uint32_t AppLogGetStats(uint8_t byChannel, TAppLogStats *ptStats)
{
    TAppLogStats tStats = {};
    tStats.dwChannel = byChannel;
    tStats.dwLevel = app::Peek(g_byAppLogLevel[byChannel]);
    const app::TLogCount &count = app::g_atLogCount[byChannel];
    tStats.dwLines = app::PeekCounter(count.dwLines);
    tStats.dwRepeated = app::PeekCounter(count.dwHeldBack);
    _AppFileLogGetStats(byChannel, &tStats);
    return app::FillStats(ptStats, tStats);
}
