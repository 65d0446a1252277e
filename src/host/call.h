// SPDX-License-Identifier: MIT
//
// The host's functions as the library calls them: APP_HOST(QorPrintf)(…).  With stand-ins the name is
// a weak reference, which whatever defines it fulfils when program or library is linked or loaded,
// and behind a null the stand-in is called, a function of another name.  So nothing that binds or
// optimises inside the library can take the stand-in for the answer.
#ifndef APPCORE_HOST_CALL_H
#define APPCORE_HOST_CALL_H

#include "appcore/host.h"

#ifdef APPCORE_STANDIN
#define APP_PRAGMA(text) _Pragma(#text)
#define APP_STANDIN(name)                                                                          \
    APP_PRAGMA(weak name)                                                                          \
    extern "C" decltype(name) _App##name
APP_STANDIN(QorPrintf);
APP_STANDIN(QorRegCommand);
APP_STANDIN(IpcConvConvertUtf8toUnicode);
APP_STANDIN(IpcConvConvertGbktoUnicode);
APP_STANDIN(IpcConvConvertUnicodetoUtf8);
APP_STANDIN(IpcConvConvertUnicodetoGbk);
APP_STANDIN(IpcCapGetHwExternal);
APP_STANDIN(IpcGetNetEthParam);
APP_STANDIN(IpcGetUpupCfg);
#define APP_HOST(name) ((name) ? (name) : _App##name)
#else
#define APP_HOST(name) name
#endif

#endif
