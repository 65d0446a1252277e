// SPDX-License-Identifier: MIT
#ifndef APPCORE_CROSS_LINUX_ERROR_TEXT_H
#define APPCORE_CROSS_LINUX_ERROR_TEXT_H

#include <errno.h>
#include <string.h>

#include "appcore/foundation.h"

namespace app
{

// An error number and its text, without strerror()'s shared buffer.
class ErrorText
{
public:
    explicit ErrorText(int nError)
        : m_nError(nError), m_szText(Choose(strerror_r(nError, m_achText, kSize)))
    {
    }
    ErrorText(const ErrorText &) = delete;
    ErrorText &operator=(const ErrorText &) = delete;

    int Number() const { return m_nError; }
    const char *Text() const { return m_szText; }

private:
    static constexpr size_t kSize = 64;

    // strerror_r() returns the text (GNU) or fills the buffer (POSIX), after the C library.
    const char *Choose(const char *szText) const { return szText; }
    const char *Choose(int) const { return m_achText; }

    int m_nError;
    char m_achText[kSize] = "";
    const char *m_szText;
};

} // namespace app

// Logs a system call's failure: the format and its arguments, of which the last two, the error's
// number and text ("%d %s"), are added here.  `nError` is read first, so errno will do; and errno
// tells it afterwards too, whatever the console has left there.
#define APP_LOG_ERRNO(nError, ...)                                                                 \
    do {                                                                                           \
        const app::ErrorText errorText(nError);                                                    \
        AppLog(0, APP_LOG_ERROR, __VA_ARGS__, errorText.Number(), errorText.Text());               \
        errno = errorText.Number();                                                                \
    } while (0)

#endif
