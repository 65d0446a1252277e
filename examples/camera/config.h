// SPDX-License-Identifier: MIT
//
// The settings one by one, their text, and their file.  config.cpp, the module, uses the rest: what
// is here knows neither tasks nor locks.
#ifndef CAMERA_CONFIG_H
#define CAMERA_CONFIG_H

#include "camera.h"

namespace camera
{

// ---- What there is to set, and its text (config_text.cpp) ---------------------------------------

// What a change brings about, beside that every module is told.
enum EEffect {
    kNone,
    kFixed,   // identity and version are not for people to change
    kTold,    // discovery tells the network
    kLogs,    // the log files are opened anew
    kAtStart, // it is read at the start only
};

struct TSetting {
    const char *szPath; // element of camera.xml, with one '/' at most, and KEY of "set"
    EEffect eEffect;
    bool bText;
    size_t dwOffset;
    uint32_t dwMin; // of a text, 1: it may not be empty
    uint32_t dwMax; // of a text, the size of its field
    const char *szAssumed;
};

constexpr uint32_t kConfigSize = 8192; // for every setting at its longest, written with entities

const TSetting *SettingAt(uint32_t dwIndex); // null behind the last one
const TSetting *SettingFind(const char *szPath);
// The field's value as a text; achNumber is for a number's.
constexpr uint32_t kNumberSize = 11;
const char *SettingText(const TConfig *ptConfig, const TSetting *ptSetting,
                        char (&achNumber)[kNumberSize]);
// Takes a text that is a value of the setting; false, and unchanged, when it is none.
bool SettingTake(TConfig *ptConfig, const TSetting *ptSetting, const char *szValue);
void SettingAssume(TConfig *ptConfig, const TSetting *ptSetting);

// Reads every setting from the text of a file, whose name is for the log: that tells with its line
// what is wrong or missing and therefore assumed.  False when the camera cannot run with it.
bool ConfigRead(TConfig *ptConfig, const char *szName, const char *szText, uint32_t dwLength);
// The text that ConfigRead() reads; returns its length, or 0 without memory or room.
uint32_t ConfigWrite(const TConfig *ptConfig, char *szBuf, uint32_t dwSize);

// ---- Files (config_file.cpp) --------------------------------------------------------------------

constexpr uint32_t kPathSize = 1024; // of the configuration's own path, with its end

// False, and told, for a path or a name that is too long for the temporary file beside it.
bool FileNameFits(const char *szFile);
// Reads a file of at most dwSize bytes; a longer one is cut, and thereby broken.  False, and told,
// when it cannot be read.
bool FileRead(const char *szFile, char *szText, uint32_t dwSize, uint32_t *pdwLength);
// Replaces a file as a whole, or not at all.  A regular file's mode is kept, and its owner where the
// system allows; a symbolic link is replaced by the file, and what it leads to stays as it is.
// False, and told with the step and the cause, when something failed.
bool FileReplace(const char *szFile, const char *szText, uint32_t dwLength);
// Whether two of the files that are written are one: the log's, the alarm log's, their backups, the
// configuration and its temporary file.  If so, szBuf names them.
constexpr uint32_t kClashSize = 256;
bool FilesClash(const char *szFile, const TConfig *ptConfig, char *szBuf, uint32_t dwSize);

} // namespace camera

#endif
