// SPDX-License-Identifier: MIT
//
// For a thread's own variable that hot paths look at: APP_FAST_TLS behind its name lets them find it
// without a call.  glibc keeps room for such variables of libraries that are loaded while the program
// runs; others refuse to load these (musl), and get the call.  In a static program there is none.
#ifndef APPCORE_BASE_FAST_TLS_H
#define APPCORE_BASE_FAST_TLS_H

#include <stdint.h> // brings __GLIBC__

#ifdef __GLIBC__
#define APP_FAST_TLS __attribute__((tls_model("initial-exec")))
#else
#define APP_FAST_TLS
#endif

#endif
