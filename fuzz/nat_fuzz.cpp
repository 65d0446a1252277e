// SPDX-License-Identifier: MIT
//
// The address that a peer is told beside the steps of socket.h and host.h walked one by one: any
// host application, peers that need no network, every line of the log.
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <vector>

#include "appcore/socket.h"
#include "fuzz.h"

namespace
{

constexpr int kRecords = 3; // what the interfaces answer, in turn

std::vector<std::string> s_lines;

// ---- The host application -------------------------------------------------------------------

struct THost {
    int32_t nHwStatus, anEthStatus[kRecords], nUpnpStatus;
    TIpcCapHwExternal hw;
    TIpcNetEthParam aEth[kRecords];
    TIpcUpupCfg upnp;
    unsigned nCalls; // of all kinds, and the next interface
    unsigned nInterface;
} s_host;

// What arrives is zeroed, and what is not for the library is the host's, as is all of a failure.
template <typename Record>
int32_t Fill(Record *ptRecord, const Record &record, int32_t nStatus)
{
    const Record zero = {};
    Require(memcmp(ptRecord, &zero, sizeof(zero)) == 0);
    memcpy(ptRecord, &record, sizeof(record));
    ++s_host.nCalls;
    return nStatus;
}

} // namespace

int32_t IpcCapGetHwExternal(TIpcCapHwExternal *ptHw)
{
    s_host.nInterface = 0;
    return Fill(ptHw, s_host.hw, s_host.nHwStatus);
}

int32_t IpcGetNetEthParam(uint8_t byIndex, TIpcNetEthParam *ptParam)
{
    Require(byIndex == s_host.nInterface++);
    return Fill(ptParam, s_host.aEth[byIndex % kRecords], s_host.anEthStatus[byIndex % kRecords]);
}

int32_t IpcGetUpupCfg(TIpcUpupCfg *ptCfg)
{
    return Fill(ptCfg, s_host.upnp, s_host.nUpnpStatus);
}

