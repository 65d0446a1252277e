// SPDX-License-Identifier: MIT
#include "appcore/convert.h"
#include "cross_linux/cross_linux.h"
#include "utils/log.h"

static_assert(sizeof(TAppTime) == 12, "fixed layout");

namespace
{

bool IsDigit(char ch)
{
    return ch >= '0' && ch <= '9';
}

// `nDigits` digits at `szText`; false when there is anything else.
bool ReadDigits(const char *szText, int nDigits, int *pnValue)
{
    *pnValue = 0;
    for (int i = 0; i < nDigits; ++i) {
        if (!IsDigit(szText[i]))
            return false;
        *pnValue = *pnValue * 10 + (szText[i] - '0');
    }
    return true;
}

struct TField {
    int nOffset;
    int nDigits;
    char chAfter; // behind the digits; '\0' for whatever stands there
};

// "2024-03-05T14:07:09"
constexpr TField kDateTime[] = {{0, 4, '-'},  {5, 2, '-'},  {8, 2, 'T'},
                                {11, 2, ':'}, {14, 2, ':'}, {17, 2, '\0'}};
constexpr int kFields = 6;

// The plain form, in one pass.  Stops at the first difference, so it never reads past the end.
bool ReadPlain(const char *szText, int (&anField)[kFields])
{
    for (int i = 0; i < kFields; ++i) {
        const TField &field = kDateTime[i];
        if (!ReadDigits(szText + field.nOffset, field.nDigits, &anField[i]))
            return false;
        if (field.chAfter != '\0' && szText[field.nOffset + field.nDigits] != field.chAfter)
            return false;
    }
    return true;
}

bool ReadDateTime(const char *szText, TAppTime *ptTime)
{
    int anField[kFields] = {};
    // Shortened fields, signs and blanks are the pattern's to judge.
    if (!szText || (!ReadPlain(szText, anField) &&
                    AppSscanf(szText, "%04d-%02d-%02dT%02d:%02d:%02d", &anField[0], &anField[1],
                              &anField[2], &anField[3], &anField[4], &anField[5]) != kFields))
        return false;
    ptTime->wYear = static_cast<uint16_t>(anField[0]);
    ptTime->byMonth = static_cast<uint8_t>(anField[1]);
    ptTime->byDay = static_cast<uint8_t>(anField[2]);
    ptTime->byHour = static_cast<uint8_t>(anField[3]);
    ptTime->byMinute = static_cast<uint8_t>(anField[4]);
    ptTime->bySecond = static_cast<uint8_t>(anField[5]);
    return true;
}

uint32_t ReadMs(const char *szText)
{
    const char *szDigit = AppStrchr(szText, '.');
    if (!szDigit)
        return 0;
    ++szDigit;
    uint32_t dwMs = 0;
    for (int i = 0; i < 3; ++i) {
        dwMs *= 10;
        // Digits that are missing count as zero, those behind the third are dropped.
        if (IsDigit(*szDigit))
            dwMs += static_cast<uint32_t>(*szDigit++ - '0');
    }
    return dwMs;
}

// "+01:00" or "-05:30"; hours and minutes are held in 8 bits each.
bool ReadOffset(const char *szZone, int32_t *pnMinutes)
{
    int nHours = 0;
    int nMinutes = 0;
    if ((!ReadDigits(szZone + 1, 2, &nHours) || szZone[3] != ':' ||
         !ReadDigits(szZone + 4, 2, &nMinutes)) &&
        AppSscanf(szZone + 1, "%02d:%02d", &nHours, &nMinutes) != 2)
        return false;
    *pnMinutes = static_cast<uint8_t>(nHours) * 60 + static_cast<uint8_t>(nMinutes);
    return true;
}

struct TZone {
    uint32_t bHas;
    bool bNumeric;
    int32_t nMinutes;
};

bool ReadZone(const char *szText, TZone *ptZone)
{
    *ptZone = {};
    if (AppStrchr(szText, 'Z')) {
        ptZone->bHas = 1;
        return true;
    }
    const char *szTime = AppStrchr(szText, ':'); // behind the date and its hyphens
    // A minus wins over a plus, wherever they stand.
    const char *szMinus = AppStrchr(szTime, '-');
    const char *szSign = szMinus ? szMinus : AppStrchr(szTime, '+');
    if (!szSign)
        return true;
    if (!ReadOffset(szSign, &ptZone->nMinutes))
        return false;
    ptZone->bHas = 1;
    ptZone->bNumeric = true;
    if (szMinus)
        ptZone->nMinutes = -ptZone->nMinutes;
    return true;
}

// Appends pieces to the caller's buffer; false once a piece has been cut.
class TextWriter
{
public:
    TextWriter(char *szBuf, uint32_t dwSize) : m_szEnd(szBuf), m_dwRoom(dwSize - 1)
    {
        *m_szEnd = '\0';
    }

