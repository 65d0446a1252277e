// SPDX-License-Identifier: MIT
//
// The camera's messages when there is no memory: whole or none.
#include "camera/config.h"
#include "camera/probe.h"
#include "support/fault.h"
#include "support/log_capture.h"

using namespace camera;

HAppMemPool camera::g_hPool;
uint8_t camera::g_byLog, camera::g_byNetLog;

extern "C" int32_t IpcCapGetHwExternal(TIpcCapHwExternal *)
{
    return 0;
}

namespace
{

constexpr char kProbeText[] =
    "<s:Envelope xmlns:s='http://www.w3.org/2003/05/soap-envelope'"
    " xmlns:a='http://schemas.xmlsoap.org/ws/2004/08/addressing'><s:Header>"
    "<a:Action>http://schemas.xmlsoap.org/ws/2005/04/discovery/Probe</a:Action>"
    "<a:MessageID>uuid:1</a:MessageID></s:Header><s:Body>"
    "<Probe xmlns='http://schemas.xmlsoap.org/ws/2005/04/discovery'/></s:Body></s:Envelope>";

// Mini-XML forgets an element's list of attributes when the first name has no copy: no strdup().
const std::vector<fault::Fn> kMemory = {fault::Fn::malloc, fault::Fn::calloc, fault::Fn::realloc,
                                        fault::Fn::vasprintf};

// Without memory for any one of its allocations the operation says no, and leaves nothing behind.
template <typename Operation>
void ExpectWholeOrNone(Operation operation)
{
    test::LogCapture log;
    ASSERT_TRUE(operation());
    const long nBlocks = fault::LiveBlocks();
    for (unsigned n = 1;; ++n) {
        fault::Fail fail(kMemory, n);
        const bool bDone = operation();
        ASSERT_EQ(bDone, fail.Hits() == 0) << "allocation " << n << ", " << Name(fail.Last());
        ASSERT_EQ(fault::LiveBlocks(), nBlocks) << "allocation " << n;
        if (bDone)
            return;
    }
}

TEST(CameraText, IsWholeOrNone)
{
    TAppNetAddr tPeer;
    TQuestion tQuestion;
    const TConfig tConfig = {};
    char achBuf[4096];
    AppConvertStrtoNet("127.0.0.1", &tPeer);
    ExpectWholeOrNone([&] {
        return ProbeJudge(kProbeText, sizeof(kProbeText) - 1, {}, &tQuestion) == kAnswered;
    });
    ExpectWholeOrNone(
        [&] { return ProbeAnswer(tQuestion, {}, tPeer, achBuf, sizeof(achBuf)) > 0; });
    ExpectWholeOrNone([&] { return ConfigWrite(&tConfig, achBuf, sizeof(achBuf)) > 0; });
    for (const bool bHello : {true, false})
        ExpectWholeOrNone(
            [&] { return ProbeAnnounce(bHello, {}, tPeer, achBuf, sizeof(achBuf)) > 0; });
}

} // namespace
