// SPDX-License-Identifier: MIT
//
// The bounded string operations on buffers of every size: they never leave the buffer, always
// terminate it, and agree with what the buffer then holds.
#include "appcore/foundation.h"

#include <string.h>

#include <string>
#include <vector>

#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    if (nSize < 2)
        return 0;
    const uint32_t dwBuf = pbyData[0] + 1u;
    const size_t nFirst = pbyData[1] % (nSize - 1);
    const std::string strFirst(reinterpret_cast<const char *>(pbyData + 2), nFirst);
    const std::string strSecond(reinterpret_cast<const char *>(pbyData + 2 + nFirst),
                                nSize - 2 - nFirst);
    std::vector<char> buf(dwBuf, 'x');

    AppStrncpy(buf.data(), strFirst.c_str(), dwBuf);
    const size_t nCopied = strnlen(buf.data(), dwBuf);
    Require(nCopied < dwBuf && strncmp(buf.data(), strFirst.c_str(), nCopied) == 0);

    AppStrncat(buf.data(), strSecond.c_str(), dwBuf);
    Require(strnlen(buf.data(), dwBuf) < dwBuf);

    std::fill(buf.begin(), buf.end(), 'x');
    AppStrncat(buf.data(), strSecond.c_str(), dwBuf);
    Require(strnlen(buf.data(), dwBuf) < dwBuf);

    const int32_t nWritten =
        AppSnprintf(buf.data(), dwBuf, "%s|%s", strFirst.c_str(), strSecond.c_str());
    Require(nWritten < 0 ? strlen(buf.data()) == dwBuf - 1
                         : strlen(buf.data()) == static_cast<size_t>(nWritten));

    std::vector<char> dump(dwBuf * 8);
    const int32_t nDumped = AppDumpMem(pbyData, static_cast<uint32_t>(nSize), dump.data(),
                                       static_cast<uint32_t>(dump.size()));
    Require(nDumped == 0 || strlen(dump.data()) == static_cast<size_t>(nDumped));
    Require(AppStringHash(strFirst.c_str()) <= 0x7fffffff);
    return 0;
}
