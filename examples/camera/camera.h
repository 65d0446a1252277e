// SPDX-License-Identifier: MIT
//
// A camera application on appcore: what its modules share, and what each offers the others.
//
//   motion ──(alarm's mailbox)──> alarm ──(push's mailbox)──> push ──TCP──> alarm receiver
//   discovery <──UDP 3702──> clients       housekeeping: reports       config: camera.xml
//   standard input ──> shell ──named actions──> every module
//
// Each module is one task: its state is touched by its own thread only, and the others reach it by
// events, mailboxes and counters.
#ifndef CAMERA_H
#define CAMERA_H

#include <appcore/appcore.h>
#include <appcore/host.h>

#include <atomic>

namespace camera
{

// ---- Set by main() before the first task runs ---------------------------------------------------

extern HAppMemPool g_hPool;    // every allocation of the camera; its limit is the camera's
extern HAppTaskMgr g_hTaskMgr; // owns every task
extern uint8_t g_byLog;        // log channel of all modules, with a file
extern uint8_t g_byAlarmLog;   // log channel of the alarm notices, with a file of its own
extern uint8_t g_byNetLog;     // log channel of what comes from the network, at debug level

// ---- Modules and mailboxes (module.cpp) ---------------------------------------------------------

// A module is one task.  Its handler, told APP_TASK_EVENT_STOP, cleans up and calls
// ModuleStopped().
struct TModule {
    const char *szName;
    PFAppTaskHandler pfnHandler;
    HAppTask hTask;
    HAppLock hStopped;
};

bool ModuleStart(TModule *ptModule);
void ModuleStopped(TModule *ptModule);
// Waits until the module has cleaned up; does nothing for one that was not started.
void ModuleStop(TModule *ptModule);

enum EPriority { kRoutine = 0, kAlarm = 10 };

// A bounded priority queue in front of a module, whose handler is sent an empty event when there is
// something to take.  Putting never waits: what finds no room is dropped and counted.  The last
// quarter of the room is kept for alarms.
struct TMailbox {
    HAppQueue hQueue;
    TModule *ptOwner;
    uint32_t dwRoom;
    std::atomic<bool> bNudged;
    std::atomic<uint32_t> dwDropped;
};

bool MailboxOpen(TMailbox *ptMailbox, TModule *ptOwner, uint32_t dwRoom);
bool MailboxPut(TMailbox *ptMailbox, void *pvBlock, int32_t nPriority); // takes a pool block over
void *MailboxTake(TMailbox *ptMailbox); // the owner's thread only; null when it is empty
uint32_t MailboxWaiting(const TMailbox *ptMailbox);
void MailboxClose(TMailbox *ptMailbox);

// ---- config: camera.xml -------------------------------------------------------------------------

struct TConfig {
    char achName[64];
    char achHardware[64];
    char achUuid[40];
    uint32_t dwMetadata; // version of what discovery tells; grows with each change of it
    uint32_t dwService;  // TCP port of the announced service
    char achLogFile[128];
    uint32_t dwLogLimit;
    char achAlarmFile[128];
    uint32_t dwAlarmLimit;
    uint32_t dwInterval;  // milliseconds between two looks of the detector
    uint32_t dwThreshold; // least score of a motion event
    uint32_t dwAlarm;     // least score of an alarm
    char achReceiver[16]; // IPv4 address of the alarm receiver; empty for none
    uint32_t dwReceiverPort;
    uint32_t dwQueue;        // notices kept while the receiver is away; read at start only
    uint32_t dwReceiverIdle; // milliseconds after which an unused connection is closed
    uint32_t dwTaskIdle;     // milliseconds after which an idle task ends; read at start only
    uint32_t dwReport;       // milliseconds between two reports
};

bool ConfigLoad(const char *szFile); // before the start; false when the camera cannot run
bool ConfigStart();
void ConfigStop();
TConfig ConfigGet();

// ---- discovery: answers who looks for cameras ---------------------------------------------------

bool DiscoveryStart();
void DiscoveryStop();
void DiscoveryAnnounce(); // tells the network that name or hardware have changed
int32_t DiscoveryStatus(char *szBuf, uint32_t dwSize);
// The addresses of this device, one for each interface, without the loopback's own.
uint32_t ListInterfaces(TAppNetAddr *atAddr, uint32_t dwRoom);

// ---- search: looks for cameras itself, in a task that lives only meanwhile ----------------------

bool SearchStart();

// ---- motion: the simulated detector -------------------------------------------------------------

struct TMotion {
    uint32_t dwNumber;
    uint32_t dwScore; // 0 to 100
    uint32_t dwTime;  // seconds since 1970
    uint32_t dwMs;
    int32_t nPriority;
};

bool MotionStart();
void MotionStop();
int32_t MotionStatus(char *szBuf, uint32_t dwSize);

// ---- alarm: turns motion into notices; push: brings them to the receiver ------------------------

// A motion event.  Never waits; false when it was dropped.
bool AlarmRaise(TMotion *ptMotion);
bool AlarmStart();
void AlarmStop();
int32_t AlarmStatus(char *szBuf, uint32_t dwSize);

struct TNotice {
    uint32_t dwLength;
    char achText[700];
};

bool PushNotice(TNotice *ptNotice, int32_t nPriority); // as AlarmRaise()
bool PushStart();
void PushStop();
int32_t PushStatus(char *szBuf, uint32_t dwSize);

// ---- housekeeping and shell ---------------------------------------------------------------------

bool HousekeepingStart();
void HousekeepingStop();

bool ShellStart();
void ShellStop();
bool ShellRun(const char *szLine); // runs a line in the shell's task; false after "quit"
const char *ShellText();           // the words behind KEY of the "set" that runs

} // namespace camera

#endif
