// SPDX-License-Identifier: MIT
#include "utils/log_repeat.h"

#include "base/field.h"
#include "base/print.h"
#include "cross_linux/cross_linux.h"
#include "utils/registry.h"

app::TLogCount app::g_atLogCount[256];

namespace
{

constexpr uint32_t kEntries = 16;
constexpr uint32_t kTextSize = 128; // of the beginning, which is told
constexpr uint32_t kTicksPerSecond = 1000 / APP_MS_PER_TICK;

// A line that has been logged of late.  All of it under the registry's mutex of moments.
struct TEntry {
    uint32_t dwHash; // with the length and the beginning, for the whole text
    uint32_t dwLen;
    uint32_t dwBegin; // tick at which its second began
    uint32_t dwCount; // in this second
    uint32_t dwOwed;  // held back and not told
    uint32_t dwUse;   // the latest one is the most recently used
    uint8_t byChannel;
    uint8_t byLevel;
    bool bFileOnly;
    char achText[kTextSize];
};
TEntry s_atEntry[kEntries];
uint32_t s_dwUse;

enum class Verdict { Print, Hold, Again };

bool IsOver(const TEntry &entry, uint32_t dwNow)
{
    // Of a thread that has read the clock earlier, "now" may lie before the beginning.
    return static_cast<int32_t>(dwNow - entry.dwBegin) >= static_cast<int32_t>(kTicksPerSecond);
}

// What is owed moves to `told`.
bool Take(TEntry &entry, TEntry *ptTold)
{
    if (entry.dwOwed == 0)
        return false;
    *ptTold = entry;
    entry.dwOwed = 0;
    return true;
}

bool TakeOwed(uint8_t byChannel, bool bAll, uint32_t dwNow, TEntry *ptTold)
{
    for (TEntry &entry : s_atEntry)
        if (entry.byChannel == byChannel && (bAll || IsOver(entry, dwNow)) && Take(entry, ptTold))
            return true;
    return false;
}

bool IsSame(const TEntry &entry, const TEntry &other)
{
    return entry.dwHash == other.dwHash && entry.dwLen == other.dwLen &&
           entry.byChannel == other.byChannel && entry.byLevel == other.byLevel &&
           entry.bFileOnly == other.bFileOnly && AppStrcmp(entry.achText, other.achText) == 0;
}

// The line's entry, or else the one that has not been used for longest.
TEntry &FindEntry(const TEntry &wanted)
{
    TEntry *ptOldest = s_atEntry;
    for (TEntry &entry : s_atEntry) {
        if (IsSame(entry, wanted))
            return entry;
        if (s_dwUse - entry.dwUse > s_dwUse - ptOldest->dwUse)
            ptOldest = &entry;
    }
    return *ptOldest;
}

// Again: what is to be told comes first.
Verdict Judge(const TEntry &wanted, TEntry *ptTold)
{
    const app::RegistryGuard guard;
    app::TLogCount &count = app::g_atLogCount[wanted.byChannel];
    const uint32_t dwMost = app::Peek(count.dwMost);
    if (dwMost == 0) // since the caller looked: what is held back now nobody would tell
        return Verdict::Print;
    if (TakeOwed(wanted.byChannel, false, wanted.dwBegin, ptTold))
        return Verdict::Again;
    TEntry &entry = FindEntry(wanted);
    if (!IsSame(entry, wanted) || IsOver(entry, wanted.dwBegin)) {
        if (Take(entry, ptTold))
            return Verdict::Again;
        entry = wanted;
    }
    entry.dwUse = ++s_dwUse;
    if (entry.dwCount < dwMost) {
        ++entry.dwCount;
        return Verdict::Print;
    }
    ++entry.dwOwed;
    app::CountOne(count.dwHeldBack);
    return Verdict::Hold;
}

// At the level of the lines themselves, so that it gets where they would.
void Tell(const TEntry &told)
{
    char achLine[kTextSize + 80];
    const uint32_t dwLen = AppStrlen(told.achText);
    const bool bEnds = dwLen > 0 && told.achText[dwLen - 1] == '\n';
    AppSnprintf(achLine, sizeof(achLine),
                "[INFO ] %s: channel %d: %lu identical lines held back: %.*s\n", "AppLog",
                told.byChannel, app::Ul(told.dwOwed), app::Int(dwLen - bEnds), told.achText);
    app::PrintToSinks(told.byChannel, told.byLevel, told.bFileOnly, achLine);
}

} // namespace

void app::PrintLimited(uint8_t byChannel, uint8_t byLevel, bool bFileOnly, const char *szText)
{
    TEntry wanted = {};
    wanted.dwHash = AppStringHash(szText);
    wanted.dwLen = AppStrlen(szText);
    wanted.dwBegin = _AppGetTick();
    wanted.byChannel = byChannel;
    wanted.byLevel = byLevel;
    wanted.bFileOnly = bFileOnly;
    AppStrncpy(wanted.achText, szText, kTextSize);
    TEntry told;
    Verdict verdict;
    while ((verdict = Judge(wanted, &told)) == Verdict::Again)
        Tell(told);
    if (verdict == Verdict::Print)
        PrintToSinks(byChannel, byLevel, bFileOnly, szText);
}

void app::TellHeldBack(uint8_t byChannel)
{
    TEntry told;
    const auto take = [&] {
        const RegistryGuard guard;
        return TakeOwed(byChannel, true, 0, &told);
    };
    while (take())
        Tell(told);
}

void AppSetLogRepeat(uint8_t byChannel, uint32_t dwMost)
{
    {
        const app::RegistryGuard guard;
        app::Poke(app::g_atLogCount[byChannel].dwMost, dwMost);
    }
    if (dwMost == 0)
        app::TellHeldBack(byChannel);
}
