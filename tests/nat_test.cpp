// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <errno.h>
#include <string.h>

#include "appcore/host.h"
#include "appcore/socket.h"
#include "support/expect.h"
#include "support/log_capture.h"

using test::LogCapture;
using test::Text;

namespace
{

// The host of these tests.
struct THost {
    int32_t nHwStatus = 1;
    uint8_t byIfCount1 = 1;
    uint8_t byIfCount2 = 0;
    std::vector<int32_t> ethStatus = {1};
    std::vector<TIpcNetEthParam> eth = {{}};
    int32_t nUpnpStatus = 1;
    TIpcUpupCfg upnp = {};
    unsigned nEthCalls = 0;
    unsigned nUpnpCalls = 0;
};
THost g_host;

template <typename Record>
void ExpectZero(const Record *ptRecord)
{
    const Record zero = {};
    EXPECT_EQ(memcmp(ptRecord, &zero, sizeof(zero)), 0);
}

uint32_t Word(const char *szIp)
{
    return inet_addr(szIp);
}

const TAppNetAddr kRemote = {APP_NET_ADDR_IPV4, {inet_addr("127.9.9.9")}};
const uint16_t kPort = htons(8080);

class Nat : public testing::Test
{
protected:
    Nat()
    {
        g_host = THost();
        SetPair(0, 0, "127.0.0.1", "255.255.255.0"); // 127.9.9.9 is outside
        g_host.upnp.dwEnable = 1;
    }
    static void SetPair(size_t nIf, uint32_t dwPair, const char *szAddr, const char *szMask)
    {
        g_host.eth[nIf].atAddr[dwPair] = {Word(szAddr), Word(szMask)};
        if (g_host.eth[nIf].dwAddrNum <= dwPair)
            g_host.eth[nIf].dwAddrNum = dwPair + 1;
    }
    static void SetMap(int i, uint32_t dwType, uint16_t wExtPort, const char *szExt)
    {
        TIpcUpupMap &map = g_host.upnp.atMap[i];
        map.dwMapType = dwType;
        map.wInPort = kPort;
        map.wExtPort = htons(wExtPort);
        map.dwExtAddr = Word(szExt);
        map.dwActive = 1;
        memset(map.achName, 'n', APP_HOST_UPNP_NAME_SIZE); // no terminator
    }
    // Runs the calculation for the remote and compares.
    void Expect(const char *szIp, uint16_t wPort, uint32_t dwProtocol = APP_SOCKET_TCP)
    {
        TAppNetAddr addr = kRemote; // one record for both
        uint16_t wGot = 0;
        EXPECT_CODE(APP_OK, AppSocketCalNATAddr(&addr, dwProtocol, kPort, &addr, &wGot));
        EXPECT_EQ(addr.dwType, 0u);
        EXPECT_EQ(addr.dwIpv4, Word(szIp));
        EXPECT_EQ(ntohs(wGot), wPort);
    }

