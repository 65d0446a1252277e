// SPDX-License-Identifier: MIT
//
// Lines that are logged while a lock of the library is held.  A line on a serial console takes
// milliseconds, and a console may call the library; printed under a lock, either would hold up
// whoever needs that lock, or itself.  So they wait while a guard of the thread holds one, and are
// printed in their order when the outermost guard has given its own.
#ifndef APPCORE_UTILS_HELD_LINES_H
#define APPCORE_UTILS_HELD_LINES_H

#include <stdint.h>

#include "base/fast_tls.h"
#include "utils/lock_rank.h"

namespace app
{

struct THeldLine;

// The calling thread's.
struct THeldLines {
    uint32_t dwGuards; // that hold a lock
    bool bNoErrors;    // see ErrorLines
    THeldLine *ptFirst;
    THeldLine *ptLast;
};
// Looked at twice for each guard.
extern __thread THeldLines t_tHeldLines APP_FAST_TLS;

// Prints what `tLines` holds; its guards stay.
void PrintLines(THeldLines &tLines);
// Keeps a copy of a finished text if a guard holds a lock and there is memory for it.
bool KeepLine(uint8_t byChannel, uint8_t byLevel, bool bFileOnly, const char *szText);

// A guard has taken its lock.
inline void BeginHolding()
{
    ++t_tHeldLines.dwGuards;
}
// And given it.
inline void EndHolding()
{
    if (--t_tHeldLines.dwGuards == 0 && t_tHeldLines.ptFirst)
        PrintLines(t_tHeldLines);
}

// For a scope in which a callback runs: what it logs is its own affair and printed at once.
class [[nodiscard]] LinesAtOnce
{
public:
    LinesAtOnce() : m_tHeld(t_tHeldLines) { t_tHeldLines = {}; }
    ~LinesAtOnce() { t_tHeldLines = m_tHeld; }
    LinesAtOnce(const LinesAtOnce &) = delete;
    LinesAtOnce &operator=(const LinesAtOnce &) = delete;

    // Prints what has been kept so far; no lock is held now.
    void PrintHeld()
    {
        if (m_tHeld.ptFirst)
            PrintLines(m_tHeld);
    }

private:
    THeldLines m_tHeld;
#ifdef APPCORE_CHECKS
    LocksAside m_locks;
#endif
};

// For a scope whose failures harm nobody: their ERROR lines are dropped; or, within such a scope,
// for one whose lines are not.
class [[nodiscard]] ErrorLines
{
public:
    explicit ErrorLines(bool bDrop) : m_bOuter(t_tHeldLines.bNoErrors)
    {
        t_tHeldLines.bNoErrors = bDrop;
    }
    ~ErrorLines() { t_tHeldLines.bNoErrors = m_bOuter; }
    ErrorLines(const ErrorLines &) = delete;
    ErrorLines &operator=(const ErrorLines &) = delete;

private:
    bool m_bOuter;
};

// The last step of every log line: the channel's sinks.  In log.cpp.
void PrintLine(uint8_t byChannel, uint8_t byLevel, bool bFileOnly, const char *szText);

} // namespace app

#endif
