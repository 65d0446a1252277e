// SPDX-License-Identifier: MIT
//
// Linked to the camera, this adds the command "fault NAME" with what may go wrong in a night.  Each is
// an action "fault.NAME", run by the shell as the camera's own are.
#include "camera.h"

using namespace camera;

// For a lock that nobody gives.  By this name addr2line and a debugger find it.
uint32_t WaitForEver(HAppTask, uint32_t, void *, void *hLock);

uint32_t WaitForEver(HAppTask, uint32_t, void *, void *hLock)
{
    return AppLockTakeByTime(static_cast<HAppLock>(hLock), 0);
}

namespace
{

HAppLock TakenLock()
{
    HAppLock hLock = nullptr;
    AppLockCreate(nullptr, 1, 0, APP_LOCK_TYPE_SEM, &hLock);
    return hLock;
}

HAppTask NewTask(const char *szName)
{
    HAppTask hTask = nullptr;
    const PFAppTaskHandler pfnIdle = [](HAppTask, uint32_t, void *, void *) { return 0u; };
    AppTaskMgrNewTask(g_hTaskMgr, szName, 4, 0, 0, 0, pfnIdle, nullptr, &hTask);
    return hTask;
}

void HangHandler()
{
    AppTaskSendEvent(NewTask("recorder"), nullptr, WaitForEver, TakenLock());
}

void HangTimer()
{
    AppTaskSetTimer(NewTask("clock"), 1, WaitForEver, TakenLock());
}

void HangAction()
{
    AppLockTakeByTime(TakenLock(), 0);
}

void LeakPool()
{
    while (AppMemPoolMalloc(g_hPool, 4000))
        ;
}

void ForgetQueue()
{
    HAppQueue hQueue = nullptr;
    AppQueueCreate(g_hPool, 10, 1, &hQueue);
    AppQueueSetName(hQueue, "spool");
    for (int i = 0; i < 15; ++i)
        AppQueueIn(hQueue, &hQueue, 0);
}

// More kinds of lines than the console remembers, and then one of them again and again.
void FloodLog()
{
    for (unsigned i = 0; i < 20; ++i)
        AppLog(0, APP_LOG_ERROR, "[ERROR] flood: kind %u\n", i);
    for (unsigned i = 0; i < 1000; ++i)
        AppLog(0, APP_LOG_ERROR, "[ERROR] flood: disk\n");
}

void LeakSockets()
{
    char achText[8];
    for (uint32_t i = 0, dwLen = sizeof(achText); i < 20; ++i) {
        HAppSocket hSocket = AppSocketCreate(g_hPool, APP_SOCKET_UDP, APP_NET_ADDR_IPV4);
        AppSocketUDPRecv(hSocket, achText, &dwLen, 1, nullptr, nullptr, nullptr, nullptr);
    }
}

template <void (*pfnFault)()>
uint32_t Action(uint32_t, uint32_t, uint32_t)
{
    pfnFault();
    return APP_OK;
}

int32_t RunFault(int32_t, char **ppszArgv)
{
    char achKey[APP_SHARE_ACTION_KEY_SIZE];
    AppSnprintf(achKey, sizeof(achKey), "fault.%s", ppszArgv[1]);
    return AppRunShareAction(achKey, 0, 0, 0, nullptr) == APP_OK ? 0 : 1;
}

[[gnu::constructor]] void AddFaults()
{
    g_dwLateMs = 3000;
    AppRegCommand("fault", RunFault, "NAME");
    AppRegisterShareAction("fault.handler", Action<HangHandler>);
    AppRegisterShareAction("fault.timer", Action<HangTimer>);
    AppRegisterShareAction("fault.action", Action<HangAction>);
    AppRegisterShareAction("fault.pool", Action<LeakPool>);
    AppRegisterShareAction("fault.queue", Action<ForgetQueue>);
    AppRegisterShareAction("fault.log", Action<FloodLog>);
    AppRegisterShareAction("fault.sockets", Action<LeakSockets>);
}

} // namespace
