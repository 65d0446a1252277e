/* SPDX-License-Identifier: MIT */
#ifndef APPCORE_SOCKET_H
#define APPCORE_SOCKET_H

#include "appcore/convert.h"
#include "appcore/handles.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Socket kinds. */
enum EAppSocketType {
    APP_SOCKET_UDP = 0, /**< IPv4 datagrams */
    APP_SOCKET_TCP = 1  /**< IPv4 stream */
};

#ifdef __cplusplus
}
#endif

#endif
