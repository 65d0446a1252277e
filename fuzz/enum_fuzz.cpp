// SPDX-License-Identifier: MIT
//
// The tables of values and names beside a scan from the first row: any table, any value, any name,
// any flags, into blocks that end at a fence.
#include "appcore/enum_str.h"

#include <vector>

#include "fuzz.h"

namespace
{

using MaybeText = std::optional<std::string>;

constexpr char kUnknown[] = "unknown_enum";

Fence s_table, s_flags, s_text;

struct TRow {
    int32_t nEnum;
    MaybeText name;
};

class Table
{
public:
    // Often dense, as most tables are.
    explicit Table(Parts &parts)
    {
        const bool bDense = parts.Byte() % 2 == 0;
        for (size_t n = parts.Byte() % 6; m_rows.size() < n;) {
            const auto nRow = static_cast<int32_t>(m_rows.size());
            const auto byOther = static_cast<int8_t>(parts.Byte());
            m_rows.push_back({bDense && byOther % 4 ? nRow : byOther % 8, parts.MaybeText()});
        }
        m_ptRows = reinterpret_cast<TAppS32StrPair *>(s_table.Place(Size() * sizeof(*m_ptRows)));
        for (size_t i = 0; i < m_rows.size(); ++i)
            m_ptRows[i] = {m_rows[i].nEnum, Pointer(m_rows[i].name)};
    }
    const TAppS32StrPair *Rows() const { return m_ptRows; }
    uint32_t Size() const { return static_cast<uint32_t>(m_rows.size()); }

    // The row that stands at its own value, or the first with it.
    const TAppS32StrPair *Find(int32_t nEnum) const
    {
        if (nEnum >= 0 && nEnum < static_cast<int32_t>(Size()) &&
            m_rows[static_cast<size_t>(nEnum)].nEnum == nEnum)
            return m_ptRows + nEnum;
        for (size_t i = 0; i < m_rows.size(); ++i)
            if (m_rows[i].nEnum == nEnum)
                return m_ptRows + i;
        return nullptr;
    }
    const TAppS32StrPair *Find(const MaybeText &name) const
    {
        for (size_t i = 0; i < m_rows.size(); ++i)
            if (m_rows[i].name.value_or("") == name.value_or(""))
                return m_ptRows + i;
        return nullptr;
    }
    std::string Name(int32_t nEnum) const
    {
        const TAppS32StrPair *ptRow = Find(nEnum);
        return ptRow && ptRow->szStr ? ptRow->szStr : kUnknown;
    }

private:
    std::vector<TRow> m_rows;
    TAppS32StrPair *m_ptRows;
};

void CheckValue(const Table &table, int32_t nEnum)
{
    const TAppS32StrPair *ptRow = table.Find(nEnum);
    Require(AppFindS32StrPair_S32(table.Rows(), table.Size(), nEnum) == ptRow);
    Require(AppFindS32StrPair_S32(nullptr, table.Size(), nEnum) == nullptr);
    Require(AppConvEnum2Str(table.Rows(), table.Size(), nEnum) == table.Name(nEnum));
    Require(TakeLines() == (ptRow && ptRow->szStr ? 0u : 1u));
}

void CheckName(const Table &table, const MaybeText &name)
{
    const TAppS32StrPair *ptRow = table.Find(name);
    const char *szName = Pointer(name);
    Require(AppFindS32StrPair_Str(table.Rows(), table.Size(), szName) == ptRow);
    Require(AppFindS32StrPair_Str(nullptr, table.Size(), szName) == nullptr);
    int32_t nEnum = 77;
    const uint32_t dwWanted = ptRow ? APP_OK : APP_BAD_VALUE;
    Require(AppConvStr2Enum(table.Rows(), table.Size(), szName, &nEnum) == dwWanted);
    Require(nEnum == (ptRow ? ptRow->nEnum : 77) && TakeLines() == (ptRow ? 0u : 1u));
    Require(AppConvStr2Enum(table.Rows(), table.Size(), szName, nullptr) == dwWanted);
    TakeLines();
}

template <typename Flag, typename Make>
void CheckBuilder(Make make, const Table &table, const std::string &flags, int32_t nLength,
                  uint32_t dwSize, bool bTells = false)
{
    std::string whole;
    unsigned nUnknown = 0, nSet = 0;
    for (int32_t i = 0; i < nLength; ++i)
        if (flags[static_cast<size_t>(i)] % 2 != 0) {
            ++nSet;
            whole += (whole.empty() ? "" : ",") + table.Name(i);
            const TAppS32StrPair *ptRow = table.Find(i);
            nUnknown += !ptRow || !ptRow->szStr;
        }
    auto aFlags = reinterpret_cast<Flag *>(s_flags.Place(flags.size() * sizeof(Flag)));
    for (size_t i = 0; i < flags.size(); ++i) // a flag is more than its lowest bit
        aFlags[i] = static_cast<Flag>(flags[i] % 2 ? Flag{1} << (sizeof(Flag) * 8 - 1) : 0);
    char *szText = s_text.Place(dwSize);
    AppSetLogLevel(0, APP_LOG_DEBUG); // one of the builders tells each flag that is set
    const uint32_t dwResult = make(table.Rows(), table.Size(), aFlags, nLength, szText, dwSize);
    AppSetLogLevel(0, APP_LOG_ERROR);
    const bool bRefused = table.Size() == 0 || nLength == 0 || dwSize == 0;
    Require(dwResult == (bRefused ? APP_INVALID_ARG : APP_OK));
    Require(TakeLines() == (bRefused ? 1 : nUnknown + (bTells ? nSet : 0)));
    if (bRefused)
        Require(std::string(szText, dwSize) == std::string(dwSize, '#'));
    else
        Require(szText == whole.substr(0, dwSize - 1));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    Parts parts(pbyData, nSize);
    const Table table(parts);
    for (int32_t nEnum = -2; nEnum < 9; ++nEnum)
        CheckValue(table, nEnum);
    CheckValue(table, static_cast<int32_t>(parts.Number()));
    for (uint32_t i = 0; i < table.Size(); ++i)
        CheckName(table, table.Rows()[i].szStr ? MaybeText(table.Rows()[i].szStr) : std::nullopt);
    CheckName(table, parts.MaybeText());
    CheckName(table, "");
    const std::string flags = parts.Text();
    const bool bNegative = parts.Byte() % 16 == 0;
    const int32_t nLength = bNegative ? -1 : static_cast<int32_t>(flags.size());
    const uint32_t dwSize = parts.Byte() % 64;
    CheckBuilder<uint8_t>(AppMakeCapStr_u8, table, flags, nLength, dwSize);
    CheckBuilder<uint32_t>(AppMakeCapStr_u32, table, flags, nLength, dwSize, true);
    CheckBuilder<uint32_t>(AppMakeCapStr_Bool, table, flags, nLength, dwSize);
    return 0;
}
