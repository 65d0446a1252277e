// SPDX-License-Identifier: MIT
//
// A record as JSON: its fields, one after the other as they lie in memory, by a list of their kinds
// and names.  A list is one text, so that it costs no relocation.
#include "appcore/stats.h"
#include "base/print.h"
#include "task/task.h"
#include "utils/report_writer.h"

namespace
{

// The first character of a word is the field's kind, see WriteField(); the rest its name.
constexpr char kPool[] = "ppool nname uused upeak ulimit urefused ublocks uheld uidle "
                         "cblocksInUse cblocksIdle";
constexpr char kQueue[] =
    "pqueue nname ucount upeak ulimit urefused uoldestMs ulongestMs usleepers";
constexpr char kTaskMgr[] = "pmanager uactive uidle ulimit ucreated ureused urefused bending";
constexpr char kTask[] = "ptask pmanager nname uthread Sstate binHandler usinceMs phandler parg "
                         "ueventType userved urefused udropped uqueued uqueuePeak uqueueLimit "
                         "utimers utimersSet utimersExpired utimerLateMs ulongestMs plongest";
constexpr char kLog[] = "uchannel ulevel ulines urepeated bfile ufileSize ufileLimit ufileLines "
                        "ufileBytes ulost urotations ulastError";
constexpr char kActions[] =
    "uactions uruns urefused urunning ncurrent ucurrentMs nlongest ulongestMs";
constexpr char kSockets[] = "uopen usends ureceives utimeouts unoDescriptor ubindFailed "
                            "uconnectFailed usendFailed ureceiveFailed";

// In the order of the walk.
struct TKind {
    uint32_t dwKind;
    char achMember[12]; // of the whole
    bool bArray;
    const char *szFields;
};
constexpr TKind s_atKind[] = {
    {APP_STATS_POOLS, "pools", true, kPool},
    {APP_STATS_QUEUES, "queues", true, kQueue},
    {APP_STATS_TASK_MGRS, "managers", true, kTaskMgr},
    {APP_STATS_TASKS, "tasks", true, kTask},
    {APP_STATS_LOGS, "logs", true, kLog},
    {APP_STATS_ACTIONS, "actions", false, kActions},
    {APP_STATS_SOCKETS, "sockets", false, kSockets},
};

// What lies one behind the other in a record.
class Fields
{
public:
    explicit Fields(const void *pvRecord) : m_pbyNext(static_cast<const uint8_t *>(pvRecord)) {}

    template <typename Field>
    Field Take()
    {
        const auto uAddress = reinterpret_cast<uintptr_t>(m_pbyNext);
        const uintptr_t uField = (uAddress + alignof(Field) - 1) / alignof(Field) * alignof(Field);
        const auto ptField = reinterpret_cast<const Field *>(uField);
        m_pbyNext = reinterpret_cast<const uint8_t *>(ptField + 1);
        return *ptField;
    }

private:
    const uint8_t *m_pbyNext;
};

struct TName {
    char ach[APP_STATS_NAME_SIZE];
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
        writer.Line("%c%lu", i == 0 ? '[' : ',', app::Ul(fields.Take<uint32_t>()));
    writer.Line("]");
}

void WriteField(app::ReportWriter &writer, char chKind, Fields &fields)
{
    switch (chKind) {
    case 'n':
        WriteText(writer, fields.Take<TName>().ach);
        break;
    case 'p':
        writer.Line("\"0x%llx\"", app::Ull(fields.Take<uintptr_t>()));
        break;
    case 'b':
        writer.Line(fields.Take<uint32_t>() != 0 ? "true" : "false");
        break;
    case 'S':
        writer.Line("\"%s\"", _AppGetTaskStateString(fields.Take<uint32_t>()));
        break;
    case 'c':
        WriteCounts(writer, fields);
        break;
    default:
        writer.Line("%lu", app::Ul(fields.Take<uint32_t>()));
    }
}

void WriteRecord(app::ReportWriter &writer, const char *szFields, const void *pvRecord)
{
    Fields fields(pvRecord);
    fields.Take<uint32_t>(); // its size
    char chBefore = '{';
    while (*szFields) {
        const char *szName = szFields + 1;
        const char *szEnd = szName;
        while (*szEnd && *szEnd != ' ')
            ++szEnd;
        writer.Line("%c\"%.*s\":", chBefore, static_cast<int>(szEnd - szName), szName);
        WriteField(writer, *szFields, fields);
        chBefore = ',';
        szFields = *szEnd ? szEnd + 1 : szEnd;
    }
    writer.Line("}");
}

struct TJson {
    app::ReportWriter *ptWriter;
    const char *szFields;
    bool bFirst;
};

void WriteNext(uint32_t, const void *pvStats, void *pvJson)
{
    auto ptJson = static_cast<TJson *>(pvJson);
    ptJson->ptWriter->Line(ptJson->bFirst ? "\n" : ",\n");
    ptJson->bFirst = false;
    WriteRecord(*ptJson->ptWriter, ptJson->szFields, pvStats);
}

} // namespace

void AppStatsJson(uint32_t dwKinds, PFAppShow pfnShow, void *pvContext)
{
    app::ReportWriter writer(pfnShow, pvContext);
    char chBefore = '{';
    for (const TKind &kind : s_atKind) {
        if ((dwKinds & kind.dwKind) == 0)
            continue;
        TJson json = {&writer, kind.szFields, true};
        writer.Line("%c\n\"%s\":", chBefore, kind.achMember);
        if (kind.bArray)
            writer.Line("[");
        AppStatsWalk(kind.dwKind, WriteNext, &json);
        if (kind.bArray)
            writer.Line("]");
        chBefore = ',';
    }
    writer.Line(chBefore == '{' ? "{}\n" : "\n}\n");
    writer.HandOver();
}
