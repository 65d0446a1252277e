// SPDX-License-Identifier: MIT
#include "utils/held_lines.h"

#include <stdlib.h>

#include <atomic>
#include <new>

#include "appcore/foundation.h"

__thread app::THeldLines app::t_tHeldLines APP_FAST_TLS = {};

// The text follows.
struct app::THeldLine {
    THeldLine *ptNext;
    int32_t nSlot; // in the reserve, or kHeap
    uint8_t byChannel;
    uint8_t byLevel;
    bool bFileOnly;

    char *Text() { return reinterpret_cast<char *>(this + 1); }
};

namespace
{

using app::THeldLine;

constexpr int32_t kHeap = -1;

// A few lines of usual length find room here, so that lines about an exhausted heap are kept too.
constexpr int32_t kSlots = 8;
constexpr uint32_t kSlotSize = 256;
struct alignas(THeldLine) TSlot {
    char achBytes[kSlotSize];
};
TSlot s_atReserve[kSlots];
std::atomic<bool> s_abUsed[kSlots];

THeldLine *ClaimSlot(uint32_t dwSize)
{
    for (int32_t i = 0; dwSize <= kSlotSize && i < kSlots; ++i) {
        if (s_abUsed[i].exchange(true, std::memory_order_acquire))
            continue;
        return new (&s_atReserve[i]) THeldLine{nullptr, i, 0, 0, false};
    }
    return nullptr;
}

THeldLine *NewLine(uint32_t dwTextSize)
{
    const auto dwSize = static_cast<uint32_t>(sizeof(THeldLine)) + dwTextSize;
    if (THeldLine *ptLine = ClaimSlot(dwSize))
        return ptLine;
    void *pvLine = malloc(dwSize);
    return pvLine ? new (pvLine) THeldLine{nullptr, kHeap, 0, 0, false} : nullptr;
}

void Release(THeldLine *ptLine)
{
    if (ptLine->nSlot == kHeap)
        free(ptLine);
    else
        s_abUsed[ptLine->nSlot].store(false, std::memory_order_release);
}

} // namespace

bool app::KeepLine(uint8_t byChannel, uint8_t byLevel, bool bFileOnly, const char *szText)
{
    THeldLines &tLines = t_tHeldLines;
    if (tLines.dwGuards == 0)
        return false;
    const uint32_t dwTextSize = AppStrlen(szText) + 1;
    THeldLine *ptLine = NewLine(dwTextSize);
    if (!ptLine)
        return false;
    ptLine->byChannel = byChannel;
    ptLine->byLevel = byLevel;
    ptLine->bFileOnly = bFileOnly;
    AppMemcpy(ptLine->Text(), szText, dwTextSize);
    (tLines.ptFirst ? tLines.ptLast->ptNext : tLines.ptFirst) = ptLine;
    tLines.ptLast = ptLine;
    return true;
}

void app::PrintLines(THeldLines &tLines)
{
    // Taken off first: a console may use the library, whose guards must not find them.
    THeldLine *ptLine = tLines.ptFirst;
    tLines.ptFirst = nullptr;
    while (ptLine) {
        PrintLine(ptLine->byChannel, ptLine->byLevel, ptLine->bFileOnly, ptLine->Text());
        THeldLine *ptPrinted = ptLine;
        ptLine = ptLine->ptNext;
        Release(ptPrinted);
    }
}