    bool Append(char ch)
    {
        if (m_dwRoom == 0)
            return false;
        --m_dwRoom;
        *m_szEnd++ = ch;
        *m_szEnd = '\0';
        return true;
    }

    // At least `nDigits` digits.  Out of line: in line it is as long as the rest of this file.
    [[gnu::noinline]] bool Append(uint32_t dwValue, int nDigits)
    {
        if ((nDigits > 1 || dwValue >= 10) && !Append(dwValue / 10, nDigits > 1 ? nDigits - 1 : 1))
            return false;
        return Append(static_cast<char>('0' + dwValue % 10));
    }

private:
    char *m_szEnd;
    uint32_t m_dwRoom; // characters, the terminator not counted
};

bool WriteDateTime(TextWriter &writer, const TAppTime &time)
{
    return writer.Append(time.wYear, 4) && writer.Append('-') && writer.Append(time.byMonth, 2) &&
           writer.Append('-') && writer.Append(time.byDay, 2) && writer.Append('T') &&
           writer.Append(time.byHour, 2) && writer.Append(':') && writer.Append(time.byMinute, 2) &&
           writer.Append(':') && writer.Append(time.bySecond, 2);
}

bool WriteZone(TextWriter &writer, const int32_t *pnZoneMin)
{
    if (!pnZoneMin || *pnZoneMin == 0)
        return writer.Append('Z');
    // Unsigned, because the most negative offset has no positive twin.
    const uint32_t dwMinutes =
        *pnZoneMin < 0 ? 0u - static_cast<uint32_t>(*pnZoneMin) : static_cast<uint32_t>(*pnZoneMin);
    return writer.Append(*pnZoneMin < 0 ? '-' : '+') && writer.Append(dwMinutes / 60, 2) &&
           writer.Append(':') && writer.Append(dwMinutes % 60, 2);
}

} // namespace

uint32_t AppConvertTimeToU32(const TAppTime *ptTime)
{
    return ptTime ? _AppMktime32(ptTime) : 0;
}

uint32_t AppConvertU32ToTime(uint32_t dwTime, TAppTime *ptTime)
{
    if (!ptTime)
        return APP_INVALID_ARG;
    return _AppGmtime32(dwTime, ptTime);
}

uint32_t AppConvertXsdDatetime2U32(const char *szDatetime, uint32_t *pdwTime, uint32_t *pbHasZone,
                                   uint32_t *pdwMs, int32_t *pnZoneMin)
{
    TAppTime time = {};
    TZone zone;
    if (!ReadDateTime(szDatetime, &time) || !ReadZone(szDatetime, &zone))
        return APP_INVALID_ARG;
    if (pdwTime)
        *pdwTime = AppConvertTimeToU32(&time);
    if (pbHasZone)
        *pbHasZone = zone.bHas;
    if (pdwMs)
        *pdwMs = ReadMs(szDatetime);
    // "Z" leaves the caller's value alone.
    if (pnZoneMin && zone.bNumeric)
        *pnZoneMin = zone.nMinutes;
    return APP_OK;
}

uint32_t AppConvertU322XsdDatetime(uint32_t dwTime, uint32_t bHasZone, const uint32_t *pdwMs,
                                   const int32_t *pnZoneMin, char *szBuf, uint32_t dwBufSize)
{
    if (!szBuf || dwBufSize == 0)
        return APP_INVALID_ARG;
    TAppTime time;
    const uint32_t dwResult = AppConvertU32ToTime(dwTime, &time);
    if (dwResult != APP_OK) {
        APP_LOG_RESULT(dwResult, "[ERROR] %s: AppConvertU32ToTime with %u failed (%d)\n", __func__,
                       dwTime);
        return dwResult;
    }
    TextWriter writer(szBuf, dwBufSize);
    if (!WriteDateTime(writer, time))
        return APP_BUFFER_TOO_SMALL;
    if (pdwMs) {
        if (*pdwMs >= 1000)
            return APP_INVALID_ARG;
        if (!writer.Append('.') || !writer.Append(*pdwMs, 3))
            return APP_BUFFER_TOO_SMALL;
    }
    if (bHasZone != 0 && !WriteZone(writer, pnZoneMin))
        return APP_BUFFER_TOO_SMALL;
    return APP_OK;
}
