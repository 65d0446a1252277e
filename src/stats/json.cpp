// SPDX-License-Identifier: MIT
//
// A record as JSON: its fields, one after the other as they lie in memory, by a list of their kinds
// and names.  The lists are one text, so that they cost no relocation.
#include <string.h>

#include "appcore/stats.h"
#include "base/print.h"
#include "task/task.h"
#include "utils/report_writer.h"

namespace
{

// Of each kind, in the order of EAppStats: the member's name, '[' for an array of records or ':' for
// one, and the fields.  Of a field the first character is its kind, see WriteField(); the rest its
// name.
constexpr char kKinds[] =
    "pools[ppool nname uused upeak ulimit urefused ublocks uheld uidle cblocksInUse cblocksIdle;"
    "queues[pqueue nname ucount upeak ulimit urefused uoldestMs ulongestMs usleepers;"
    "managers[pmanager uactive uidle ulimit ucreated ureused urefused bending;"
    "tasks[ptask pmanager nname uthread Sstate binHandler usinceMs phandler parg ueventType "
    "userved urefused udropped uqueued uqueuePeak uqueueLimit utimers utimersSet utimersExpired "
    "utimerLateMs ulongestMs plongest;"
    "logs[uchannel ulevel ulines urepeated bfile ufileSize ufileLimit ufileLines ufileBytes ulost "
    "urotations ulastError;"
    "actions:uactions uruns urefused urunning ncurrent ucurrentMs nlongest ulongestMs;"
    "sockets:uopen usends ureceives utimeouts unoDescriptor ubindFailed uconnectFailed usendFailed "
    "ureceiveFailed;";

// Where the word ends.
const char *EndOf(const char *szWord)
{
    while (*szWord > ' ' && *szWord != '[' && *szWord != ':' && *szWord != ';')
        ++szWord;
    return szWord;
}

// What lies one behind the other in a record: 32-bit numbers, addresses and names.
class Fields
{
public:
    explicit Fields(const void *pvRecord) : m_pdwNext(static_cast<const uint32_t *>(pvRecord)) {}

    uint32_t Number() { return *m_pdwNext++; }
    uintptr_t Address()
    {
        if (reinterpret_cast<uintptr_t>(m_pdwNext) % sizeof(uintptr_t) != 0)
            ++m_pdwNext;
        return *reinterpret_cast<const uintptr_t *>(Skip(sizeof(uintptr_t)));
    }
    const char *Name() { return reinterpret_cast<const char *>(Skip(APP_STATS_NAME_SIZE)); }

private:
    const uint32_t *Skip(uint32_t dwSize)
    {
        const uint32_t *pdwField = m_pdwNext;
        m_pdwNext += dwSize / sizeof(uint32_t);
        return pdwField;
    }

    const uint32_t *m_pdwNext;
};
static_assert(APP_SHARE_ACTION_KEY_SIZE == APP_STATS_NAME_SIZE);

// RFC 8259: quotes, backslashes and control characters are escaped.  The rest is the namer's: UTF-8.
void WriteText(app::ReportWriter &writer, const char *szText)
{
    writer.Line("\"");
    for (; *szText; ++szText) {
        const auto byChar = static_cast<uint8_t>(*szText);
        if (byChar < ' ' || byChar == '"' || byChar == '\\')
            writer.Line("\\u%04x", byChar);
        else
            writer.Line("%c", byChar);
    }
    writer.Line("\"");
}

void WriteCounts(app::ReportWriter &writer, Fields &fields)
{
    for (uint32_t i = 0; i < APP_STATS_POOL_CLASSES; ++i)
        writer.Line("%c%lu", i == 0 ? '[' : ',', app::Ul(fields.Number()));
    writer.Line("]");
}

void WriteField(app::ReportWriter &writer, char chKind, Fields &fields)
{
    switch (chKind) {
    case 'n':
        WriteText(writer, fields.Name());
        break;
    case 'p':
        writer.Line("\"0x%llx\"", app::Ull(fields.Address()));
        break;
    case 'b':
        writer.Line(fields.Number() != 0 ? "true" : "false");
        break;
    case 'S':
        writer.Line("\"%s\"", _AppGetTaskStateString(fields.Number()));
        break;
    case 'c':
        WriteCounts(writer, fields);
        break;
    default:
        writer.Line("%lu", app::Ul(fields.Number()));
    }
}

// One character and a name.
void WriteName(app::ReportWriter &writer, const char *szBefore, const char *szName,
               const char *szEnd)
{
    writer.Line("%s\"%.*s\":", szBefore, static_cast<int>(szEnd - szName), szName);
}

struct TJson {
    app::ReportWriter *ptWriter;
    const char *szFields;
    const char *szBefore; // the next record
};

void WriteRecord(uint32_t, const void *pvStats, void *pvJson)
{
    auto ptJson = static_cast<TJson *>(pvJson);
    app::ReportWriter &writer = *ptJson->ptWriter;
    Fields fields(pvStats);
    fields.Number(); // its size
    writer.Line("%s{", ptJson->szBefore);
    ptJson->szBefore = ",\n";
    const char *szField = ptJson->szFields;
    for (const char *szBefore = ""; *szField != ';'; szBefore = ",") {
        const char *szEnd = EndOf(szField);
        WriteName(writer, szBefore, szField + 1, szEnd);
        WriteField(writer, *szField, fields);
        szField = *szEnd == ' ' ? szEnd + 1 : szEnd;
    }
    writer.Line("}");
}

} // namespace

void AppStatsJson(uint32_t dwKinds, PFAppShow pfnShow, void *pvContext)
{
    app::ReportWriter writer(pfnShow, pvContext);
    const char *szBefore = "{\n";
    const char *szKind = kKinds;
    for (uint32_t dwKind = 1; *szKind; dwKind *= 2) {
        const char *szEnd = EndOf(szKind);
        const char *szFields = szEnd + 1;
        if ((dwKinds & dwKind) != 0) {
            const bool bArray = *szEnd == '[';
            WriteName(writer, szBefore, szKind, szEnd);
            TJson json = {&writer, szFields, bArray ? "[\n" : "\n"};
            const uint32_t dwRecords = AppStatsWalk(dwKind, WriteRecord, &json);
            if (bArray)
                writer.Line(dwRecords == 0 ? "[]" : "]");
            szBefore = ",\n";
        }
        szKind = strchr(szFields, ';') + 1;
    }
    writer.Line("%s}\n", *szBefore == '{' ? "{" : "\n");
    writer.HandOver();
}
