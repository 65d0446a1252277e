// SPDX-License-Identifier: MIT
//
// Fault injection for what Mini-XML allocates itself: the tests link its archive, so that the gates
// stand in front of its calls as well.
#include <stdarg.h>

#include "xml/mxml_version.h"

extern "C" int __wrap_vasprintf(char **pszText, const char *szFormat, va_list args);

// What vasprintf() is called in an archive built with fortified functions.
extern "C" int __wrap___vasprintf_chk(char **pszText, int, const char *szFormat, va_list args)
{
    return __wrap_vasprintf(pszText, szFormat, args);
}

// Mini-XML keeps a block for each thread that is never missed: the main thread's is made before
// blocks are counted.
[[maybe_unused]] static const int s_nMade = (mxmlSetErrorCallback(nullptr), 0);
