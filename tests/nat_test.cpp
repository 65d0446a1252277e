// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <string.h>

#include "appcore/host.h"
#include "appcore/socket.h"
#include "support/expect.h"
#include "support/log_capture.h"

namespace
{

constexpr char kLocal[] = "127.0.0.1:8080", kMapped[] = "8.8.8.8:8000";
const uint16_t kPort = htons(8080);

// The host of these tests: it has the local address, on a subnet without the peer, and maps a port.
struct THost {
    void Map(int i, uint32_t dwType, uint16_t wExtPort)
    {
        upnp.atMap[i] = {1, dwType, "", htons(wExtPort), kPort, {}, inet_addr("8.8.8.8"), 1};
        memset(upnp.atMap[i].achName, 'n', APP_HOST_UPNP_NAME_SIZE); // the next byte is no end
    }
    int32_t nHwStatus = 1, nEthStatus = 1, nUpnpStatus = 1;
    uint8_t byIfCount1 = 1, byIfCount2 = 0;
    TIpcNetEthParam eth = {};
    TIpcUpupCfg upnp = {};
    unsigned nEthCalls = 0;
} g_host;

const struct {
    const char *szWhat, *szAnswer;
    void (*pfnSet)(THost &host); // what is otherwise
    size_t nLines = 0;
    unsigned nEthCalls = 1;
    uint32_t dwProtocol = APP_SOCKET_TCP;
    const char *szRemote = "127.9.9.9";
} kRows[] = {
    {"outside", kMapped, [](THost &) {}},
    {"IPv6", kMapped, [](THost &) {}, 0, 0, APP_SOCKET_TCP, "::1"},
    {"on the subnet", kLocal, [](THost &host) { host.eth.atAddr[19].dwAddr = 0; }},
    {"an address that is gone", kLocal, [](THost &host) { host.eth.dwAddrNum = 19; }, 1},
    {"more pairs than fit", kLocal, [](THost &host) { memset(host.eth.atAddr, 0, 168); }, 1},
    {"an interface that fails, and more than an index counts", kLocal,
     [](THost &host) {
         host.byIfCount1 = host.byIfCount2 = 255;
         host.nEthStatus = 0;
     },
     2, 256},
    {"no hardware", kMapped, [](THost &host) { host.nHwStatus = -3; }, 1, 0},
    {"no configuration", kLocal, [](THost &host) { host.nUpnpStatus = 7; }, 1},
    {"mapping off", kLocal, [](THost &host) { host.upnp.dwEnable = 0; }},
    {"TCP's for UDP", kLocal, [](THost &) {}, 0, 1, APP_SOCKET_UDP},
    {"UDP", kMapped, [](THost &host) { host.Map(0, 1, 8000); }, 0, 1, APP_SOCKET_UDP},
    {"UDP's for TCP", kLocal, [](THost &host) { host.Map(0, 1, 8000); }},
    {"the last match", "8.8.8.8:8200", [](THost &host) { host.Map(2, 0, 8200); }},
    {"not active", kLocal, [](THost &host) { host.upnp.atMap[0].dwActive = 0; }},
    {"other port", kLocal, [](THost &host) { host.upnp.atMap[0].wInPort = 80; }},
};

TEST(Nat, Decides)
{
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.szWhat);
        g_host = THost();
        const uint32_t dwLocal = inet_addr("127.0.0.1");
        g_host.eth.atAddr[19] = {dwLocal, inet_addr("255.255.255.0")};
        g_host.eth.atAddr[20] = {dwLocal, inet_addr("255.0.0.0")};
        g_host.eth.dwAddrNum = UINT32_MAX;
        g_host.upnp.dwEnable = 1;
        g_host.Map(0, 0, 8000);
        row.pfnSet(g_host);
        test::LogCapture log(APP_LOG_DEBUG);
        TAppNetAddr remote, addr;
        ASSERT_CODE(APP_OK, AppConvertStrtoNet(row.szRemote, &remote));
        addr = remote; // one record for both
        uint16_t wPort = 0;
        const uint32_t dwCode = AppSocketCalNATAddr(&addr, row.dwProtocol, kPort, &addr, &wPort);
        if (dwCode == APP_FAILED && remote.dwType == APP_NET_ADDR_IPV6)
            continue; // this machine has no IPv6
        EXPECT_CODE(APP_OK, dwCode);
        EXPECT_EQ(test::Text("%s:%u", inet_ntoa({addr.dwIpv4}), ntohs(wPort)), row.szAnswer);
        EXPECT_EQ(addr.dwType, APP_NET_ADDR_IPV4);
        EXPECT_EQ(g_host.nEthCalls, row.nEthCalls);
        size_t nLines = 0, nNames = 0;
        for (const std::string &line : log.Lines()) {
            nLines += line.compare(0, 7, "[DEBUG]") != 0;
            nNames += line.find(" " + std::string(34, 'n') + "\n") != line.npos;
        }
        EXPECT_EQ(nLines, row.nLines);
        EXPECT_TRUE(nNames > 0 || row.szAnswer == kLocal);
        EXPECT_CODE(APP_OK, AppSocketCalNATAddr(&remote, row.dwProtocol, kPort, &addr, nullptr));
    }
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
    return Fill(ptHw, {{}, g_host.byIfCount1, g_host.byIfCount2, {}}, g_host.nHwStatus);
}

int32_t IpcGetNetEthParam(uint8_t byIndex, TIpcNetEthParam *ptParam)
{
    ++g_host.nEthCalls;
    return byIndex ? 1 : Fill(ptParam, g_host.eth, g_host.nEthStatus);
}

int32_t IpcGetUpupCfg(TIpcUpupCfg *ptCfg)
{
    return Fill(ptCfg, g_host.upnp, g_host.nUpnpStatus);
}
