// SPDX-License-Identifier: MIT
#include <appcore/appcore.h>

int main(void)
{
    TAppNetAddr tAddr;
    char achAddr[8];
    AppLog(0, APP_LOG_ALWAYS, "station: runs with the library of its headers: %s\n",
           AppStrcmp(AppGetVersion(), APPCORE_VERSION_STRING) == 0 ? "yes" : "no");
    uint32_t dwResult = AppConvertStrtoNet("192.168.1.20", &tAddr);
    if (dwResult == APP_OK)
        dwResult = AppConvertNettoStr(&tAddr, achAddr, sizeof(achAddr));
    AppLog(0, APP_LOG_ALWAYS, "station: that was %u, APP_FAILED is %u\n", dwResult, APP_FAILED);
    return 0;
}
