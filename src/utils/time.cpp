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

// Two digits; false when there is anything else.  Never reads past the end.
inline bool ReadTwo(const char *szText, int *pnValue)
{
    if (!IsDigit(szText[0]) || !IsDigit(szText[1]))
        return false;
    *pnValue = (szText[0] - '0') * 10 + (szText[1] - '0');
    return true;
}

constexpr int kFields = 6;
constexpr int kPlainLength = 19;

// The plain form, "2024-03-05T14:07:09".
bool ReadPlain(const char *szText, int (&anField)[kFields])
{
    int nCentury;
    if (!ReadTwo(szText, &nCentury) || !ReadTwo(szText + 2, &anField[0]))
        return false;
    anField[0] += nCentury * 100;
    const char *szField = szText + 4;
    for (int i = 0; i < kFields - 1; ++i, szField += 3)
        if (*szField != "--T::"[i] || !ReadTwo(szField + 1, &anField[i + 1]))
            return false;
    return true;
}

// What may follow the seconds, each the first of its kind; null where there is none.
struct TTail {
    const char *szDot;
    const char *szZulu;
    const char *szMinus; // the signs behind the first colon only: those before are the date's
    const char *szPlus;
};

void Note(const char **pszFirst, const char *szAt)
{
    if (!*pszFirst)
        *pszFirst = szAt;
}

TTail FindTail(const char *szText, bool bBehindColon)
{
    TTail tail = {};
    for (; *szText != '\0'; ++szText) {
        if (IsDigit(*szText)) // most are
            continue;
        if (*szText == '.')
            Note(&tail.szDot, szText);
        else if (*szText == 'Z')
            Note(&tail.szZulu, szText);
        else if (*szText == ':')
            bBehindColon = true;
        else if (*szText == '-' && bBehindColon)
            Note(&tail.szMinus, szText);
        else if (*szText == '+' && bBehindColon)
            Note(&tail.szPlus, szText);
    }
    return tail;
}

bool ReadDateTime(const char *szText, TAppTime *ptTime, TTail *ptTail)
{
    int anField[kFields] = {};
    if (!szText)
        return false;
    if (ReadPlain(szText, anField))
        *ptTail = FindTail(szText + kPlainLength, true);
    // Shortened fields, signs and blanks are the pattern's to judge.
    else if (AppSscanf(szText, "%04d-%02d-%02dT%02d:%02d:%02d", &anField[0], &anField[1],
                       &anField[2], &anField[3], &anField[4], &anField[5]) == kFields)
        *ptTail = FindTail(szText, false);
    else
        return false;
    ptTime->wYear = static_cast<uint16_t>(anField[0]);
    ptTime->byMonth = static_cast<uint8_t>(anField[1]);
    ptTime->byDay = static_cast<uint8_t>(anField[2]);
    ptTime->byHour = static_cast<uint8_t>(anField[3]);
    ptTime->byMinute = static_cast<uint8_t>(anField[4]);
    ptTime->bySecond = static_cast<uint8_t>(anField[5]);
    return true;
}

uint32_t ReadMs(const char *szDot)
{
    if (!szDot)
        return 0;
    const char *szDigit = szDot + 1;
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
    if ((!ReadTwo(szZone + 1, &nHours) || szZone[3] != ':' || !ReadTwo(szZone + 4, &nMinutes)) &&
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

bool ReadZone(const TTail &tail, TZone *ptZone)
{
    *ptZone = {};
    // A minus wins over a plus, wherever they stand.
    const char *szSign = tail.szMinus ? tail.szMinus : tail.szPlus;
    ptZone->bHas = tail.szZulu || szSign ? 1 : 0;
    if (tail.szZulu || !szSign)
        return true;
    if (!ReadOffset(szSign, &ptZone->nMinutes))
        return false;
    ptZone->bNumeric = true;
    if (tail.szMinus)
        ptZone->nMinutes = -ptZone->nMinutes;
    return true;
}

// The text as a whole, before it is known how much of it the caller's buffer takes.
class TextWriter
{
public:
    void Append(char ch) { *m_szEnd++ = ch; }
    void AppendTwo(uint32_t dwValue)
    {
        Append(static_cast<char>('0' + dwValue / 10));
        Append(static_cast<char>('0' + dwValue % 10));
    }

    // False when it is cut.
    bool CopyTo(char *szBuf, uint32_t dwSize) const
    {
        const auto dwLen = static_cast<uint32_t>(m_szEnd - m_achText);
        const uint32_t dwCopied = dwLen < dwSize ? dwLen : dwSize - 1;
        AppMemcpy(szBuf, m_achText, dwCopied);
        szBuf[dwCopied] = '\0';
        return dwCopied == dwLen;
    }

private:
    char m_achText[48]; // the date, milliseconds, and a zone of eight digits' hours are 35
    char *m_szEnd = m_achText;
};

void WriteDateTime(TextWriter &writer, const TAppTime &time)
{
    writer.AppendTwo(time.wYear / 100u); // 1970 to 2106
    writer.AppendTwo(time.wYear % 100u);
    writer.Append('-');
    writer.AppendTwo(time.byMonth);
    writer.Append('-');
    writer.AppendTwo(time.byDay);
    writer.Append('T');
    writer.AppendTwo(time.byHour);
    writer.Append(':');
    writer.AppendTwo(time.byMinute);
    writer.Append(':');
    writer.AppendTwo(time.bySecond);
}

void WriteMs(TextWriter &writer, uint32_t dwMs)
{
    writer.Append('.');
    writer.Append(static_cast<char>('0' + dwMs / 100));
    writer.AppendTwo(dwMs % 100);
}

// Two digits, or as many as it takes.
void WriteHours(TextWriter &writer, uint32_t dwHours)
{
    char achDigit[10]; // from the last one on
    uint32_t dwCount = 0;
    for (; dwHours > 0 || dwCount < 2; dwHours /= 10)
        achDigit[dwCount++] = static_cast<char>('0' + dwHours % 10);
    while (dwCount > 0)
        writer.Append(achDigit[--dwCount]);
}

void WriteZone(TextWriter &writer, const int32_t *pnZoneMin)
{
    if (!pnZoneMin || *pnZoneMin == 0)
        return writer.Append('Z');
    // Unsigned, because the most negative offset has no positive twin.
    const uint32_t dwMinutes =
        *pnZoneMin < 0 ? 0u - static_cast<uint32_t>(*pnZoneMin) : static_cast<uint32_t>(*pnZoneMin);
    writer.Append(*pnZoneMin < 0 ? '-' : '+');
    WriteHours(writer, dwMinutes / 60);
    writer.Append(':');
    writer.AppendTwo(dwMinutes % 60);
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
    TTail tail;
    if (!ReadDateTime(szDatetime, &time, &tail) || !ReadZone(tail, &zone))
        return APP_INVALID_ARG;
    if (pdwTime)
        *pdwTime = AppConvertTimeToU32(&time);
    if (pbHasZone)
        *pbHasZone = zone.bHas;
    if (pdwMs)
        *pdwMs = ReadMs(tail.szDot);
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
    TextWriter writer;
    WriteDateTime(writer, time);
    if (pdwMs && *pdwMs >= 1000)
        return writer.CopyTo(szBuf, dwBufSize) ? APP_INVALID_ARG : APP_BUFFER_TOO_SMALL;
    if (pdwMs)
        WriteMs(writer, *pdwMs);
    if (bHasZone != 0)
        WriteZone(writer, pnZoneMin);
    return writer.CopyTo(szBuf, dwBufSize) ? APP_OK : APP_BUFFER_TOO_SMALL;
}