namespace
{

// Mostly a success.
int32_t MakeStatus(Parts &parts)
{
    return parts.Byte() % 4 ? 1 : static_cast<int32_t>(parts.Number());
}

uint32_t MakeMask(Parts &parts)
{
    const uint8_t byLength = parts.Byte() % 36;
    return byLength > 32 ? parts.Word()
                         : htonl(static_cast<uint32_t>(~(~uint64_t{0} >> byLength >> 32)));
}

// The local address at two places, which may be behind the pairs that count, or behind the record.
TIpcNetEthParam MakeInterface(Parts &parts)
{
    TIpcNetEthParam param;
    memset(&param, parts.Byte(), sizeof(param));
    param.dwAddrNum = parts.Byte() % 32;
    if (param.dwAddrNum > 24)
        param.dwAddrNum = parts.Number();
    for (int i = 0; i < 2; ++i) {
        const size_t nAt = parts.Byte() % (APP_HOST_ETH_ADDR_MAX + 2);
        if (nAt < APP_HOST_ETH_ADDR_MAX)
            param.atAddr[nAt] = {htonl(INADDR_LOOPBACK), MakeMask(parts)};
    }
    return param;
}

// Three ports and types are so few that they often meet.
TIpcUpupMap MakeMap(Parts &parts)
{
    TIpcUpupMap map;
    memset(&map, parts.Byte(), sizeof(map));
    map.dwEnable = parts.Number();
    map.dwMapType = parts.Byte() % 4 ? parts.Byte() % 3 : parts.Number();
    for (char &ch : map.achName) // often without a terminator
        ch = static_cast<char>(parts.Byte() % 8 ? 'n' : parts.Byte());
    map.wExtPort = static_cast<uint16_t>(parts.Number());
    map.wInPort = parts.Byte() % 3;
    map.dwExtAddr = parts.Word();
    map.dwActive = parts.Byte() % 4 ? parts.Number() : 0;
    return map;
}

void MakeHost(Parts &parts)
{
    memset(&s_host.hw, parts.Byte(), sizeof(s_host.hw));
    const bool bMany = parts.Byte() % 16 == 0;
    for (uint8_t *pby : {&s_host.hw.byIfCount1, &s_host.hw.byIfCount2})
        *pby = bMany ? parts.Byte() : parts.Byte() % 3;
    s_host.nHwStatus = MakeStatus(parts);
    memset(&s_host.upnp, parts.Byte(), sizeof(s_host.upnp));
    s_host.upnp.dwEnable = parts.Byte() % 8 ? parts.Number() : 0;
    s_host.nUpnpStatus = MakeStatus(parts);
    for (TIpcUpupMap &map : s_host.upnp.atMap)
        map = MakeMap(parts);
    for (int i = 0; i < kRecords; ++i) {
        s_host.anEthStatus[i] = MakeStatus(parts);
        s_host.aEth[i] = MakeInterface(parts);
    }
}

TAppNetAddr MakePeer(Parts &parts)
{
    TAppNetAddr peer = {};
    const uint8_t byKind = parts.Byte() % 16;
    if (byKind > 3) // all of 127/8; its ends are broadcasts
        peer.dwIpv4 = htonl(INADDR_LOOPBACK >> 24 << 24 | parts.Word() >> 8);
    else if (byKind == 3)
        peer.dwType = APP_NET_ADDR_IPV6 + 1 + parts.Number() % 1000;
    else
        peer = {APP_NET_ADDR_IPV6, {}};
    if (byKind < 3)
        peer.abyIpv6[15] = 1; // ::1
    if (byKind == 0) {        // an IPv4 peer as IPv6 writes it
        memset(peer.abyIpv6 + 10, 0xFF, 2);
        peer.abyIpv6[12] = 127;
    }
    return peer;
}

// ---- The oracle -----------------------------------------------------------------------------

struct TAnswer {
    struct TLine {
        int nLevel;
        std::string text; // or its beginning, where the rest is the system's
    };
    void Line(int nLevel, const std::string &text)
    {
        Line(nLevel, "AppSocketCalNATAddr: ", text + "\n");
    }
    void Line(int nLevel, const std::string &op, const std::string &text)
    {
        const char *szTag = nLevel == APP_LOG_DEBUG  ? "[DEBUG]"
                            : nLevel == APP_LOG_INFO ? "[INFO ]"
                                                     : "[ERROR]";
        lines.push_back({nLevel, std::string(szTag) + " " + op + text});
    }
    uint32_t dwCode;
    TAppNetAddr addr;
    uint16_t wPort;
    unsigned nCalls;
    std::vector<TLine> lines;
};

// Step 1: the address that the system would send from.
bool AskSystem(const TAppNetAddr &peer, TAnswer *ptAnswer)
{
    struct sockaddr_in v4 = {};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(5690);
    v4.sin_addr.s_addr = peer.dwIpv4;
    struct sockaddr_in6 v6 = {AF_INET6, htons(5690), 0, {}, 1};
    memcpy(&v6.sin6_addr, peer.abyIpv6, 16);
    const bool bV4 = peer.dwType == APP_NET_ADDR_IPV4;
    if (!bV4 && peer.dwType != APP_NET_ADDR_IPV6) {
        ptAnswer->Line(APP_LOG_ERROR, "_AppSocketCalLocalAddr: ", "not V4 or V6,APP_INVALID_ARG\n");
        return false;
    }
    struct sockaddr *ptAddr =
        bV4 ? reinterpret_cast<struct sockaddr *>(&v4) : reinterpret_cast<struct sockaddr *>(&v6);
    socklen_t nLength = bV4 ? sizeof(v4) : sizeof(v6);
    const int nFd = socket(ptAddr->sa_family, SOCK_DGRAM, IPPROTO_UDP);
    if (nFd < 0 && !bV4)
        return false; // this system has no IPv6
    const bool bFound =
        connect(nFd, ptAddr, nLength) == 0 && getsockname(nFd, ptAddr, &nLength) == 0;
    close(nFd);
    if (!bFound)
        ptAnswer->Line(bV4 ? APP_LOG_ERROR : APP_LOG_INFO, "_AppSocketCalLocalAddr: ", "");
    else if (bV4)
        ptAnswer->addr = {APP_NET_ADDR_IPV4, {v4.sin_addr.s_addr}};
    else
        ptAnswer->addr.dwType = APP_NET_ADDR_IPV6;
    if (bFound && !bV4)
        memcpy(ptAnswer->addr.abyIpv6, &v6.sin6_addr, 16);
    return bFound;
}

// Step 2: the mask of the local address, in the first pair of the first interface that lists it.
uint32_t FindMask(TAnswer *ptAnswer)
{
    for (int n = 0; n < std::min(s_host.hw.byIfCount1 + s_host.hw.byIfCount2, 256); ++n) {
        const TIpcNetEthParam &param = s_host.aEth[n % kRecords];
        const int32_t nStatus = s_host.anEthStatus[n % kRecords];
        ++ptAnswer->nCalls;
        if (nStatus != 1) {
            ptAnswer->Line(APP_LOG_ERROR, Printed("IpcGetNetEthParam failed %d", nStatus));
            continue;
        }
        for (uint32_t i = 0; i < param.dwAddrNum && i < 21; ++i)
            if (param.atAddr[i].dwAddr == ptAnswer->addr.dwIpv4) {
                ptAnswer->Line(APP_LOG_DEBUG, Printed("subnet mask:%x", param.atAddr[i].dwMask));
                return param.atAddr[i].dwMask;
            }
    }
    ptAnswer->Line(APP_LOG_INFO, Printed("can't find addr %x in net param", ptAnswer->addr.dwIpv4));
    return 0;
}

bool IsNear(const TAppNetAddr &peer, TAnswer *ptAnswer)
{
    ptAnswer->Line(APP_LOG_DEBUG,
                   Printed("LocalAddr %x RemoteAddr %x", ptAnswer->addr.dwIpv4, peer.dwIpv4));
    ++ptAnswer->nCalls;
    if (s_host.nHwStatus != 1) {
        ptAnswer->Line(APP_LOG_ERROR, Printed("IpcCapGetHwInternal failed %d", s_host.nHwStatus));
        return false;
    }
    const uint32_t dwMask = FindMask(ptAnswer);
    if ((peer.dwIpv4 & dwMask) != (ptAnswer->addr.dwIpv4 & dwMask))
        return false;
    ptAnswer->Line(APP_LOG_DEBUG, Printed("remote addr %x is in the subnet", peer.dwIpv4));
    return true;
}

// Step 3: the last mapping of the port.
void FindMapping(uint32_t dwProtocol, TAnswer *ptAnswer)
{
    ++ptAnswer->nCalls;
    if (s_host.nUpnpStatus != 1)
        return ptAnswer->Line(APP_LOG_ERROR,
                              Printed("IpcGetUpupCfg failed %d", s_host.nUpnpStatus));
    if (!s_host.upnp.dwEnable)
        return ptAnswer->Line(APP_LOG_DEBUG, "UPnP Disabled");
    const uint16_t wLocalPort = ptAnswer->wPort;
    ptAnswer->Line(APP_LOG_DEBUG, Printed("Local Port %d", wLocalPort));
    for (int i = 0; i < 3; ++i) {
        const TIpcUpupMap &map = s_host.upnp.atMap[i];
        const std::string name(map.achName, strnlen(map.achName, 34));
        ptAnswer->Line(APP_LOG_DEBUG,
                       Printed("UPnP[%d]: type %d enable %d inport:%d name %s", i,
                               static_cast<int>(map.dwMapType), static_cast<int>(map.dwEnable),
                               map.wInPort, name.c_str()));
        const bool bKind = dwProtocol < 2 && map.dwMapType == 1 - dwProtocol;
        if (!bKind || map.wInPort != wLocalPort || !map.dwActive)
            continue;
        ptAnswer->wPort = map.wExtPort;
        ptAnswer->addr.dwType = APP_NET_ADDR_IPV4;
        ptAnswer->addr.dwIpv4 = map.dwExtAddr;
        ptAnswer->Line(APP_LOG_DEBUG, Printed("UPnP: addr:%x port:%u protocal:%s", map.dwExtAddr,
                                              map.wExtPort, name.c_str()));
    }
}

TAnswer Oracle(const TAppNetAddr &peer, uint32_t dwProtocol, uint16_t wLocalPort)
{
    TAnswer answer = {APP_FAILED, peer, wLocalPort, 0, {}};
    if (!AskSystem(peer, &answer)) {
        answer.Line(APP_LOG_INFO, "AppSocketCalLocalAddr failed.");
        return answer;
    }
    answer.dwCode = APP_OK;
    if (answer.addr.dwType != APP_NET_ADDR_IPV4 || !IsNear(peer, &answer))
        FindMapping(dwProtocol, &answer);
    return answer;
}

// ---- One call -------------------------------------------------------------------------------

void Check(const TAppNetAddr &peer, uint32_t dwProtocol, uint16_t wLocalPort, const TAnswer &wanted,
           uint8_t byLevel)
{
    AppSetLogLevel(0, byLevel);
    s_host.nCalls = 0;
    s_lines.clear();
    g_pfnLine = [](const std::string &line) { s_lines.push_back(line); };
    TAppNetAddr addr = peer;     // one record for both
    uint16_t wPort = wLocalPort; // what a failure leaves
    const uint32_t dwCode = AppSocketCalNATAddr(&addr, dwProtocol, wLocalPort, &addr, &wPort);
    Require(dwCode == wanted.dwCode && wPort == wanted.wPort && s_host.nCalls == wanted.nCalls);
    const bool bV6 = wanted.addr.dwType == APP_NET_ADDR_IPV6;
    Require(addr.dwType == wanted.addr.dwType &&
            memcmp(addr.abyIpv6, wanted.addr.abyIpv6, bV6 ? 16 : 4) == 0);
    size_t nLine = 0;
    for (const TAnswer::TLine &line : wanted.lines)
        if (line.nLevel <= byLevel) {
            Require(nLine < s_lines.size() &&
                    s_lines[nLine].compare(0, line.text.size(), line.text) == 0);
            ++nLine;
        }
    Require(TakeLines() == nLine);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    Parts parts(pbyData, nSize);
    const TAppNetAddr peer = MakePeer(parts);
    const uint16_t wLocalPort = parts.Byte() % 3;
    const uint32_t dwProtocol = parts.Byte() % 8 ? parts.Byte() % 2 : parts.Number();
    MakeHost(parts);
    const TAnswer wanted = Oracle(peer, dwProtocol, wLocalPort);
    for (const uint8_t byLevel : {APP_LOG_ERROR, APP_LOG_DEBUG})
        Check(peer, dwProtocol, wLocalPort, wanted, byLevel);
    TAppNetAddr addr = {};
    Require(AppSocketCalNATAddr(&peer, dwProtocol, wLocalPort, &addr, nullptr) == wanted.dwCode);
    TakeLines();
    Require(
        AppSocketCalNATAddr(nullptr, dwProtocol, wLocalPort, &addr, nullptr) == APP_INVALID_ARG &&
        AppSocketCalNATAddr(&peer, dwProtocol, wLocalPort, nullptr, nullptr) == APP_INVALID_ARG &&
        TakeLines() == 0);
    return 0;
}
