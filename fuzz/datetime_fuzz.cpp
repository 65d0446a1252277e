// SPDX-License-Identifier: MIT
//
// The dateTime reader beside an oracle that follows the definition with sscanf() and timegm()
// throughout; what it reads in full is written and read again.
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "appcore/convert.h"
#include "appcore/host.h"
#include "fuzz.h"

APP_FUZZ_SILENT_CONSOLE

namespace
{

struct TRead {
    bool bValid;
    uint32_t dwTime;
    uint32_t bHasZone;
    uint32_t dwMs;
    int32_t nZoneMin;
};

constexpr int32_t kUntouched = 123456;

uint32_t OracleTime(const int (&anField)[6])
{
    struct tm tTime = {};
    tTime.tm_year = static_cast<uint16_t>(anField[0]) - 1900;
    tTime.tm_mon = static_cast<uint8_t>(anField[1]) - 1;
    tTime.tm_mday = static_cast<uint8_t>(anField[2]);
    tTime.tm_hour = static_cast<uint8_t>(anField[3]);
    tTime.tm_min = static_cast<uint8_t>(anField[4]);
    tTime.tm_sec = static_cast<uint8_t>(anField[5]);
    const int64_t qnTime = timegm(&tTime);
    return qnTime < INT32_MIN || qnTime > INT32_MAX ? UINT32_MAX : static_cast<uint32_t>(qnTime);
}

uint32_t OracleMs(const char *szText)
{
    const char *szDigit = strchr(szText, '.');
    uint32_t dwMs = 0;
    for (int i = 0; szDigit && i < 3; ++i) {
        const bool bDigit = szDigit[1] >= '0' && szDigit[1] <= '9';
        dwMs = dwMs * 10 + (bDigit ? static_cast<uint32_t>(szDigit[1] - '0') : 0);
        szDigit += bDigit ? 1 : 0;
    }
    return dwMs;
}

TRead Oracle(const char *szText)
{
    TRead read = {false, 0, 0, 0, kUntouched};
    int anField[6];
    if (sscanf(szText, "%04d-%02d-%02dT%02d:%02d:%02d", &anField[0], &anField[1], &anField[2],
               &anField[3], &anField[4], &anField[5]) != 6)
        return read;
    read.dwTime = OracleTime(anField);
    read.dwMs = OracleMs(szText);
    const char *szTime = strchr(szText, ':');
    int nHours = 0, nMinutes = 0;
    if (strchr(szText, 'Z')) {
        read.bHasZone = 1;
    } else if (const char *szMinus = strchr(szTime, '-')) {
        if (sscanf(szMinus, "-%02d:%02d", &nHours, &nMinutes) != 2)
            return read;
        read.bHasZone = 1;
        read.nZoneMin = -(static_cast<uint8_t>(nHours) * 60 + static_cast<uint8_t>(nMinutes));
    } else if (const char *szPlus = strchr(szTime, '+')) {
        if (sscanf(szPlus, "+%02d:%02d", &nHours, &nMinutes) != 2)
            return read;
        read.bHasZone = 1;
        read.nZoneMin = static_cast<uint8_t>(nHours) * 60 + static_cast<uint8_t>(nMinutes);
    }
    read.bValid = true;
    return read;
}

void CheckWriter(const TRead &read, uint32_t dwSize)
{
    const int32_t nZoneMin = read.nZoneMin == kUntouched ? 0 : read.nZoneMin;
    char achText[64];
    memset(achText, '#', sizeof(achText));
    const uint32_t dwResult = AppConvertU322XsdDatetime(read.dwTime, read.bHasZone, &read.dwMs,
                                                        &nZoneMin, achText, dwSize);
    Require(achText[dwSize] == '#');
    // Offsets of 100 hours and more are written, but their hours are read as two digits.
    if (dwResult != APP_OK || abs(nZoneMin) >= 6000)
        return;
    TRead again = {true, 0, 0, 0, 0};
    Require(AppConvertXsdDatetime2U32(achText, &again.dwTime, &again.bHasZone, &again.dwMs,
                                      &again.nZoneMin) == APP_OK);
    Require(again.dwTime == read.dwTime && again.dwMs == read.dwMs &&
            again.bHasZone == read.bHasZone && (!read.bHasZone || again.nZoneMin == nZoneMin));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    const std::string text = AsText(pbyData, nSize);
    const TRead wanted = Oracle(text.c_str());
    TRead read = {true, 0, 0, 0, kUntouched};
    const uint32_t dwResult = AppConvertXsdDatetime2U32(text.c_str(), &read.dwTime, &read.bHasZone,
                                                        &read.dwMs, &read.nZoneMin);
    Require(dwResult == (wanted.bValid ? APP_OK : APP_INVALID_ARG));
    if (!wanted.bValid)
        return 0;
    Require(read.dwTime == wanted.dwTime && read.bHasZone == wanted.bHasZone &&
            read.dwMs == wanted.dwMs && read.nZoneMin == wanted.nZoneMin);
    CheckWriter(read, 60);
    CheckWriter(read, static_cast<uint32_t>(nSize % 40));
    return 0;
}
