// SPDX-License-Identifier: MIT
#include "utils/report_writer.h"

#include <stdarg.h>

#include "cross_linux/cross_linux.h"
#include "utils/held_lines.h"

namespace app
{

void ReportWriter::Line(const char *szFormat, ...)
{
    va_list args;
    va_start(args, szFormat);
    const int32_t nWritten =
        _AppVsnprintf(m_achText + (kRoom - m_dwFree), m_dwFree + 1, szFormat, args);
    va_end(args);
    // A piece that was cut, or is empty, counts as filling the buffer, and goes out at once.
    m_dwFree = nWritten > 0 ? m_dwFree - static_cast<uint32_t>(nWritten) : 0;
    if (kRoom - m_dwFree > kFull)
        HandOver();
}

void ReportWriter::HandOver()
{
    if (m_pfnShow) {
        LinesAtOnce own; // the callback's lines are not kept until a lock of ours is given
        m_pfnShow(m_achText, m_pvContext);
    }
    Reset();
}

void ReportWriter::Flush()
{
    if (m_dwFree < kRoom)
        HandOver();
}

void ReportWriter::Reset()
{
    m_dwFree = kRoom;
    m_achText[0] = '\0';
}

} // namespace app
