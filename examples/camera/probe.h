// SPDX-License-Identifier: MIT
//
// What a datagram asks of this camera, and the texts that it sends: from texts and settings alone,
// without a socket or a clock.
#ifndef CAMERA_PROBE_H
#define CAMERA_PROBE_H

#include "camera.h"

namespace camera
{

// What became of a datagram.  These follow from its text; discovery has some more.
enum EOutcome {
    kAnswered,
    kRepeated, // never by ProbeJudge(), which remembers nothing
    kOtherTypes,
    kOtherScopes,
    kOtherDevice,
    kOtherAction,
    kNotUnderstood,
    kDocumentType,
    kNoMessageId,
    kBroken,
    kTextOutcomes
};

enum EQuestion { kProbe, kResolve };
constexpr uint32_t kMaxIdSize = 256;

struct TQuestion {
    EQuestion eKind;               // with a message id only
    char achMessageId[kMaxIdSize]; // as it stands there; empty when there is none to be answered
    char achAction[100];           // escaped for the log
};

// Whether the datagram is one to be answered.  Any thread.
EOutcome ProbeJudge(const char *szText, uint32_t dwLength, const TConfig &tConfig,
                    TQuestion *ptQuestion);

// The answer's text: its length, 0 when it does not fit or there is no memory.  The address that it
// gives is the one under which `tPeer` reaches the camera.  Any thread.
uint32_t ProbeAnswer(const TQuestion &tQuestion, const TConfig &tConfig, const TAppNetAddr &tPeer,
                     char *szBuf, uint32_t dwSize);

// Likewise the text of Hello, or of Bye, for whoever is on an interface.
uint32_t ProbeAnnounce(bool bHello, const TConfig &tConfig, const TAppNetAddr &tInterface,
                       char *szBuf, uint32_t dwSize);

// Before the first message: a number that is larger with each start of the camera.
void ProbeStart(uint32_t dwInstance);

} // namespace camera

#endif
