// SPDX-License-Identifier: MIT
#ifndef APPCORE_UTILS_REPORT_WRITER_H
#define APPCORE_UTILS_REPORT_WRITER_H

#include "appcore/foundation.h"

namespace app
{

// Builds a report in pieces of at most 3071 bytes and hands them to the caller's callback.  It
// never allocates and takes no lock.  It costs 3 KB of stack, so nested reports share one writer.
class ReportWriter
{
public:
    ReportWriter(PFAppShow pfnShow, void *pvContext) : m_pfnShow(pfnShow), m_pvContext(pvContext)
    {
        Reset();
    }
    ReportWriter(const ReportWriter &) = delete;
    ReportWriter &operator=(const ReportWriter &) = delete;

    // Appends one formatted piece; hands over when more than 2048 bytes are pending.  A piece that
    // does not fit is handed over cut.
    void Line(const char *szFormat, ...) APP_PRINTF(2, 3);
    // Hands the pending text over, the empty text too, and starts again.
    void HandOver();
    // Hands over only when something is pending.
    void Flush();
    // Starts again without handing anything over.
    void Reset();

private:
    static constexpr uint32_t kRoom = 3071; // bytes of text; one more holds the terminator
    static constexpr uint32_t kFull = 2048;

    PFAppShow m_pfnShow;
    void *m_pvContext;
    uint32_t m_dwFree;
    char m_achText[kRoom + 1];
};

} // namespace app

#endif
