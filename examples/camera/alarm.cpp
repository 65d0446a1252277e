// SPDX-License-Identifier: MIT
//
// Turns motion events into notices: an XML line each, written to the alarm log and handed to push.
#include "camera.h"
#include "document.h"
#include "text.h"

namespace camera
{

namespace
{

constexpr uint32_t kRoom = 256; // events that may wait for this module

constexpr TAppS32StrPair s_atPriority[] = {{kRoutine, "routine"}, {kAlarm, "alarm"}};

void Work(TModule *ptModule, EWork eWork, void *pvArg);

TModule s_tModule = {"alarm", Work};
TMailbox s_tMailbox;
std::atomic<uint32_t> s_dwWritten;

bool BuildNotice(mxml_node_t *ptNotice, const TMotion *ptMotion)
{
    const TConfig tConfig = ConfigGet();
    char achTime[kTimeSize];
    mxmlElementSetAttr(ptNotice, "camera", tConfig.achUuid); // does not tell that it has no memory
    if (!mxmlElementGetAttr(ptNotice, "camera") ||
        !WriteTime(ptMotion->qwTime, ptMotion->dwMs, achTime, sizeof(achTime)))
        return false;
    uint32_t dwResult = AppXmlSetAttr_u32(ptNotice, "number", ptMotion->dwNumber);
    dwResult |= AppXmlAddSonNode_Str(ptNotice, "name", tConfig.achName, nullptr);
    dwResult |= AppXmlAddSonNode_Str(ptNotice, "time", achTime, nullptr);
    dwResult |= AppXmlAddSonNode_Str(
        ptNotice, "priority", AppConvEnum2Str(s_atPriority, 2, ptMotion->nPriority), nullptr);
    dwResult |= AppXmlAddSonNode_u32(ptNotice, "score", ptMotion->dwScore, nullptr);
    return dwResult == APP_OK;
}

TNotice *MakeNotice(const TMotion *ptMotion)
{
    mxml_node_t *ptTree = mxmlNewElement(nullptr, "motion");
    auto ptNotice = static_cast<TNotice *>(AppMemPoolMalloc(g_hPool, sizeof(TNotice)));
    uint32_t dwLength = 0;
    if (mxmlGetElement(ptTree) && ptNotice &&
        BuildNotice(ptTree, ptMotion)) // one for the line's end
        dwLength = DocumentSave(ptTree, ptNotice->achText, sizeof(ptNotice->achText) - 1, nullptr);
    mxmlDelete(ptTree);
    if (dwLength == 0) {
        AppMemPoolFree(ptNotice);
        return nullptr;
    }
    // Mini-XML may have ended its text with a line break, or not.
    while (dwLength > 0 && ptNotice->achText[dwLength - 1] == '\n')
        --dwLength;
    ptNotice->achText[dwLength] = '\n';
    ptNotice->achText[dwLength + 1] = '\0';
    ptNotice->dwLength = dwLength + 1;
    return ptNotice;
}

void Report(TMotion *ptMotion)
{
    AppLog(g_byLog, APP_LOG_INFO, "alarm: motion %lu, score %lu, %s\n",
           static_cast<unsigned long>(ptMotion->dwNumber),
           static_cast<unsigned long>(ptMotion->dwScore),
           AppConvEnum2Str(s_atPriority, 2, ptMotion->nPriority));
    TNotice *ptNotice = MakeNotice(ptMotion);
    if (ptNotice) {
        AppLogFile(g_byAlarmLog, APP_LOG_ALWAYS, "%s", ptNotice->achText);
        s_dwWritten++;
    }
    PushNotice(ptNotice, ptMotion->nPriority); // null counts as dropped
    AppMemPoolFree(ptMotion);
}

void Work(TModule *, EWork, void *)
{
    while (void *pvMotion = MailboxTake(&s_tMailbox))
        Report(static_cast<TMotion *>(pvMotion));
}

} // namespace

bool AlarmRaise(TMotion *ptMotion)
{
    return MailboxPut(&s_tMailbox, ptMotion, ptMotion ? ptMotion->nPriority : kRoutine);
}

bool AlarmStart()
{
    return MailboxOpen(&s_tMailbox, &s_tModule, kRoom) && ModuleStart(&s_tModule);
}

void AlarmStop()
{
    ModuleStop(&s_tModule);
    MailboxClose(&s_tMailbox);
}

int32_t AlarmStatus(char *szBuf, uint32_t dwSize)
{
    return AppSnprintf(szBuf, dwSize, "alarm: written %lu, waiting %lu\n",
                       static_cast<unsigned long>(s_dwWritten),
                       static_cast<unsigned long>(MailboxWaiting(&s_tMailbox)));
}

} // namespace camera
