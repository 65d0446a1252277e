// SPDX-License-Identifier: MIT
#include <time.h>

#include "cross_linux/cross_linux.h"

namespace
{

// A time that does not fit 32 bits, as timegm() reports it where time_t has 32 bits.
constexpr uint32_t kNoTime = UINT32_MAX;

// Days from 1970-01-01 to a date of the Gregorian calendar.  The year is taken to begin in March,
// so that the leap day is its last.
int64_t DaysTo(int32_t nYear, int32_t nMonth, int32_t nDay)
{
    nYear -= nMonth <= 2 ? 1 : 0;
    const int32_t nEra = nYear / 400;
    const int32_t nYearOfEra = nYear - nEra * 400;
    const int32_t nDayOfYear = (153 * (nMonth > 2 ? nMonth - 3 : nMonth + 9) + 2) / 5 + nDay - 1;
    const int32_t nDayOfEra = nYearOfEra * 365 + nYearOfEra / 4 - nYearOfEra / 100 + nDayOfYear;
    return nEra * int64_t{146097} + nDayOfEra - 719468;
}

// timegm() for the years that TAppTime can hold, months 1 to 12 and any other field: the day, hour,
// minute and second carry over by themselves.
int64_t SecondsTo(const TAppTime *ptTime)
{
    const int64_t qnDays = DaysTo(ptTime->wYear, ptTime->byMonth, ptTime->byDay);
    return ((qnDays * 24 + ptTime->byHour) * 60 + ptTime->byMinute) * 60 + ptTime->bySecond;
}

int64_t SecondsByTimegm(const TAppTime *ptTime)
{
    struct tm tTime = {};
    tTime.tm_year = ptTime->wYear - 1900;
    tTime.tm_mon = ptTime->byMonth - 1;
    tTime.tm_mday = ptTime->byDay;
    tTime.tm_hour = ptTime->byHour;
    tTime.tm_min = ptTime->byMinute;
    tTime.tm_sec = ptTime->bySecond;
    return timegm(&tTime);
}

} // namespace

uint32_t _AppMktime32(const TAppTime *ptTime)
{
    // timegm() takes a lock and looks at the time zone's file; a regular date needs neither.
    const bool bRegular = ptTime->wYear > 0 && ptTime->byMonth >= 1 && ptTime->byMonth <= 12;
    const int64_t qnTime = bRegular ? SecondsTo(ptTime) : SecondsByTimegm(ptTime);
    return qnTime >= INT32_MIN && qnTime <= INT32_MAX ? static_cast<uint32_t>(qnTime) : kNoTime;
}

uint32_t _AppGmtime32(uint32_t dwTime, TAppTime *ptTime)
{
    const time_t nTime = static_cast<int32_t>(dwTime);
    struct tm tTime;
    if (!gmtime_r(&nTime, &tTime))
        return APP_FAILED;
    ptTime->wYear = static_cast<uint16_t>(tTime.tm_year + 1900);
    ptTime->byMonth = static_cast<uint8_t>(tTime.tm_mon + 1);
    ptTime->byDay = static_cast<uint8_t>(tTime.tm_mday);
    ptTime->byHour = static_cast<uint8_t>(tTime.tm_hour);
    ptTime->byMinute = static_cast<uint8_t>(tTime.tm_min);
    ptTime->bySecond = static_cast<uint8_t>(tTime.tm_sec);
    ptTime->dwMs = 0;
    return APP_OK;
}
