// SPDX-License-Identifier: MIT
//
// Brings notices to the alarm receiver, one line each over one TCP connection.  While the receiver
// is away, or does not read, notices wait in a bounded mailbox; the network's waits are this task's
// alone.
#include "camera.h"

namespace camera
{

namespace
{

constexpr uint32_t kConnectMs = 1000;
constexpr uint32_t kSendMs = 500;
constexpr uint32_t kStalledMs = 5000; // a receiver that takes nothing for so long is given up
constexpr uint32_t kFirstRetryMs = 250;
constexpr uint32_t kLastRetryMs = 15000;

uint32_t HandlePush(HAppTask hTask, uint32_t dwEventType, void *pvArg, void *pvContext);

TModule s_tModule = {"push", HandlePush, nullptr, nullptr};
TMailbox s_tMailbox;
TNotice *s_ptCurrent; // taken, but not yet sent to its end
uint32_t s_dwSentBytes;
HAppSocket s_hSocket;
TAppNetAddr s_tPeer; // whom the connection leads to
uint16_t s_wPeerPort;
uint32_t s_dwRetryMs = kFirstRetryMs;
HAppTimer s_hRetry;
HAppTimer s_hIdle;
uint32_t s_dwLastTick; // of the last progress
uint32_t s_dwToldDropped;
std::atomic<uint32_t> s_dwSent, s_bConnected, s_bHolding;

void Disconnect(const char *szWhy)
{
    if (!s_hSocket)
        return;
    AppSocketDestroy(s_hSocket);
    s_hSocket = nullptr;
    s_bConnected = 0;
    s_dwSentBytes = 0; // the next connection gets the whole line
    AppLog(g_byLog, APP_LOG_ALWAYS, "push: disconnected: %s\n", szWhy);
}

// Where to; false without a receiver.
bool FindReceiver(TAppNetAddr *ptAddr, uint16_t *pwPort)
{
    const TConfig tConfig = ConfigGet();
    *pwPort = AppConvertHtons(static_cast<uint16_t>(tConfig.dwReceiverPort));
    return AppConvertStrtoNet(tConfig.achReceiver, ptAddr) == APP_OK;
}

// The receiver may have been changed by a setting, or have hung up: whoever sends into a connection
// that the other side has closed loses what is sent.
void CheckConnection()
{
    char achDiscard[256];
    uint32_t dwLen = sizeof(achDiscard);
    TAppNetAddr tAddr;
    uint16_t wPort = 0;
    if (!s_hSocket)
        return;
    if (!FindReceiver(&tAddr, &wPort) || s_tPeer.dwIpv4 != tAddr.dwIpv4 || s_wPeerPort != wPort)
        Disconnect("another receiver was set");
    else if (AppSocketTCPRecv(s_hSocket, achDiscard, &dwLen, 1) == -1)
        Disconnect("the receiver has hung up");
}

bool Connect(const TAppNetAddr &tAddr, uint16_t wPort)
{
    s_hSocket = AppSocketTCPConnect(g_hPool, &tAddr, wPort, kConnectMs, nullptr);
    if (!s_hSocket)
        return false;
    s_tPeer = tAddr;
    s_wPeerPort = wPort;
    s_dwLastTick = AppGetTick();
    s_bConnected = 1;
    AppLog(g_byLog, APP_LOG_ALWAYS, "push: connected\n");
    return true;
}

// Sends what is left of the notice at hand; false when the connection takes no more now.
bool SendCurrent()
{
    const int32_t nSent = AppSocketTCPSend(s_hSocket, s_ptCurrent->achText + s_dwSentBytes,
                                           s_ptCurrent->dwLength - s_dwSentBytes, kSendMs);
    if (nSent > 0) {
        s_dwSentBytes += static_cast<uint32_t>(nSent);
        s_dwLastTick = AppGetTick();
        s_dwRetryMs = kFirstRetryMs;
    } else if (nSent == -1) {
        Disconnect("the connection broke");
    } else if (AppConvertTickToMS(AppTickDiff(s_dwLastTick, AppGetTick())) >= kStalledMs) {
        Disconnect("the receiver does not read");
    }
    return nSent > 0;
}

// Sends all there is; false when something is left for later.
bool SendAll()
{
    TAppNetAddr tAddr;
    uint16_t wPort = 0;
    while (s_ptCurrent || (s_ptCurrent = static_cast<TNotice *>(MailboxTake(&s_tMailbox)))) {
        s_bHolding = 1;
        if (!s_hSocket && (!FindReceiver(&tAddr, &wPort) || !Connect(tAddr, wPort)))
            return false;
        if (!SendCurrent())
            return false;
        if (s_dwSentBytes < s_ptCurrent->dwLength)
            continue;
        AppMemPoolFree(s_ptCurrent);
        s_ptCurrent = nullptr;
        s_dwSentBytes = 0;
        s_bHolding = 0;
        s_dwSent++;
    }
    return true;
}

void TellDropped()
{
    const uint32_t dwDropped = s_tMailbox.dwDropped;
    if (dwDropped == s_dwToldDropped)
        return;
    AppLog(g_byLog, APP_LOG_ALWAYS, "push: %lu notices dropped, %lu in all\n",
           static_cast<unsigned long>(dwDropped - s_dwToldDropped),
           static_cast<unsigned long>(dwDropped));
    s_dwToldDropped = dwDropped;
}

// One round; what is left waits for the retry timer, a connection without work for the idle timer.
void Push(HAppTask hTask)
{
    if (s_hRetry && !s_hSocket)
        return TellDropped(); // the receiver is away: not before its time
    CheckConnection();
    if (SendAll()) {
        if (s_hIdle)
            AppTaskResetTimer(s_hIdle);
        else if (s_hSocket)
            s_hIdle = AppTaskSetTimer(hTask, ConfigGet().dwReceiverIdle, nullptr, nullptr);
    } else if (!s_hRetry) {
        s_hRetry = AppTaskSetTimer(hTask, s_dwRetryMs, nullptr, nullptr);
        s_dwRetryMs = s_dwRetryMs * 2 < kLastRetryMs ? s_dwRetryMs * 2 : kLastRetryMs;
    }
    TellDropped();
}

// A last try, then the receiver's loss is told.
void Finish()
{
    CheckConnection();
    SendAll();
    TellDropped();
    Disconnect("the camera ends");
    const uint32_t dwLeft = MailboxWaiting(&s_tMailbox) + (s_ptCurrent ? 1 : 0);
    if (dwLeft > 0)
        AppLog(g_byLog, APP_LOG_ALWAYS, "push: %lu notices were not delivered\n",
               static_cast<unsigned long>(dwLeft));
    AppMemPoolFree(s_ptCurrent);
    s_ptCurrent = nullptr;
}

uint32_t HandlePush(HAppTask hTask, uint32_t dwEventType, void *pvArg, void *)
{
    const bool bIdle = pvArg && pvArg == s_hIdle;
    switch (dwEventType) {
    case APP_TASK_EVENT_USER:
        Push(hTask);
        break;
    case APP_TASK_EVENT_TIMEOUT:
    case APP_TASK_EVENT_TIMER_CANCEL:
        (bIdle ? s_hIdle : s_hRetry) = nullptr;
        if (dwEventType == APP_TASK_EVENT_TIMEOUT && bIdle && !s_ptCurrent)
            Disconnect("no notice for a while");
        else if (dwEventType == APP_TASK_EVENT_TIMEOUT)
            Push(hTask);
        break;
    case APP_TASK_EVENT_STOP:
        Finish();
        ModuleStopped(&s_tModule);
        break;
    }
    return 0;
}

} // namespace

bool PushNotice(TNotice *ptNotice, int32_t nPriority)
{
    return MailboxPut(&s_tMailbox, ptNotice, nPriority);
}

bool PushStart()
{
    return MailboxOpen(&s_tMailbox, &s_tModule, ConfigGet().dwQueue) && ModuleStart(&s_tModule);
}

void PushStop()
{
    ModuleStop(&s_tModule);
    MailboxClose(&s_tMailbox);
}

int32_t PushStatus(char *szBuf, uint32_t dwSize)
{
    const uint32_t dwWaiting = MailboxWaiting(&s_tMailbox) + s_bHolding;
    return AppSnprintf(szBuf, dwSize, "push: sent %lu, dropped %lu, waiting %lu, %s\n",
                       static_cast<unsigned long>(s_dwSent),
                       static_cast<unsigned long>(s_tMailbox.dwDropped.load()),
                       static_cast<unsigned long>(dwWaiting),
                       s_bConnected ? "connected" : "not connected");
}

} // namespace camera