    LogCapture log{APP_LOG_ERROR};
};

TEST_F(Nat, PeersOnTheSubnetNeedNoMapping)
{
    SetMap(0, 0, 80, "8.8.8.8");
    for (const char *szMask : {"255.0.0.0", "0.0.0.0"}) { // the second holds everything
        SetPair(0, 0, "127.0.0.1", szMask);
        Expect("127.0.0.1", 8080);
    }
    log.ExpectNone();
    SetPair(0, 0, "127.0.0.2", "255.255.255.0"); // not listed: counts as on the subnet
    Expect("127.0.0.1", 8080);
    EXPECT_EQ(g_host.nUpnpCalls, 0u);
    log.ExpectLines({Text("[INFO ] AppSocketCalNATAddr: can't find addr %x in net param\n",
                          Word("127.0.0.1"))});
}

TEST_F(Nat, MappingsMatchByKindPortAndActivity)
{
    Expect("127.0.0.1", 8080); // no mapping at all
    SetMap(0, 0, 80, "8.8.8.8");
    Expect("8.8.8.8", 80, APP_SOCKET_TCP);
    Expect("127.0.0.1", 8080, APP_SOCKET_UDP);
    Expect("127.0.0.1", 8080, 2);
    SetMap(2, 1, 81, "9.9.9.9");
    Expect("9.9.9.9", 81, APP_SOCKET_UDP);
    SetMap(2, 0, 82, "9.9.9.9"); // the last match wins
    Expect("9.9.9.9", 82, APP_SOCKET_TCP);
    g_host.upnp.atMap[2].dwActive = 0;
    g_host.upnp.atMap[2].dwEnable = 1;
    Expect("8.8.8.8", 80);
    g_host.upnp.atMap[0].wInPort = htons(1);
    Expect("127.0.0.1", 8080);
    g_host.upnp.atMap[0].wInPort = kPort;
    g_host.upnp.dwEnable = 0;
    Expect("127.0.0.1", 8080);
    TAppNetAddr addr;
    EXPECT_CODE(APP_OK, AppSocketCalNATAddr(&kRemote, 1, kPort, &addr, nullptr));
    log.ExpectNone();
}

TEST_F(Nat, HostFailuresAreLoggedAndPassedOver)
{
    SetMap(0, 0, 80, "8.8.8.8");
    g_host.nHwStatus = -3; // no subnet test: the mappings decide
    SetPair(0, 0, "127.0.0.1", "255.0.0.0");
    Expect("8.8.8.8", 80);
    log.ExpectLines({"[ERROR] AppSocketCalNATAddr: IpcCapGetHwInternal failed -3\n"});

    g_host.nHwStatus = 1;
    g_host.byIfCount2 = 1; // the first interface fails, the second has the address
    g_host.ethStatus = {0, 1};
    g_host.eth = {{}, {}};
    SetPair(1, 20, "127.0.0.1", "255.255.255.0");
    Expect("8.8.8.8", 80);
    g_host.nUpnpStatus = 7;
    Expect("127.0.0.1", 8080);
    const char *const szNoEth = "[ERROR] AppSocketCalNATAddr: IpcGetNetEthParam failed 0\n";
    log.ExpectLines({szNoEth, szNoEth, "[ERROR] AppSocketCalNATAddr: IpcGetUpupCfg failed 7\n"});
}

TEST_F(Nat, CountsOfTheHostAreBounded)
{
    g_host.eth[0] = {};
    g_host.eth[0].dwAddrNum = 4294967295u;
    Expect("127.0.0.1", 8080);
    log.Clear();
    g_host.byIfCount1 = g_host.byIfCount2 = 255;
    g_host.eth.assign(256, {});
    g_host.ethStatus.assign(256, 1);
    g_host.nEthCalls = 0;
    Expect("127.0.0.1", 8080);
    EXPECT_EQ(g_host.nEthCalls, 256u);
}

TEST_F(Nat, Ipv6PeersGoStraightToTheMappings)
{
    TAppNetAddr addr = {APP_NET_ADDR_IPV6, {0}};
    addr.abyIpv6[15] = 1;
    SetMap(1, 0, 80, "8.8.8.8");
    if (AppSocketCalNATAddr(&addr, APP_SOCKET_TCP, kPort, &addr, nullptr) != APP_OK)
        GTEST_SKIP() << "not run: this machine has no IPv6";
    EXPECT_EQ(addr.dwType, 0u);
    EXPECT_EQ(addr.dwIpv4, Word("8.8.8.8"));
    EXPECT_EQ(g_host.nEthCalls, 0u);
}

TEST_F(Nat, TracesItsSteps)
{
    AppSetLogLevel(0, APP_LOG_DEBUG);
    SetMap(2, 0, 80, "8.8.8.8");
    Expect("8.8.8.8", 80);
    const std::string name(APP_HOST_UPNP_NAME_SIZE, 'n'), op = "[DEBUG] AppSocketCalNATAddr: ";
    const std::string unused = " type 0 enable 0 inport:0 name \n";
    log.ExpectLines({op + Text("LocalAddr %x RemoteAddr %x\n", Word("127.0.0.1"), kRemote.dwIpv4),
                     op + Text("subnet mask:%x\n", Word("255.255.255.0")),
                     op + Text("Local Port %d\n", kPort), op + "UPnP[0]:" + unused,
                     op + "UPnP[1]:" + unused,
                     op + Text("UPnP[2]: type 0 enable 0 inport:%d name %s\n", kPort, name.c_str()),
                     op + Text("UPnP: addr:%x port:%u protocal:%s\n", Word("8.8.8.8"), htons(80),
                               name.c_str())});
}

} // namespace

// Records arrive zeroed, at every call.
int32_t IpcCapGetHwExternal(TIpcCapHwExternal *ptHw)
{
    ExpectZero(ptHw);
    ptHw->byIfCount1 = g_host.byIfCount1;
    ptHw->byIfCount2 = g_host.byIfCount2;
    return g_host.nHwStatus;
}

int32_t IpcGetNetEthParam(uint8_t byIndex, TIpcNetEthParam *ptParam)
{
    ++g_host.nEthCalls;
    ExpectZero(ptParam);
    *ptParam = g_host.eth.at(byIndex);
    return g_host.ethStatus.at(byIndex);
}

int32_t IpcGetUpupCfg(TIpcUpupCfg *ptCfg)
{
    ++g_host.nUpnpCalls;
    ExpectZero(ptCfg);
    *ptCfg = g_host.upnp;
    return g_host.nUpnpStatus;
}
