// SPDX-License-Identifier: MIT
//
// Where functions begin that everything goes through.
#ifndef APPCORE_BASE_CODE_LINE_H
#define APPCORE_BASE_CODE_LINE_H

#include <stddef.h>

namespace app
{

// Bytes that a hot function is aligned to.  What lies between two of them is wanted for code where
// flash is scarce.
constexpr size_t CodeLine(size_t dwBytes)
{
    return sizeof(void *) > 4 ? dwBytes : 4;
}

} // namespace app

#endif
