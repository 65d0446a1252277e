// SPDX-License-Identifier: MIT
#include "appcore/foundation.h"
#include "base/print.h"

namespace
{

constexpr uint32_t kRow = 16;

// Appends pieces to a buffer; after the first that does not fit, nothing more is appended.
class PieceWriter
{
public:
    PieceWriter(char *szBuf, uint32_t dwSize) : m_szBuf(szBuf), m_dwSize(dwSize) {}

    bool Accept(int32_t nWritten)
    {
        if (nWritten < 0)
            return false;
        m_dwUsed += static_cast<uint32_t>(nWritten);
        return true;
    }
    char *End() const { return m_szBuf + m_dwUsed; }
    uint32_t Room() const { return m_dwSize - m_dwUsed; }
    int32_t Finish() const
    {
        *End() = '\0';
        return static_cast<int32_t>(m_dwUsed);
    }

private:
    char *m_szBuf;
    uint32_t m_dwSize;
    uint32_t m_dwUsed = 0;
};

bool AppendText(PieceWriter &writer, const char *szText)
{
    return writer.Accept(AppSnprintf(writer.End(), writer.Room(), "%s", szText));
}

bool AppendByte(PieceWriter &writer, uint32_t dwIndex, uint8_t byValue)
{
    if (dwIndex % kRow == 0 &&
        !writer.Accept(AppSnprintf(writer.End(), writer.Room(), "%8xh: ", dwIndex)))
        return false;
    return writer.Accept(AppSnprintf(writer.End(), writer.Room(), "%.2X ", byValue));
}

// Ends a row of `dwCount` bytes: fills it up to the column of characters and writes these.
bool AppendCharacters(PieceWriter &writer, const uint8_t *pbyRow, uint32_t dwCount)
{
    for (uint32_t i = dwCount; i < kRow; ++i)
        if (!AppendText(writer, "   "))
            return false;
    if (!AppendText(writer, " | "))
        return false;
    for (uint32_t i = 0; i < dwCount; ++i) {
        const bool bVisible = pbyRow[i] >= 33 && pbyRow[i] <= 126;
        if (!writer.Accept(
                AppSnprintf(writer.End(), writer.Room(), "%1c", bVisible ? pbyRow[i] : '.')))
            return false;
    }
    return AppendText(writer, "\n");
}

bool AppendRow(PieceWriter &writer, const uint8_t *pbyData, uint32_t dwStart, uint32_t dwCount)
{
    for (uint32_t i = 0; i < dwCount; ++i)
        if (!AppendByte(writer, dwStart + i, pbyData[dwStart + i]))
            return false;
    return AppendCharacters(writer, pbyData + dwStart, dwCount);
}

} // namespace

int32_t AppDumpMem(const uint8_t *pbyData, uint32_t dwLen, char *szBuf, uint32_t dwBufSize)
{
    if (!pbyData || !szBuf || dwLen == 0 || dwBufSize == 0)
        return 0;
    PieceWriter writer(szBuf, dwBufSize);
    if (!writer.Accept(AppSnprintf(szBuf, dwBufSize, "ADDR:%p SIZE:%d(%xh)\n",
                                   static_cast<const void *>(pbyData), app::Int(dwLen), dwLen)))
        return writer.Finish();
    uint32_t dwStart = 0;
    bool bFits = true;
    while (bFits && dwStart < dwLen) {
        const uint32_t dwCount = dwLen - dwStart < kRow ? dwLen - dwStart : kRow;
        bFits = AppendRow(writer, pbyData, dwStart, dwCount);
        dwStart += dwCount; // cannot wrap to a start again: it ends exactly at dwLen
    }
    return writer.Finish();
}
