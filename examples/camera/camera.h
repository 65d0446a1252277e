// SPDX-License-Identifier: MIT
//
// A camera application on appcore: what its modules share, and what each offers the others.
//
//   motion ──(alarm's mailbox)──> alarm ──(push's mailbox)──> push ──TCP──> alarm receiver
//   discovery <──UDP 3702──> clients       housekeeping: reports       config: camera.xml
//   standard input ──> shell ──named actions──> every module
//
// Each module is one task: its state is touched by its own thread only, and the others reach it by
// events, mailboxes and counters.  Nothing that a module does regularly depends on an allocation:
// main() looks after all of them, see ModulesTick().
#ifndef CAMERA_H
#define CAMERA_H

#include <appcore/appcore.h>
#include <appcore/host.h>

#include <atomic>

namespace camera
{

// ---- Set by main() before the first task runs ---------------------------------------------------

constexpr uint32_t kPoolLimit = 1024 * 1024;
extern HAppMemPool g_hPool;    // every allocation of the camera; kPoolLimit is its limit
extern HAppTaskMgr g_hTaskMgr; // owns every task
extern uint8_t g_byLog;        // log channel of all modules, with a file
extern uint8_t g_byAlarmLog;   // log channel of the alarm notices, with a file of its own
extern uint8_t g_byNetLog;     // log channel of what comes from the network, at debug level

// ---- Time ---------------------------------------------------------------------------------------

inline uint32_t MsSince(uint32_t dwTick)
{
    return AppConvertTickToMS(AppTickDiff(dwTick, AppGetTick()));
}

// ---- console: what the camera prints never waits for whoever reads it (console.cpp) -------------

// A thread of nothing else, without signals, SIGPIPE and SIGTTOU among them.  Detached: one that waits
// for ever can be left behind but not ended.
bool StartThread(void *(*pfnRun)(void *), void *pvArg);

// Before any thread.  From here on standard output, and every line of the log, goes through a buffer
// to the descriptors that the camera was started with; what finds no room there is lost, counted,
// and told once there is room again.
bool ConsoleOpen();
void ConsoleClose(); // waits a moment, but no longer, until the buffers are empty
void Print(const char *szFormat, ...) APP_PRINTF(1, 2); // what the prompt answers
void PrintText(const char *szText);                     // of any length; lost by lines
void ConsoleLastWords(const char *szText);              // past the buffer; waits a moment at most
int32_t ConsoleStatus(char *szBuf, uint32_t dwSize);

// ---- Modules and mailboxes (module.cpp) ---------------------------------------------------------

// What a module is called for.
enum EWork {
    kBeat,     // its regular work, or its first; ModuleBeat() asks for the next
    kEvent,    // something was sent to it, or put into its mailbox
    kDropped,  // what was sent to it is not delivered any more
    kSettings, // settings have changed
    kStop,     // the last call: to clean up
};

struct TMailbox;

// A module is one task.
struct TModule {
    const char *szName = nullptr;
    void (*pfnWork)(TModule *ptModule, EWork eWork, void *pvArg) = nullptr;
    TMailbox *ptMailbox = nullptr; // what is put there is worked off at kEvent
    HAppTask hTask = nullptr;
    HAppLock hStopped = nullptr;
    HAppTimer hBeat = nullptr;              // the module's thread's alone
    std::atomic<bool> bBeats{false};        // a beat is due at dwDueTick
    std::atomic<bool> bBeatSent{false};     // by ModulesTick(), and not yet begun
    std::atomic<bool> bSettingsSent{false}; // and not yet taken notice of
    std::atomic<bool> bSettingsOwed{false}; // could not be sent
    std::atomic<uint32_t> dwDueTick{0};
};

// Starts the module's task; its first beat is due at once.
bool ModuleStart(TModule *ptModule);
// Waits until the module has cleaned up, and names it when that takes long; does nothing for one that
// was not started.
void ModuleStop(TModule *ptModule);
// False when the event could not be sent.
bool ModuleSend(TModule *ptModule, void *pvArg);
// The module's own thread: its next beat comes in dwMs, and none that was asked for before.
void ModuleBeat(TModule *ptModule, uint32_t dwMs);
void ModuleRest(TModule *ptModule); // no beat until it is asked for
// The same for work that is a loop of its own: it will call this again within dwMs.
void ModuleAlive(TModule *ptModule, uint32_t dwMs);

// "task push is in handler 0x… for 7 s", for the log.
constexpr uint32_t kTaskTextSize = 128;
const char *TaskText(const TAppTaskStats &tTask, char (&achText)[kTaskTextSize]);

// What main() does every kTickMs, or more often: beats, settings and nudges that could not be sent when they should
// have been, for want of memory, are sent now.
constexpr int kTickMs = 500;
void ModulesTick();
void ModulesTellSettings(); // every module is called for kSettings
// Names the modules that have not run for longer than they should.
int32_t ModulesStatus(char *szBuf, uint32_t dwSize);

enum EPriority { kRoutine = 0, kAlarm = 10 };

// A bounded priority queue in front of a module, whose handler is sent an empty event when there is
// something to take.  Putting never waits: what finds no room is dropped and counted.  The last
// quarter of the room is kept for alarms.
struct TMailbox {
    HAppQueue hQueue;
    TModule *ptOwner;
    uint32_t dwRoom;
    std::atomic<bool> bNudged;
    std::atomic<bool> bNudgeOwed; // could not be sent
    std::atomic<uint32_t> dwNudgeTick;
    std::atomic<uint32_t> dwDropped;
};

// Before the owner starts, and after it has stopped.
bool MailboxOpen(TMailbox *ptMailbox, TModule *ptOwner, uint32_t dwRoom);
bool MailboxPut(TMailbox *ptMailbox, void *pvBlock, int32_t nPriority); // takes a pool block over
void *MailboxTake(TMailbox *ptMailbox); // the owner's thread only; null when it is empty
uint32_t MailboxWaiting(const TMailbox *ptMailbox);
void MailboxClose(TMailbox *ptMailbox);

// ---- config: camera.xml -------------------------------------------------------------------------

struct TConfig {
    uint32_t dwVersion; // grows with each change of a setting; 0 before the start
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
    uint32_t dwQueue;         // notices kept while the receiver is away; read at start only
    uint32_t dwReceiverIdle;  // milliseconds after which an unused connection is closed
    uint32_t dwTaskIdle;      // milliseconds after which an idle task ends; read at start only
    uint32_t dwReport;        // milliseconds between two reports
    uint32_t dwAnswers;       // answers of discovery a second at most, in all
    uint32_t dwSourceAnswers; // and to one address
    uint32_t bRemote;         // 1: discovery answers addresses outside the device's networks too
};

bool ConfigLoad(const char *szFile); // before the start; false when the camera cannot run
bool ConfigStart();
void ConfigStop();
TConfig ConfigGet();
void ConfigRefresh(TConfig *ptConfig); // the same, at no cost while it is the present one

// ---- discovery: answers who looks for cameras ---------------------------------------------------

bool DiscoveryStart();
void DiscoveryStop();
int32_t DiscoveryStatus(char *szBuf, uint32_t dwSize);

// ---- search: looks for cameras itself, in a task that lives only meanwhile ----------------------

bool SearchStart();

// ---- motion: the simulated detector -------------------------------------------------------------

struct TMotion {
    uint32_t dwNumber;
    uint32_t dwScore; // 0 to 100
    uint64_t qwTime;  // seconds since 1970
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

// How many notices may wait: half of the pool is left for everything else.  The pool holds a notice
// in a block of a power of two, its own headers included, and the queue a node for it in another.
constexpr uint32_t kNoticeBlock = 1024, kNodeBlock = 128;
static_assert(sizeof(TNotice) + 64 <= kNoticeBlock && sizeof(TNotice) + 64 > kNoticeBlock / 2,
              "the notice's block");
constexpr uint32_t kMostNotices = kPoolLimit / 2 / (kNoticeBlock + kNodeBlock);

bool PushNotice(TNotice *ptNotice, int32_t nPriority); // as AlarmRaise()
bool PushStart();
void PushStop();
int32_t PushStatus(char *szBuf, uint32_t dwSize);

// ---- main: the log files, as the settings name them ---------------------------------------------

void LogFilesOpen(const TConfig &tConfig);

void MainWake(); // main() waits no longer: there is something to look at

// ---- watch: who does not return, and whom the end waits for (watch.cpp) -------------------------

// Takes signals over: the first one asks the camera to end, the next ends it at once.
bool WatchStart(int nSignals);
extern uint32_t g_dwLateMs;
void WatchLook();   // names handlers that run for longer than that; main() does it again and again
bool WatchIsTold(); // to end, by a signal; a second one ends the camera at once

// ---- prompt: lines out of the bytes of standard input (prompt.cpp) ------------------------------

struct TPrompt {
    bool bEcho; // a script's commands are shown among their results
    bool bTooLong;
    bool bWhole; // achLine, which waits for its time
    bool bShown; // the prompt, for the next line
    bool bQuit;  // by the line "quit"
    uint32_t dwUsed;
    char achLine[512];
};

// Begins the lines that end in these bytes, and keeps the beginning of the next; never waits.
// Returns how many bytes it has taken: the rest, if only of the time, is for another call.
uint32_t PromptTake(TPrompt *ptPrompt, const char *pchBytes, uint32_t dwLen);
bool PromptIsIdle(const TPrompt *ptPrompt); // no line runs or waits, or what runs hangs

// ---- housekeeping and shell ---------------------------------------------------------------------

bool HousekeepingStart();
void HousekeepingStop();

bool ShellStart();
void ShellStop();
bool ShellIsReady();                  // for a report
bool ShellMayRun(const char *szLine); // now, and not after those that run
// Begins a line, or says what it would have to wait for; false after "quit".
bool ShellRun(const char *szLine);
const char *ShellText(); // for an action: the words behind the command that this thread runs

} // namespace camera

#endif
