// SPDX-License-Identifier: MIT
//
// What discovery makes of any datagram.
#include "camera.h"
#include "fuzz.h"
#include "soap.h"

namespace camera
{

HAppMemPool g_hPool;
uint8_t g_byNetLog;

} // namespace camera

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    const std::string text(reinterpret_cast<const char *>(pbyData), nSize);
    camera::TSoapMessage tMessage;
    camera::SoapParse(text.data(), static_cast<uint32_t>(nSize), &tMessage);
    camera::SoapFree(&tMessage);
    return 0;
}
