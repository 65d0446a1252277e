// SPDX-License-Identifier: MIT
#include "appcore/foundation.h"

namespace
{

// Without pointers, which the loader would have to fill in.
constexpr struct {
    uint8_t byResult;
    char achName[21];
} s_atName[] = {
    {APP_OK, "APP_OK"},
    {APP_FAILED, "APP_FAILED"},
    {APP_INVALID_ARG, "APP_INVALID_ARG"},
    {APP_NO_RESOURCE, "APP_NO_RESOURCE"},
    {APP_INVALID_STATE, "APP_INVALID_STATE"},
    {APP_TIMEOUT, "APP_TIMEOUT"},
    {APP_BUFFER_TOO_SMALL, "APP_BUFFER_TOO_SMALL"},
    {APP_NOT_FOUND, "APP_NOT_FOUND"},
    {APP_XML_NODE_INVALID, "APP_XML_NODE_INVALID"},
    {APP_BAD_VALUE, "APP_BAD_VALUE"},
    {APP_IN_PROGRESS, "APP_IN_PROGRESS"},
};

} // namespace

const char *AppGetResultName(uint32_t dwResult)
{
    for (const auto &tName : s_atName)
        if (tName.byResult == dwResult)
            return tName.achName;
    return "UNKNOWN";
}
