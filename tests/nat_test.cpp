// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <string.h>

#include <functional>

#include "appcore/host.h"
#include "appcore/socket.h"
#include "support/expect.h"
#include "support/log_capture.h"

using test::LogCapture;
using test::Text;

namespace
{

// The host of these tests: it has the local address, and maps a port for a peer that is outside.
struct THost {
    int32_t nHwStatus = 1, nUpnpStatus = 1;
    uint8_t byIfCount1 = 1, byIfCount2 = 0;
    std::vector<int32_t> ethStatus = std::vector<int32_t>(256, 1);
    std::vector<TIpcNetEthParam> eth = std::vector<TIpcNetEthParam>(256);
    TIpcUpupCfg upnp = {};
    unsigned nEthCalls = 0, nUpnpCalls = 0;
};
THost g_host;

const TAppNetAddr kRemote = {APP_NET_ADDR_IPV4, {inet_addr("127.9.9.9")}};
const uint16_t kPort = htons(8080);

void SetPair(size_t nIf, uint32_t dwPair, const char *szAddr, const char *szMask)
{
    g_host.eth[nIf].atAddr[dwPair] = {inet_addr(szAddr), inet_addr(szMask)};
    g_host.eth[nIf].dwAddrNum = dwPair + 1;
}

TIpcUpupMap &SetMap(int i, uint32_t dwType, uint16_t wExtPort, const char *szExt)
{
    TIpcUpupMap &map = g_host.upnp.atMap[i];
    memset(map.achName, 'n', APP_HOST_UPNP_NAME_SIZE); // no terminator
    map.dwMapType = dwType;
    map.wInPort = kPort;
    map.wExtPort = htons(wExtPort);
    map.dwExtAddr = inet_addr(szExt);
    map.dwActive = 1;
    return map;
}

void Reset()
{
    g_host = THost();
    g_host.upnp.dwEnable = 1;
    SetPair(0, 0, "127.0.0.1", "255.255.255.0");
    SetMap(0, 0, 80, "8.8.8.8");
}

constexpr char kLocal[] = "127.0.0.1:8080", kMapped[] = "8.8.8.8:80";

const struct {
    const char *szWhat;
    std::function<void()> set; // what is otherwise
    const char *szAnswer;
    unsigned nLines = 0, nEthCalls = 1;
    bool bMapsAsked = true;
    uint32_t dwProtocol = APP_SOCKET_TCP;
} kRows[] = {
    {"outside", [] {}, kMapped},
    {"on the subnet", [] { SetPair(0, 0, "127.0.0.1", "255.0.0.0"); }, kLocal, 0, 1, false},
    {"a mask that holds all", [] { SetPair(0, 0, "127.0.0.1", "0.0.0.0"); }, kLocal, 0, 1, false},
    {"not listed", [] { SetPair(0, 0, "127.0.0.2", "255.255.255.0"); }, kLocal, 1, 1, false},
    {"the first pair", [] { SetPair(0, 1, "127.0.0.1", "255.0.0.0"); }, kMapped},
    {"the last pair", [] { g_host.eth[0] = {}, SetPair(0, 20, "127.0.0.1", "255.255.255.0"); },
     kMapped},
    {"pairs beyond the record", [] { g_host.eth[0] = {}, g_host.eth[0].dwAddrNum = UINT32_MAX; },
     kLocal, 1, 1, false},
    {"an interface without address",
     [] {
         g_host.byIfCount2 = 1;
         std::swap(g_host.eth[0], g_host.eth[1]);
     },
     kMapped, 0, 2},
    {"an interface whose address is gone", // its bytes are the host's
     [] { g_host.eth[0].dwAddrNum = 0; }, kLocal, 1, 1, false},
    {"an interface that fails",
     [] {
         g_host.byIfCount2 = 1;
         g_host.ethStatus[0] = 0;
         SetPair(1, 0, "127.0.0.1", "255.0.0.0");
     },
     kLocal, 1, 2, false},
    {"more interfaces than an index counts",
     [] {
         g_host.byIfCount1 = g_host.byIfCount2 = 255;
         g_host.eth[0] = {};
     },
     kLocal, 1, 256, false},
    {"no hardware",
     [] {
         g_host.nHwStatus = -3;
         SetPair(0, 0, "127.0.0.1", "255.0.0.0");
     },
     kMapped, 1, 0},
    {"no configuration", [] { g_host.nUpnpStatus = 7; }, kLocal, 1},
    {"mapping off", [] { g_host.upnp.dwEnable = 0; }, kLocal},
    {"other protocol", [] {}, kLocal, 0, 1, true, APP_SOCKET_UDP},
    {"unknown protocol", [] {}, kLocal, 0, 1, true, 2},
    {"UDP", [] { SetMap(0, 1, 80, "8.8.8.8"); }, kMapped, 0, 1, true, APP_SOCKET_UDP},
    {"TCP by a map of UDP", [] { SetMap(0, 1, 80, "8.8.8.8"); }, kLocal},
    {"the last match", [] { SetMap(2, 0, 82, "9.9.9.9"); }, "9.9.9.9:82"},
    {"not active, though enabled",
     [] {
         g_host.upnp.atMap[0].dwActive = 0;
         g_host.upnp.atMap[0].dwEnable = 1;
     },
     kLocal},
    {"other port", [] { g_host.upnp.atMap[0].wInPort = htons(80); }, kLocal},
};

TEST(Nat, Decides)
{
    for (const auto &row : kRows)
        for (const bool bTraces : {false, true}) {
            SCOPED_TRACE(row.szWhat);
            Reset();
            row.set();
            LogCapture log(bTraces ? APP_LOG_DEBUG : APP_LOG_ERROR);
            TAppNetAddr addr = kRemote; // one record for both
            uint16_t wPort = 0;
            EXPECT_CODE(APP_OK, AppSocketCalNATAddr(&addr, row.dwProtocol, kPort, &addr, &wPort));
            char achIp[INET_ADDRSTRLEN];
            inet_ntop(AF_INET, &addr.dwIpv4, achIp, sizeof(achIp));
            EXPECT_EQ(Text("%s:%u", achIp, ntohs(wPort)), row.szAnswer);
            EXPECT_EQ(addr.dwType, 0u);
            EXPECT_EQ(g_host.nEthCalls, row.nEthCalls);
            EXPECT_EQ(g_host.nUpnpCalls, row.bMapsAsked);
            unsigned nLines = 0;
            for (const std::string &line : log.Lines())
                nLines += line.compare(0, 7, "[DEBUG]") != 0;
            EXPECT_EQ(nLines, row.nLines);
            EXPECT_EQ(log.Lines().size() > nLines, bTraces);
            EXPECT_CODE(APP_OK,
                        AppSocketCalNATAddr(&kRemote, row.dwProtocol, kPort, &addr, nullptr));
        }
}

TEST(Nat, Ipv6PeersGoStraightToTheMappings)
{
    LogCapture log;
    Reset();
    TAppNetAddr addr = {APP_NET_ADDR_IPV6, {0}};
    addr.abyIpv6[15] = 1;
    if (AppSocketCalNATAddr(&addr, APP_SOCKET_TCP, kPort, &addr, nullptr) != APP_OK)
        GTEST_SKIP() << "not run: this machine has no IPv6";
    EXPECT_EQ(addr.dwType, 0u);
    EXPECT_EQ(addr.dwIpv4, inet_addr("8.8.8.8"));
    EXPECT_EQ(g_host.nEthCalls, 0u);
}

TEST(Nat, ANameOfTheHostNeedsNoTerminator)
{
    LogCapture log(APP_LOG_DEBUG);
    Reset();
    TAppNetAddr addr;
    EXPECT_CODE(APP_OK, AppSocketCalNATAddr(&kRemote, APP_SOCKET_TCP, kPort, &addr, nullptr));
    const std::string name(APP_HOST_UPNP_NAME_SIZE, 'n');
    EXPECT_EQ(log.Count(Text("[DEBUG] AppSocketCalNATAddr: UPnP: addr:%x port:%u protocal:%s\n",
                             addr.dwIpv4, htons(80), name.c_str())),
              1u);
    EXPECT_EQ(log.Lines().size(), 7u) << "one of each of three mappings";
}

// Records arrive zeroed, at every call.
template <typename Record>
int32_t Fill(Record *ptRecord, const Record &record, int32_t nStatus)
{
    const Record zero = {};
    EXPECT_EQ(memcmp(ptRecord, &zero, sizeof(zero)), 0);
    *ptRecord = record;
    return nStatus;
}

} // namespace

int32_t IpcCapGetHwExternal(TIpcCapHwExternal *ptHw)
{
    TIpcCapHwExternal hw = {};
    hw.byIfCount1 = g_host.byIfCount1;
    hw.byIfCount2 = g_host.byIfCount2;
    return Fill(ptHw, hw, g_host.nHwStatus);
}

int32_t IpcGetNetEthParam(uint8_t byIndex, TIpcNetEthParam *ptParam)
{
    ++g_host.nEthCalls;
    return Fill(ptParam, g_host.eth[byIndex], g_host.ethStatus[byIndex]);
}

int32_t IpcGetUpupCfg(TIpcUpupCfg *ptCfg)
{
    ++g_host.nUpnpCalls;
    return Fill(ptCfg, g_host.upnp, g_host.nUpnpStatus);
}
