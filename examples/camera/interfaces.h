// SPDX-License-Identifier: MIT
//
// The addresses of this device, without the loopback's own.
#ifndef CAMERA_INTERFACES_H
#define CAMERA_INTERFACES_H

#include <appcore/appcore.h>

namespace camera
{

constexpr uint32_t kMaxAddresses = 16; // that are looked at

struct TOwnAddress {
    TAppNetAddr tAddr;
    TAppNetAddr tMask;
    bool bFirst;   // of its interface, for which it stands
    bool bGreeted; // Hello has been said there
};

uint32_t ListAddresses(TOwnAddress *atOwn, uint32_t dwRoom);

// Whether the peer is a host of the address's network: neither its name nor its broadcast address.
bool IsNeighbour(const TOwnAddress &own, const TAppNetAddr &tPeer);

} // namespace camera

#endif
