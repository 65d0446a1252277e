// SPDX-License-Identifier: MIT
//
// The rules of WS-Discovery (2005/04) by which a scope that is asked for matches one that a device
// has.  A rule is named by a URI below the protocol's namespace:
//
//   rfc2396, rfc3986  scheme and authority without regard to case; the path's segments begin ours
//   uuid              the same 128 bits
//   ldap              the same server; the names of the entry, from the root on, begin ours
//   strcmp0           the same text
#ifndef CAMERA_SCOPE_H
#define CAMERA_SCOPE_H

#include <stdint.h>

namespace camera
{

// Blanks around the URI do not count; null is the default rule, which is known.
bool ScopeRuleKnown(const char *szRule);

// Whether a scope that is asked for matches one that a device has; never by a rule that is unknown.
bool ScopeMatches(const char *szRule, const char *szAsked, uint32_t dwAsked, const char *szOurs,
                  uint32_t dwOurs);

} // namespace camera

#endif
