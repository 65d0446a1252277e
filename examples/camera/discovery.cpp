// SPDX-License-Identifier: MIT
//
// Makes the camera known by WS-Discovery: says Hello and Bye, and answers who asks for it.
//
// One task looks for interfaces and announces.  Each address of the device has a listener of its
// own, a task with a socket bound to that address, so that an answer leaves from the address that
// was asked; one more listens on every address, for what is sent to the group.  What strangers send
// costs a bounded part of a processor and brings a bounded number of answers: see Admit().
#include "budget.h"
#include "camera.h"
#include "guard.h"
#include "interfaces.h"
#include "probe.h"
#include "soap.h"
#include "text.h"

#include <errno.h>
#include <sys/random.h>
#include <time.h>

namespace camera
{

namespace
{

constexpr uint32_t kWaitMs = 200;   // how long the end of the camera may wait for a listener
constexpr uint32_t kTurnMs = 500;   // then a listener returns, and comes again
constexpr uint32_t kAliveMs = 5000; // one datagram takes less
constexpr uint32_t kSendMs = 50;
constexpr uint32_t kLookMs = 10000;   // between two looks for new interfaces
constexpr uint32_t kMaxDelayMs = 500; // APP_MAX_DELAY: answers to the group are spread over it
constexpr uint32_t kMaxListeners = 5; // with that for every address
constexpr uint32_t kMaxPending = 64;
constexpr uint32_t kRemembered = 10; // messages that are answered once
constexpr uint32_t kCopyMs = 400;    // how much later a copy of a message may come by another way
// KiB that are read of one address and of all, for each answer that there may be.
constexpr uint32_t kReadPerAnswer = 20;

// What became of a datagram, beyond what its text says.
enum { kOtherGroup = kTextOutcomes, kOutside, kOverBudget, kUnreadable, kNotSent, kOutcomes };
constexpr TAppS32StrPair s_atOutcome[kOutcomes] = {
    {kAnswered, "answered"},
    {kRepeated, "repeated"},
    {kOtherTypes, "other types"},
    {kOtherScopes, "other scopes"},
    {kOtherDevice, "other devices"},
    {kOtherAction, "other actions"},
    {kNotUnderstood, "not understood"},
    {kDocumentType, "document type"},
    {kNoMessageId, "no MessageID"},
    {kBroken, "broken"},
    {kOtherGroup, "other groups"},
    {kOutside, "outside"},
    {kOverBudget, "over budget"},
    {kUnreadable, "unreadable"},
    {kNotSent, "not sent"},
};

struct TListener {
    TModule tModule;
    HAppSocket hSocket;
    TAppNetAddr tAddr; // 0 for every address
    TConfig tConfig;   // its thread's alone: no lock is taken for every datagram
    char achName[24];
    std::atomic<bool> bEnd;
};

struct TDatagram {
    const char *szText;
    uint32_t dwLength;
    TAppNetAddr tAddr; // to
    TAppNetAddr tPeer; // from
    uint16_t wPort;
};

// Whom to answer, and what.
struct TPending {
    TQuestion tQuestion;
    TAppNetAddr tPeer;
    uint32_t dwDueTick;
    uint16_t wPort;
    bool bUsed;
};

struct TSeen {
    char achId[kMaxIdSize];
    uint16_t wPort;
    uint32_t dwTick;
};

void Work(TModule *ptModule, EWork eWork, void *pvArg);

TModule s_tModule = {"discovery", Work};
TAppNetAddr s_tGroup;
uint32_t s_dwAnnounced; // the settings' version that the network knows
bool s_bStarted;
std::atomic<uint32_t> s_adwCount[kOutcomes];

// Guards what follows; a socket is sent through with it held, so that it is not closed meanwhile.
TMutex s_tMutex;
TListener s_atListener[kMaxListeners]; // the first is for every address
TOwnAddress s_atOwn[kMaxAddresses];    // where Hello has been said
uint32_t s_dwOwn;
TBudget s_tReads, s_tAnswers;
TSeen s_atSeen[kRemembered]; // a ring
uint32_t s_dwSeen;

TPending s_atPending[kMaxPending]; // the first listener's alone

uint32_t RandomBelow(uint32_t dwLimit)
{
    uint32_t dwRandom = 0;
    if (getrandom(&dwRandom, sizeof(dwRandom), GRND_NONBLOCK) != sizeof(dwRandom))
        dwRandom = AppGetTick(); // soon after the power came
    return dwRandom % dwLimit;
}

// ---- Sockets ------------------------------------------------------------------------------------

// The listener of an address, or that for all of them; the lock is held.
TListener *FindListener(const TAppNetAddr &tAddr)
{
    for (TListener &listener : s_atListener)
        if (listener.hSocket && listener.tAddr.dwIpv4 == tAddr.dwIpv4)
            return &listener;
    return &s_atListener[0];
}

HAppSocket OpenSocket(const TAppNetAddr &tAddr)
{
    HAppSocket hSocket = AppSocketCreate(g_hPool, APP_SOCKET_UDP, APP_NET_ADDR_IPV4);
    if (AppSocketBind(hSocket, &tAddr, AppConvertHtons(kDiscoveryPort), 1) == APP_OK)
        return hSocket;
    AppSocketDestroy(hSocket);
    return nullptr;
}

bool Send(const TListener &listener, const char *szText, uint32_t dwLength,
          const TAppNetAddr &tPeer, uint16_t wPort)
{
    return dwLength > 0 && AppSocketUDPSend(listener.hSocket, szText, dwLength, kSendMs, &tPeer,
                                            wPort) == static_cast<int32_t>(dwLength);
}

// From the address whose network the peer is in.
bool SendAnswer(const TListener *ptAsked, const TQuestion &tQuestion, const TAppNetAddr &tPeer,
                uint16_t wPort)
{
    char achText[kMessageSize];
    const uint32_t dwLength = ProbeAnswer(tQuestion, ConfigGet(), tPeer, achText, sizeof(achText));
    const Guard guard(s_tMutex);
    for (uint32_t i = 0; !ptAsked && i < s_dwOwn; ++i)
        if (IsNeighbour(s_atOwn[i], tPeer))
            ptAsked = FindListener(s_atOwn[i].tAddr);
    return Send(ptAsked ? *ptAsked : s_atListener[0], achText, dwLength, tPeer, wPort);
}

// ---- Hello and Bye ------------------------------------------------------------------------------

void Announce(bool bHello, const TAppNetAddr &tInterface)
{
    char achText[kMessageSize], achIp[16] = "";
    const uint32_t dwLength =
        ProbeAnnounce(bHello, ConfigGet(), tInterface, achText, sizeof(achText));
    AppConvertNettoStr(&tInterface, achIp, sizeof(achIp));
    bool bSent = false;
    {
        const Guard guard(s_tMutex);
        const TListener *ptListener = FindListener(tInterface);
        // Joining also chooses the interface for what is sent to groups.
        bSent = AppSocketUDPJoinMulticastGroup(ptListener->hSocket, &s_tGroup, &tInterface, 0) ==
                    APP_OK &&
                Send(*ptListener, achText, dwLength, s_tGroup, AppConvertHtons(kDiscoveryPort));
    }
    AppLog(g_byLog, APP_LOG_ALWAYS, "discovery: %s on %s%s\n", bHello ? "Hello" : "Bye", achIp,
           bSent ? "" : " could not be sent");
}

// The discovery task alone changes the table, so it reads it without the lock.
void AnnounceAll(bool bHello)
{
    s_dwAnnounced = ConfigGet().dwMetadata;
    for (uint32_t i = 0; i < s_dwOwn; ++i)
        if (s_atOwn[i].bGreeted)
            Announce(bHello, s_atOwn[i].tAddr);
}

TOwnAddress *Find(TOwnAddress *atOwn, uint32_t dwOwn, const TAppNetAddr &tAddr)
{
    for (uint32_t i = 0; i < dwOwn; ++i)
        if (atOwn[i].tAddr.dwIpv4 == tAddr.dwIpv4)
            return &atOwn[i];
    return nullptr;
}

// ---- What is admitted ---------------------------------------------------------------------------

bool IsOutside(const TAppNetAddr &tPeer, const TConfig &tConfig)
{
    const EAppIpv4Class eClass = AppCheckIpv4Class(&tPeer, nullptr);
    if (eClass == APP_IPV4_CLASS_LOOPBACK) // the system lets none in from outside
        return false;
    if (eClass != APP_IPV4_CLASS_A && eClass != APP_IPV4_CLASS_B && eClass != APP_IPV4_CLASS_C)
        return true;
    for (uint32_t i = 0; i < s_dwOwn; ++i)
        if (IsNeighbour(s_atOwn[i], tPeer))
            return false;
    return tConfig.bRemote == 0;
}

bool IsForUs(const TAppNetAddr &tAddr)
{
    return tAddr.dwIpv4 == s_tGroup.dwIpv4 || Find(s_atOwn, s_dwOwn, tAddr) ||
           AppCheckIpv4Class(&tAddr, nullptr) == APP_IPV4_CLASS_LOOPBACK;
}

// Whether a datagram is looked into.  A socket for every address gets what is sent to a group that
// any process of the device has joined; and the sender's address may be that of a victim.
int Admit(const TDatagram &datagram, const TConfig &tConfig)
{
    const Guard guard(s_tMutex);
    if (!IsForUs(datagram.tAddr))
        return kOtherGroup;
    if (datagram.wPort == 0 || IsOutside(datagram.tPeer, tConfig))
        return kOutside;
    if (!BudgetTake(&s_tReads, datagram.tPeer.dwIpv4, AppGetTick(), 1 + datagram.dwLength / 1024,
                    kReadPerAnswer * tConfig.dwSourceAnswers, kReadPerAnswer * tConfig.dwAnswers))
        return kOverBudget;
    return kAnswered;
}

// A MessageID that was answered stands for the same message again, unless it comes from another
// port and too late for a copy: some clients draw theirs from the clock, by the second, and the
// next of them wants its answer too.
bool WasAnswered(const char *szMessageId, uint16_t wPort)
{
    for (const TSeen &seen : s_atSeen)
        if (AppStrcmp(seen.achId, szMessageId) == 0 &&
            (seen.wPort == wPort || MsSince(seen.dwTick) < kCopyMs))
            return true;
    return false;
}

// Whether a question gets its answer, which is then remembered.
int Accept(const TQuestion &tQuestion, const TAppNetAddr &tPeer, uint16_t wPort,
           const TConfig &tConfig)
{
    const Guard guard(s_tMutex);
    if (WasAnswered(tQuestion.achMessageId, wPort))
        return kRepeated;
    if (!BudgetTake(&s_tAnswers, tPeer.dwIpv4, AppGetTick(), 1, tConfig.dwSourceAnswers,
                    tConfig.dwAnswers))
        return kOverBudget;
    TSeen &seen = s_atSeen[s_dwSeen++ % kRemembered];
    AppStrncpy(seen.achId, tQuestion.achMessageId, kMaxIdSize);
    seen.wPort = wPort;
    seen.dwTick = AppGetTick();
    return kAnswered;
}

// Who asks again after an answer that could not be sent is answered.
void Forget(const char *szMessageId)
{
    const Guard guard(s_tMutex);
    for (TSeen &seen : s_atSeen)
        if (AppStrcmp(seen.achId, szMessageId) == 0)
            seen.achId[0] = '\0';
}

// ---- Answers ------------------------------------------------------------------------------------

int Answer(const TListener *ptAsked, const TQuestion &tQuestion, const TAppNetAddr &tPeer,
           uint16_t wPort)
{
    if (SendAnswer(ptAsked, tQuestion, tPeer, wPort))
        return kAnswered;
    Forget(tQuestion.achMessageId);
    return kNotSent;
}

// Every camera of a network hears a question to the group: they do not all answer at once.
bool Postpone(const TQuestion &tQuestion, const TAppNetAddr &tPeer, uint16_t wPort)
{
    for (TPending &pending : s_atPending) {
        if (pending.bUsed)
            continue;
        const uint32_t dwTicks = RandomBelow(kMaxDelayMs) / AppConvertTickToMS(1);
        pending = {tQuestion, tPeer, AppGetTick() + dwTicks, wPort, true};
        return true;
    }
    return false;
}

// Sends the answers that are due; how long the next one has time, kWaitMs at most.
uint32_t SendPending()
{
    uint32_t dwWaitMs = kWaitMs;
    const uint32_t dwNow = AppGetTick();
    for (TPending &pending : s_atPending) {
        if (!pending.bUsed)
            continue;
        const auto nTicks = static_cast<int32_t>(pending.dwDueTick - dwNow);
        if (nTicks <= 0) {
            s_adwCount[Answer(nullptr, pending.tQuestion, pending.tPeer, pending.wPort)]++;
            pending.bUsed = false;
        } else if (AppConvertTickToMS(static_cast<uint32_t>(nTicks)) < dwWaitMs) {
            dwWaitMs = AppConvertTickToMS(static_cast<uint32_t>(nTicks));
        }
    }
    return dwWaitMs;
}

// ---- Datagrams ----------------------------------------------------------------------------------

// What becomes of one that is admitted; kOutcomes when that is not known yet.
int Handle(TListener *ptListener, const TDatagram &datagram, TQuestion *ptQuestion)
{
    const TConfig &tConfig = ptListener->tConfig;
    int nOutcome = ProbeJudge(datagram.szText, datagram.dwLength, tConfig, ptQuestion);
    if (nOutcome == kAnswered)
        nOutcome = Accept(*ptQuestion, datagram.tPeer, datagram.wPort, tConfig);
    if (nOutcome != kAnswered)
        return nOutcome;
    const bool bGroup = datagram.tAddr.dwIpv4 == s_tGroup.dwIpv4;
    if (!bGroup || ptQuestion->eKind == kResolve) // only one camera answers that
        return Answer(bGroup ? nullptr : ptListener, *ptQuestion, datagram.tPeer, datagram.wPort);
    if (Postpone(*ptQuestion, datagram.tPeer, datagram.wPort))
        return kOutcomes;
    Forget(ptQuestion->achMessageId);
    return kOverBudget;
}

void Receive(TListener *ptListener, const TDatagram &datagram)
{
    const int nAdmitted = Admit(datagram, ptListener->tConfig);
    if (nAdmitted != kAnswered) { // as many as the network likes: no line for each
        s_adwCount[nAdmitted]++;
        return;
    }
    TQuestion tQuestion;
    const int nOutcome = Handle(ptListener, datagram, &tQuestion);
    if (nOutcome < kOutcomes)
        s_adwCount[nOutcome]++;
    char achIp[16] = "";
    AppConvertNettoStr(&datagram.tPeer, achIp, sizeof(achIp));
    AppLog(g_byNetLog, APP_LOG_DEBUG, "[DEBUG] %s: %s: %s:%u, action {%s}, message {%s}\n",
           __func__,
           nOutcome < kOutcomes ? AppConvEnum2Str(s_atOutcome, kOutcomes, nOutcome) : "postponed",
           achIp, static_cast<unsigned>(AppConvertNtohs(datagram.wPort)), tQuestion.achAction,
           tQuestion.achShownId);
}

// ---- Listeners ----------------------------------------------------------------------------------

// Whether the listener has its next turn, for which it needs memory: else it goes on with this one.
bool EndTurn(TModule *ptModule, uint32_t dwStart)
{
    if (MsSince(dwStart) < kTurnMs)
        return false;
    ModuleBeat(ptModule, 0);
    return ptModule->hBeat != nullptr;
}

// Room for one byte more than is read: what fills it was cut.  It takes turns, so that a handler that
// does not return is one that hangs.
void Listen(TListener *ptListener, char *szBuf)
{
    const bool bPending = ptListener == &s_atListener[0];
    const uint32_t dwStart = AppGetTick();
    while (!ptListener->bEnd && !EndTurn(&ptListener->tModule, dwStart)) {
        TDatagram datagram = {szBuf, kDatagramSize + 1, {}, {}, 0};
        ModuleAlive(&ptListener->tModule, kAliveMs);
        const uint32_t dwWaitMs = bPending ? SendPending() : kWaitMs;
        const int32_t nLen =
            AppSocketUDPRecv(ptListener->hSocket, szBuf, &datagram.dwLength, dwWaitMs,
                             &datagram.tAddr, nullptr, &datagram.tPeer, &datagram.wPort);
        if (nLen > 0) {
            ConfigRefresh(&ptListener->tConfig);
            Receive(ptListener, datagram);
        } else if (nLen == -1) {
            s_adwCount[kUnreadable]++;
            // What the network sends costs no time; a socket that fails must not keep a processor
            // busy.
            if (errno != 0)
                AppDelay(kWaitMs);
        }
    }
}

void WorkAsListener(TModule *ptModule, EWork eWork, void *)
{
    TListener *ptListener = nullptr;
    for (TListener &listener : s_atListener)
        if (ptModule == &listener.tModule)
            ptListener = &listener;
    if (eWork == kBeat) {
        auto szBuf = static_cast<char *>(
            AppMemPoolMalloc(AppTaskGetMemPool(ptModule->hTask), kDatagramSize + 1));
        if (szBuf)
            Listen(ptListener, szBuf);
        else
            ModuleBeat(ptModule, kWaitMs);
        AppMemPoolFree(szBuf);
    } else if (eWork == kStop) {
        const Guard guard(s_tMutex);
        AppSocketDestroy(ptListener->hSocket);
        ptListener->hSocket = nullptr;
    }
}

bool StartListener(TListener *ptListener, const TAppNetAddr &tAddr)
{
    char achIp[16] = "any";
    HAppSocket hSocket = OpenSocket(tAddr);
    if (!hSocket)
        return false;
    if (tAddr.dwIpv4 != 0)
        AppConvertNettoStr(&tAddr, achIp, sizeof(achIp));
    AppSnprintf(ptListener->achName, sizeof(ptListener->achName), "at %s", achIp);
    {
        const Guard guard(s_tMutex);
        ptListener->tModule.szName = ptListener->achName;
        ptListener->tModule.pfnWork = WorkAsListener;
        ptListener->tAddr = tAddr;
        ptListener->bEnd = false;
        ptListener->hSocket = hSocket;
    }
    if (ModuleStart(&ptListener->tModule))
        return true;
    const Guard guard(s_tMutex);
    AppSocketDestroy(ptListener->hSocket);
    ptListener->hSocket = nullptr;
    return false;
}

void StopListener(TListener *ptListener)
{
    ptListener->bEnd = true;
    ModuleStop(&ptListener->tModule);
}

// ---- Interfaces ---------------------------------------------------------------------------------

// A listener for each address, as far as there are listeners; that for every address serves the
// rest.
void FitListeners(TOwnAddress *atOwn, uint32_t dwOwn)
{
    for (uint32_t i = 1; i < kMaxListeners; ++i)
        if (s_atListener[i].hSocket && !Find(atOwn, dwOwn, s_atListener[i].tAddr))
            StopListener(&s_atListener[i]);
    for (uint32_t i = 0; i < dwOwn; ++i) {
        bool bThere = false;
        TListener *ptFree = nullptr;
        for (TListener &listener : s_atListener) {
            bThere |= listener.hSocket && listener.tAddr.dwIpv4 == atOwn[i].tAddr.dwIpv4;
            ptFree = listener.hSocket ? ptFree : &listener;
        }
        if (!bThere && ptFree)
            StartListener(ptFree, atOwn[i].tAddr);
    }
}

// Interfaces come and go; a new one is greeted.
void LookForInterfaces(bool bGreet)
{
    TOwnAddress atNow[kMaxAddresses];
    const uint32_t dwNow = ListAddresses(atNow, kMaxAddresses);
    uint32_t dwNew = 0; // bits of those to greet
    for (uint32_t i = 0; i < dwNow; ++i) {
        const TOwnAddress *ptBefore = Find(s_atOwn, s_dwOwn, atNow[i].tAddr);
        const bool bGreeted = ptBefore && ptBefore->bGreeted;
        atNow[i].bGreeted = atNow[i].bFirst && (bGreet || bGreeted);
        if (atNow[i].bGreeted && !bGreeted)
            dwNew |= 1u << i;
    }
    {
        const Guard guard(s_tMutex);
        AppMemcpy(s_atOwn, atNow, sizeof(atNow));
        s_dwOwn = dwNow;
    }
    FitListeners(atNow, dwNow);
    for (uint32_t i = 0; i < dwNow; ++i) {
        // Joining again is no failure, and needed when an interface came back.
        if (atNow[i].bFirst)
            AppSocketUDPJoinMulticastGroup(s_atListener[0].hSocket, &s_tGroup, &atNow[i].tAddr, 0);
        if (dwNew & 1u << i)
            Announce(true, atNow[i].tAddr);
    }
}

// ---- The task -----------------------------------------------------------------------------------

void Work(TModule *ptModule, EWork eWork, void *)
{
    if (eWork == kBeat && !s_bStarted) { // after a power cut not all cameras shout at once
        s_bStarted = true;
        s_dwAnnounced = ConfigGet().dwMetadata;
        ModuleBeat(ptModule, RandomBelow(kMaxDelayMs));
        LookForInterfaces(false);
    } else if (eWork == kBeat) {
        ModuleBeat(ptModule, kLookMs);
        LookForInterfaces(true);
    } else if (eWork == kSettings && s_dwAnnounced != ConfigGet().dwMetadata) {
        AnnounceAll(true);
    } else if (eWork == kStop) {
        AnnounceAll(false);
    }
}

} // namespace

bool DiscoveryStart()
{
    const TAppNetAddr tAny = {};
    ProbeStart(static_cast<uint32_t>(time(nullptr)));
    AppConvertStrtoNet(kDiscoveryGroup, &s_tGroup);
    if (StartListener(&s_atListener[0], tAny))
        return ModuleStart(&s_tModule);
    AppLog(g_byLog, APP_LOG_ALWAYS, "discovery: UDP port %u cannot be used\n",
           static_cast<unsigned>(kDiscoveryPort));
    return false;
}

void DiscoveryStop()
{
    ModuleStop(&s_tModule);
    for (TListener &listener : s_atListener)
        listener.bEnd = true; // all of them at once
    for (TListener &listener : s_atListener)
        StopListener(&listener);
}

int32_t DiscoveryStatus(char *szBuf, uint32_t dwSize)
{
    uint32_t dwUsed = static_cast<uint32_t>(AppSnprintf(szBuf, dwSize, "discovery:"));
    for (uint32_t i = 0; i < kOutcomes; ++i) {
        const int32_t nLen =
            AppSnprintf(szBuf + dwUsed, dwSize - dwUsed, "%s %s %lu", i > 0 ? "," : "",
                        s_atOutcome[i].szStr, static_cast<unsigned long>(s_adwCount[i]));
        if (nLen < 0)
            return -1;
        dwUsed += static_cast<uint32_t>(nLen);
    }
    const int32_t nEnd = AppSnprintf(szBuf + dwUsed, dwSize - dwUsed, "\n");
    return nEnd < 0 ? -1 : static_cast<int32_t>(dwUsed) + nEnd;
}

} // namespace camera
