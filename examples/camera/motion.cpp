// SPDX-License-Identifier: MIT
//
// The simulated detector: looks at regular times, or as often as the action "motion.raise" says,
// and raises what it finds with the alarm module.
#include "camera.h"

#include <stdio.h>
#include <time.h>

namespace camera
{

namespace
{

void Work(TModule *ptModule, EWork eWork, void *pvArg);

TModule s_tModule = {"motion", Work};
uint32_t s_dwInterval; // until the next look
uint32_t s_dwNoise = 2463534242u;
uint32_t s_dwToldDropped;
std::atomic<uint32_t> s_dwRaised, s_dwDropped, s_dwLongestMs;

uint32_t NextScore()
{
    s_dwNoise ^= s_dwNoise << 13; // xorshift: the same scene in every run
    s_dwNoise ^= s_dwNoise >> 17;
    s_dwNoise ^= s_dwNoise << 5;
    return s_dwNoise % 101;
}

void Raise(uint32_t dwScore, uint32_t dwAlarm)
{
    timespec tNow;
    clock_gettime(CLOCK_REALTIME, &tNow);
    const uint32_t dwStart = AppGetTick();
    auto ptMotion = static_cast<TMotion *>(AppMemPoolMalloc(g_hPool, sizeof(TMotion)));
    if (ptMotion)
        *ptMotion = {s_dwRaised + 1, dwScore, static_cast<uint64_t>(tNow.tv_sec),
                     static_cast<uint32_t>(tNow.tv_nsec / 1000000),
                     dwScore >= dwAlarm ? kAlarm : kRoutine};
    s_dwRaised++;
    if (!AlarmRaise(ptMotion))
        s_dwDropped++;
    const uint32_t dwMs = MsSince(dwStart);
    if (dwMs > s_dwLongestMs)
        s_dwLongestMs = dwMs;
}

// One line for all that was dropped since the last one.
void TellDropped()
{
    if (s_dwDropped == s_dwToldDropped)
        return;
    AppLog(g_byLog, APP_LOG_ALWAYS, "motion: %lu events dropped, %lu in all\n",
           static_cast<unsigned long>(s_dwDropped - s_dwToldDropped),
           static_cast<unsigned long>(s_dwDropped));
    s_dwToldDropped = s_dwDropped;
}

void PlanLook()
{
    s_dwInterval = ConfigGet().dwInterval;
    ModuleBeat(&s_tModule, s_dwInterval);
}

void Look()
{
    const TConfig tConfig = ConfigGet();
    const uint32_t dwScore = NextScore();
    if (dwScore >= tConfig.dwThreshold)
        Raise(dwScore, tConfig.dwAlarm);
}

void Work(TModule *, EWork eWork, void *pvArg)
{
    if (eWork == kBeat) {
        PlanLook();
        Look();
    } else if (eWork == kEvent) { // so many motions at once
        for (uintptr_t n = reinterpret_cast<uintptr_t>(pvArg); n > 0; --n)
            Raise(100 - NextScore() % 20, ConfigGet().dwAlarm);
    } else if (eWork == kSettings && s_dwInterval != ConfigGet().dwInterval) {
        PlanLook();
    }
    TellDropped();
}

// Action "motion.raise": the number of events.
uint32_t RaiseAction(uint32_t dwCount, uint32_t, uint32_t)
{
    void *pvCount = reinterpret_cast<void *>(static_cast<uintptr_t>(dwCount));
    return ModuleSend(&s_tModule, pvCount) ? APP_OK : APP_NO_RESOURCE;
}

} // namespace

bool MotionStart()
{
    return ModuleStart(&s_tModule) && AppRegisterShareAction("motion.raise", RaiseAction) == APP_OK;
}

void MotionStop()
{
    ModuleStop(&s_tModule);
}

int32_t MotionStatus(char *szBuf, uint32_t dwSize)
{
    return AppSnprintf(szBuf, dwSize, "motion: raised %lu, dropped %lu, longest %lu ms\n",
                       static_cast<unsigned long>(s_dwRaised),
                       static_cast<unsigned long>(s_dwDropped),
                       static_cast<unsigned long>(s_dwLongestMs));
}

} // namespace camera
