// SPDX-License-Identifier: MIT
#ifndef APPCORE_CROSS_LINUX_ERROR_TEXT_H
#define APPCORE_CROSS_LINUX_ERROR_TEXT_H

#include <string.h>

namespace app
{

// The text of an error number, without strerror()'s shared buffer.  For one full expression:
// AppLog(…, nError, app::ErrorText(nError).Text()).
class ErrorText
{
public:
    explicit ErrorText(int nError) { m_szText = Choose(strerror_r(nError, m_achText, kSize)); }
    const char *Text() const { return m_szText; }

private:
    static constexpr size_t kSize = 64;

    // strerror_r() returns the text (GNU) or fills the buffer (POSIX), after the C library.
    const char *Choose(const char *szText) const { return szText; }
    const char *Choose(int) const { return m_achText; }

    char m_achText[kSize] = "";
    const char *m_szText;
};

} // namespace app

#endif
