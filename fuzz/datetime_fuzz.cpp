// SPDX-License-Identifier: MIT
//
// The dateTime reader beside an oracle that follows the definition with sscanf() and timegm()
// throughout; what it reads in full is written and read again.
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "appcore/convert.h"
#include "fuzz.h"

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
Fence s_text;

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

// The text by the definition; empty for a fraction that is none.
std::string OracleText(uint32_t dwTime, uint32_t bHasZone, const uint32_t *pdwMs,
                       const int32_t *pnZoneMin)
{
    const time_t nTime = static_cast<int32_t>(dwTime);
    struct tm tTime;
    gmtime_r(&nTime, &tTime);
    char achText[32];
    std::string text(achText, strftime(achText, sizeof(achText), "%Y-%m-%dT%H:%M:%S", &tTime));
    if (pdwMs)
        text += Printed(".%03d", static_cast<int>(*pdwMs));
    const long long qnZone = pnZoneMin ? *pnZoneMin : 0;
    if (bHasZone && qnZone == 0)
        text += "Z";
    else if (bHasZone)
        text += Printed("%c%02lld:%02lld", qnZone < 0 ? '-' : '+', llabs(qnZone) / 60,
                        llabs(qnZone) % 60);
    return text;
}

void CheckReadingBack(const std::string &text, uint32_t dwTime, uint32_t bHasZone, uint32_t dwMs,
                      int32_t nZoneMin)
{
    TRead again = {true, 0, 0, 0, 0};
    Require(AppConvertXsdDatetime2U32(text.c_str(), &again.dwTime, &again.bHasZone, &again.dwMs,
                                      &again.nZoneMin) == APP_OK);
    Require(again.dwTime == dwTime && again.dwMs == dwMs && again.bHasZone == bHasZone);
    Require(again.nZoneMin == (bHasZone ? nZoneMin : 0));
}

// Any of the optional values may be missing.
void CheckWriter(uint32_t dwTime, uint32_t bHasZone, const uint32_t *pdwMs,
                 const int32_t *pnZoneMin, uint32_t dwSize)
{
    const std::string wanted = OracleText(dwTime, bHasZone, pdwMs, pnZoneMin);
    char *szText = s_text.Place(dwSize);
    const uint32_t dwResult =
        AppConvertU322XsdDatetime(dwTime, bHasZone, pdwMs, pnZoneMin, szText, dwSize);
    const bool bBadMs = pdwMs && *pdwMs >= 1000 && dwSize > 19; // date and time come first
    if (dwSize == 0 || bBadMs)
        Require(dwResult == APP_INVALID_ARG);
    else
        Require(dwResult == (wanted.size() < dwSize ? APP_OK : APP_BUFFER_TOO_SMALL));
    if (dwResult != APP_OK)
        return;
    Require(szText == wanted);
    const int32_t nZoneMin = pnZoneMin ? *pnZoneMin : 0;
    // Offsets of 100 hours and more are written, but their hours are read as two digits.
    if (nZoneMin > -6000 && nZoneMin < 6000)
        CheckReadingBack(wanted, dwTime, bHasZone ? 1 : 0, pdwMs ? *pdwMs : 0, nZoneMin);
}

void CheckEveryWriter(uint32_t dwTime, uint32_t bHasZone, uint32_t dwMs, int32_t nZoneMin,
                      uint32_t dwSize)
{
    for (const uint32_t *pdwMs : {&dwMs, static_cast<uint32_t *>(nullptr)})
        for (const int32_t *pnZoneMin : {&nZoneMin, static_cast<int32_t *>(nullptr)})
            CheckWriter(dwTime, bHasZone, pdwMs, pnZoneMin, dwSize);
}

// A record of any fields, and the record of any time.
void CheckRecords(Parts parts)
{
    const auto wYear = static_cast<uint16_t>(parts.Byte() % 4 ? 1900 + parts.Byte() : parts.Word());
    const TAppTime time = {wYear,        parts.Byte(), parts.Byte(), parts.Byte(),
                           parts.Byte(), parts.Byte(), parts.Word()};
    Require(AppConvertTimeToU32(&time) == OracleTime({time.wYear, time.byMonth, time.byDay,
                                                      time.byHour, time.byMinute, time.bySecond}));
    const uint32_t dwTime = parts.Number();
    TAppTime again;
    memset(&again, 0xA5, sizeof(again));
    Require(AppConvertU32ToTime(dwTime, &again) == APP_OK && again.dwMs == 0);
    Require(AppConvertTimeToU32(&again) == dwTime);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    const std::string text = AsText(pbyData, nSize);
    const TRead wanted = Oracle(text.c_str());
    TRead read = {true, kUntouched, kUntouched, kUntouched, kUntouched};
    const uint32_t dwResult = AppConvertXsdDatetime2U32(text.c_str(), &read.dwTime, &read.bHasZone,
                                                        &read.dwMs, &read.nZoneMin);
    Require(dwResult == (wanted.bValid ? APP_OK : APP_INVALID_ARG));
    Require(dwResult ==
            AppConvertXsdDatetime2U32(text.c_str(), nullptr, nullptr, nullptr, nullptr));
    const TRead kept = {true, kUntouched, kUntouched, kUntouched, kUntouched};
    const TRead &told = wanted.bValid ? wanted : kept;
    Require(read.dwTime == told.dwTime && read.bHasZone == told.bHasZone &&
            read.dwMs == told.dwMs && read.nZoneMin == told.nZoneMin);
    if (wanted.bValid)
        CheckEveryWriter(read.dwTime, read.bHasZone, read.dwMs, read.nZoneMin, 60);
    Parts parts(pbyData, nSize);
    const uint32_t dwTime = parts.Number(), bHasZone = parts.Byte() % 3, dwMs = parts.Number();
    const auto nZoneMin = static_cast<int32_t>(parts.Number());
    CheckEveryWriter(dwTime, bHasZone, dwMs % 1024, nZoneMin % 6000, 60);
    CheckEveryWriter(dwTime, bHasZone, dwMs % 1024, nZoneMin, parts.Byte() % 45);
    CheckRecords(parts);
    Require(TakeLines() == 0);
    return 0;
}
