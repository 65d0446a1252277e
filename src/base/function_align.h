// SPDX-License-Identifier: MIT
//
// Where functions begin that everything goes through.
#ifndef APPCORE_BASE_FUNCTION_ALIGN_H
#define APPCORE_BASE_FUNCTION_ALIGN_H

#include <stddef.h>

namespace app
{

// For the aligned attribute of a hot function.  On 32-bit machines, where flash is scarce, the bytes
// between two such functions cost a page of the library.
constexpr size_t FunctionAlign(size_t nBytes)
{
    return sizeof(void *) > 4 ? nBytes : 4;
}

} // namespace app

#endif
