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
constexpr uint32_t kRoundMs = 2000;  // a receiver that takes by drops does not keep the task
constexpr uint32_t kFinishMs = 2000; // how long the end may take

void Work(TModule *ptModule, EWork eWork, void *pvArg);

TModule s_tModule = {"push", Work};
struct TReceiver {
    TAppNetAddr tAddr;
    uint16_t wPort;
    bool bThere;
};

TMailbox s_tMailbox;
TNotice *s_ptCurrent; // taken, but not yet sent to its end
uint32_t s_dwSentBytes;
HAppSocket s_hSocket;
TReceiver s_tPeer;     // whom the connection leads to
TReceiver s_tReceiver; // whom it should lead to, as of the last settings
uint32_t s_dwIdleMs;   // likewise
uint32_t s_dwRetryMs = kFirstRetryMs;
bool s_bRetrying;      // the next beat tries again; else it ends an idle connection
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

bool IsSame(const TReceiver &tOne, const TReceiver &tOther)
{
    return tOne.bThere == tOther.bThere && tOne.tAddr.dwIpv4 == tOther.tAddr.dwIpv4 &&
           tOne.wPort == tOther.wPort;
}

TReceiver FindReceiver()
{
    const TConfig tConfig = ConfigGet();
    TReceiver tReceiver = {};
    tReceiver.wPort = AppConvertHtons(static_cast<uint16_t>(tConfig.dwReceiverPort));
    tReceiver.bThere = tConfig.achReceiver[0] &&
                       AppConvertStrtoNet(tConfig.achReceiver, &tReceiver.tAddr) == APP_OK;
    return tReceiver;
}

// The receiver may have been changed by a setting, or have hung up: whoever sends into a connection
// that the other side has closed loses what is sent.
void CheckConnection()
{
    char achDiscard[256];
    uint32_t dwLen = sizeof(achDiscard);
    if (!s_hSocket)
        return;
    if (!IsSame(s_tPeer, s_tReceiver))
        Disconnect("another receiver was set");
    else if (AppSocketTCPRecv(s_hSocket, achDiscard, &dwLen, 1) == -1)
        Disconnect("the receiver has hung up");
}

bool Connect()
{
    if (!s_tReceiver.bThere)
        return false;
    s_hSocket =
        AppSocketTCPConnect(g_hPool, &s_tReceiver.tAddr, s_tReceiver.wPort, kConnectMs, nullptr);
    if (!s_hSocket)
        return false;
    s_tPeer = s_tReceiver;
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
    } else if (MsSince(s_dwLastTick) >= kStalledMs) {
        Disconnect("the receiver does not read");
    }
    return nSent > 0;
}

// Sends what there is, for so long; false when something is left for later.
bool SendAll(uint32_t dwMostMs)
{
    const uint32_t dwStart = AppGetTick();
    while (s_ptCurrent || (s_ptCurrent = static_cast<TNotice *>(MailboxTake(&s_tMailbox)))) {
        s_bHolding = 1;
        if (MsSince(dwStart) >= dwMostMs || (!s_hSocket && !Connect()))
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

// One round; what is left waits for the next try, a connection without work for its idle time-out.
void Push(bool bTry)
{
    if (s_bRetrying && !bTry && !s_hSocket)
        return TellDropped(); // the receiver is away: not before its time
    CheckConnection();
    if (SendAll(kRoundMs)) {
        s_bRetrying = false;
        if (s_hSocket)
            ModuleBeat(&s_tModule, s_dwIdleMs);
        else
            ModuleRest(&s_tModule);
    } else if (bTry || !s_bRetrying) {
        s_bRetrying = true;
        ModuleBeat(&s_tModule, s_dwRetryMs);
        s_dwRetryMs = s_dwRetryMs * 2 < kLastRetryMs ? s_dwRetryMs * 2 : kLastRetryMs;
    }
    TellDropped();
}

void ReadSettings()
{
    const TReceiver tReceiver = FindReceiver();
    const uint32_t dwIdleMs = ConfigGet().dwReceiverIdle;
    const bool bOther = !IsSame(s_tReceiver, tReceiver), bIdle = s_dwIdleMs != dwIdleMs;
    s_tReceiver = tReceiver;
    s_dwIdleMs = dwIdleMs;
    if (bOther)
        s_dwRetryMs = kFirstRetryMs;
    if (bOther || (bIdle && !s_bRetrying))
        Push(true);
}

// A last try, then the receiver's loss is told.
void Finish()
{
    CheckConnection();
    SendAll(kFinishMs);
    TellDropped();
    Disconnect("the camera ends");
    const uint32_t dwLeft = MailboxWaiting(&s_tMailbox) + (s_ptCurrent ? 1 : 0);
    if (dwLeft > 0)
        AppLog(g_byLog, APP_LOG_ALWAYS, "push: %lu notices were not delivered\n",
               static_cast<unsigned long>(dwLeft));
    AppMemPoolFree(s_ptCurrent);
    s_ptCurrent = nullptr;
}

void Work(TModule *, EWork eWork, void *)
{
    switch (eWork) {
    case kSettings:
        ReadSettings();
        break;
    case kEvent:
        Push(false);
        break;
    case kBeat:
        if (s_bRetrying)
            Push(true);
        else if (!s_hSocket)
            ReadSettings(); // the first
        else if (MailboxWaiting(&s_tMailbox) == 0)
            Disconnect("no notice for a while");
        break;
    case kStop:
        Finish();
        break;
    case kDropped:
        break;
    }
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
