// SPDX-License-Identifier: MIT
//
// Lines that are logged while a lock of the library is held.  A line on a serial console takes
// milliseconds, and a console may call the library; printed under a lock, either would hold up
// whoever needs that lock, or itself.  So the outermost guard of a thread keeps the lines, and
// prints them in their order when its lock has been given.
#ifndef APPCORE_UTILS_HELD_LINES_H
#define APPCORE_UTILS_HELD_LINES_H

#include <stdint.h>

#include "utils/lock_rank.h"

namespace app
{

struct THeldLine;
class HeldLines;

// The calling thread's, or null.  Of the initial-exec model: read twice for each guard.
extern __thread HeldLines *t_ptHeldLines __attribute__((tls_model("initial-exec")));

class HeldLines
{
public:
    HeldLines() = default;
    HeldLines(const HeldLines &) = delete;
    HeldLines &operator=(const HeldLines &) = delete;

    // Lines wait from here on, unless an outer guard keeps them already.
    void Begin()
    {
        if (!t_ptHeldLines)
            t_ptHeldLines = this;
    }
    // The lock has been given: prints what has come, if this is the outermost guard's.
    void End()
    {
        if (t_ptHeldLines != this)
            return;
        t_ptHeldLines = nullptr;
        if (m_ptFirst)
            Print();
    }

    // Keeps a copy of a finished text; false when there is no memory for it.
    bool Keep(uint8_t byChannel, uint8_t byLevel, bool bFileOnly, const char *szText);
    void Print();

private:
    THeldLine *m_ptFirst = nullptr;
    THeldLine *m_ptLast = nullptr;
};

// For a scope in which a callback runs: what it logs is its own affair and printed at once.
class [[nodiscard]] LinesAtOnce
{
public:
    LinesAtOnce() : m_ptHeld(t_ptHeldLines) { t_ptHeldLines = nullptr; }
    ~LinesAtOnce() { t_ptHeldLines = m_ptHeld; }
    LinesAtOnce(const LinesAtOnce &) = delete;
    LinesAtOnce &operator=(const LinesAtOnce &) = delete;

    // Prints what has been kept so far; no lock is held now.
    void PrintHeld()
    {
        if (m_ptHeld)
            m_ptHeld->Print();
    }

private:
    HeldLines *m_ptHeld;
#ifdef APPCORE_CHECKS
    LocksAside m_locks;
#endif
};

// The last step of every log line: the channel's sinks.  In log.cpp.
void PrintLine(uint8_t byChannel, uint8_t byLevel, bool bFileOnly, const char *szText);

} // namespace app

#endif
