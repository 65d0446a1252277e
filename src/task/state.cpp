// SPDX-License-Identifier: MIT
//
// The states' names and what they admit.
#include "base/field.h"
#include "task/task.h"
#include "utils/lock_guard.h"
#include "utils/queue.h"

namespace
{

// Without pointers, which the loader would have to fill in.
constexpr char kStateNames[][11] = {"INIT", "RUNNING", "PROCESSING", "IDLE", "TERMINATE", "UNINIT"};
constexpr uint32_t kStates = sizeof(kStateNames) / sizeof(kStateNames[0]);
static_assert(kStates == APP_TASK_STATE_UNINIT + 1, "a name for every state");

} // namespace

const char *_AppGetTaskStateString(uint32_t dwState)
{
    return dwState < kStates ? kStateNames[dwState] : "UNKNOWN";
}

// Who sends asks for the state under the queue's lock alone: one who has found that the task admits
// work has placed the event before this changes it, and one who comes later is refused.
void app::SetState(TAppTask *ptTask, uint32_t dwState)
{
    LockGuard guard(ptTask->hEventQueue);
    Poke(ptTask->dwState, dwState);
}
