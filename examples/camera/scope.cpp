// SPDX-License-Identifier: MIT
#include "scope.h"

#include "soap.h"
#include "text.h"

namespace camera
{

namespace
{

// A part of a text, which need not end with a zero byte.
struct TPart {
    const char *szAt;
    const char *szEnd;
};

uint32_t Length(const TPart &tPart)
{
    return static_cast<uint32_t>(tPart.szEnd - tPart.szAt);
}

bool IsEmpty(const TPart &tPart)
{
    return tPart.szAt == tPart.szEnd;
}

bool IsSame(const TPart &tOne, const TPart &tOther)
{
    return Length(tOne) == Length(tOther) && AppMemcmp(tOne.szAt, tOther.szAt, Length(tOne)) == 0;
}

bool IsSameWithoutCase(const TPart &tOne, const TPart &tOther)
{
    return Length(tOne) == Length(tOther) &&
           (IsEmpty(tOne) || AppStrncasecmp(tOne.szAt, tOther.szAt, Length(tOne)) == 0);
}

// Takes the characters in front of the first one of `szStops`, or all, from the part.
TPart TakeUntil(TPart *ptPart, const char *szStops)
{
    TPart tTaken = {ptPart->szAt, ptPart->szAt};
    while (tTaken.szEnd < ptPart->szEnd &&
           (*tTaken.szEnd == '\0' || !AppStrchr(szStops, *tTaken.szEnd)))
        ++tTaken.szEnd;
    ptPart->szAt = tTaken.szEnd;
    return tTaken;
}

// Takes the text from the front of the part, whatever its case, or nothing.
bool TakeText(TPart *ptPart, const char *szText)
{
    const uint32_t dwLength = AppStrlen(szText);
    if (Length(*ptPart) < dwLength || AppStrncasecmp(ptPart->szAt, szText, dwLength) != 0)
        return false;
    ptPart->szAt += dwLength;
    return true;
}

// The value of a digit, or -1.
int HexDigit(char ch)
{
    if (ch >= '0' && ch <= '9')
        return ch - '0';
    ch = static_cast<char>(ch | 0x20);
    return ch >= 'a' && ch <= 'f' ? ch - 'a' + 10 : -1;
}

// Takes a character, which may be percent-encoded, from a part that is not empty.
char TakeChar(TPart *ptPart)
{
    const char *sz = ptPart->szAt++;
    const bool bCode = *sz == '%' && Length(*ptPart) >= 2;
    const int nHigh = bCode ? HexDigit(sz[1]) : -1, nLow = bCode ? HexDigit(sz[2]) : -1;
    if (nHigh < 0 || nLow < 0)
        return *sz;
    ptPart->szAt += 2;
    return static_cast<char>(nHigh << 4 | nLow);
}

bool IsSameDecoded(TPart tOne, TPart tOther)
{
    while (!IsEmpty(tOne) && !IsEmpty(tOther))
        if (TakeChar(&tOne) != TakeChar(&tOther))
            return false;
    return IsEmpty(tOne) && IsEmpty(tOther);
}

// ---- RFC 3986, and RFC 2396 before it -----------------------------------------------------------

struct TUri {
    TPart tScheme;
    TPart tAuthority;
    TPart tPath; // behind its first '/'
    bool bAuthority;
    bool bRooted; // the path began with a '/'
};

bool IsLetter(char ch)
{
    return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z');
}

bool IsScheme(const TPart &tPart)
{
    for (const char *sz = tPart.szAt; sz < tPart.szEnd; ++sz)
        if (!IsLetter(*sz) && !(*sz >= '0' && *sz <= '9') && *sz != '+' && *sz != '-' && *sz != '.')
            return false;
    return !IsEmpty(tPart) && IsLetter(*tPart.szAt);
}

// Query and fragment are left out.
bool Split(TPart tText, TUri *ptUri)
{
    tText = TakeUntil(&tText, "?#");
    ptUri->tScheme = TakeUntil(&tText, ":");
    if (!IsScheme(ptUri->tScheme) || !TakeText(&tText, ":"))
        return false;
    ptUri->bAuthority = TakeText(&tText, "//");
    ptUri->tAuthority = ptUri->bAuthority ? TakeUntil(&tText, "/") : TPart{};
    ptUri->bRooted = TakeText(&tText, "/");
    ptUri->tPath = tText;
    return true;
}

// False at the end of the path: behind a last '/' there is no segment.
bool TakeSegment(TPart *ptPath, TPart *ptSegment)
{
    if (IsEmpty(*ptPath))
        return false;
    *ptSegment = TakeUntil(ptPath, "/");
    TakeText(ptPath, "/");
    return true;
}

// Neither path may have such segments; the one asked for has none when it begins one without.
bool HasDots(TPart tPath)
{
    static constexpr char kDots[] = "..";
    TPart tSegment;
    while (TakeSegment(&tPath, &tSegment))
        if (IsSameDecoded(tSegment, {kDots, kDots + 1}) ||
            IsSameDecoded(tSegment, {kDots, kDots + 2}))
            return true;
    return false;
}

bool PathBegins(TPart tPath, TPart tStart)
{
    TPart tSegment, tWanted;
    while (TakeSegment(&tStart, &tWanted))
        if (!TakeSegment(&tPath, &tSegment) || !IsSameDecoded(tSegment, tWanted))
            return false;
    return true;
}

bool MatchesUri(TPart tAskedText, TPart tOursText)
{
    TUri tAsked, tOurs;
    return Split(tAskedText, &tAsked) && Split(tOursText, &tOurs) &&
           IsSameWithoutCase(tAsked.tScheme, tOurs.tScheme) &&
           tAsked.bAuthority == tOurs.bAuthority &&
           IsSameWithoutCase(tAsked.tAuthority, tOurs.tAuthority) && !HasDots(tOurs.tPath) &&
           (IsEmpty(tAsked.tPath) || tAsked.bRooted == tOurs.bRooted) &&
           PathBegins(tOurs.tPath, tAsked.tPath);
}

// ---- The other rules ----------------------------------------------------------------------------

bool IsSameText(TPart tAsked, TPart tOurs)
{
    return IsSame(tAsked, tOurs);
}

// Takes what a UUID's URI begins with: the scheme's own, or that of the URN's.
bool TakeUuid(TPart *ptText, char *szUuid)
{
    TakeText(ptText, "urn:");
    if (!TakeText(ptText, "uuid:") || Length(*ptText) != kUuidSize - 1)
        return false;
    AppStrncpy(szUuid, ptText->szAt, kUuidSize);
    return IsUuid(szUuid);
}

bool IsSameUuid(TPart tAsked, TPart tOurs)
{
    char achAsked[kUuidSize], achOurs[kUuidSize];
    return TakeUuid(&tAsked, achAsked) && TakeUuid(&tOurs, achOurs) &&
           AppStrcasecmp(achAsked, achOurs) == 0;
}

struct TLdap {
    TPart tServer;
    TPart tName; // of the entry, as in RFC 2253 but for what is percent-encoded
};

// ldap://SERVER/NAME?…, RFC 2255.
bool SplitLdap(TPart tText, TLdap *ptLdap)
{
    if (!TakeText(&tText, "ldap://"))
        return false;
    tText = TakeUntil(&tText, "?#");
    ptLdap->tServer = TakeUntil(&tText, "/");
    TakeText(&tText, "/");
    ptLdap->tName = tText;
    return true;
}

// The text of a name has the root at its end.  So the names that begin ours are its end, from behind
// a comma on that is not escaped.
bool NameEnds(TPart tName, const TPart &tEnd)
{
    bool bStart = true, bEscaped = false;
    while (!bStart || !IsSameDecoded(tName, tEnd)) {
        if (IsEmpty(tName))
            return false;
        const char ch = TakeChar(&tName);
        bStart = ch == ',' && !bEscaped;
        bEscaped = ch == '\\' && !bEscaped;
    }
    return true;
}

bool MatchesLdap(TPart tAskedText, TPart tOursText)
{
    TLdap tAsked, tOurs;
    return SplitLdap(tAskedText, &tAsked) && SplitLdap(tOursText, &tOurs) &&
           IsSameWithoutCase(tAsked.tServer, tOurs.tServer) &&
           (IsEmpty(tAsked.tName) || NameEnds(tOurs.tName, tAsked.tName));
}

// ---- The choice of a rule -----------------------------------------------------------------------

using PFRule = bool (*)(TPart tAsked, TPart tOurs);
constexpr struct {
    const char *szName;
    PFRule pfnMatches;
} s_atRule[] = {{"/rfc2396", MatchesUri},
                {"/rfc3986", MatchesUri},
                {"/uuid", IsSameUuid},
                {"/ldap", MatchesLdap},
                {"/strcmp0", IsSameText}};

// Null for an unknown rule.
PFRule FindRule(const char *szRule)
{
    constexpr uint32_t kNs = sizeof(kDiscoveryNs) - 1;
    uint32_t dwLength = 0;
    if (!szRule)
        return MatchesUri;
    const char *szWord = NextWord(&szRule, &dwLength);
    if (!szWord || dwLength <= kNs || AppStrncmp(szWord, kDiscoveryNs, kNs) != 0)
        return nullptr;
    for (const auto &rule : s_atRule)
        if (SoapEqual(szWord + kNs, rule.szName))
            return rule.pfnMatches;
    return nullptr;
}

} // namespace

bool ScopeRuleKnown(const char *szRule)
{
    return FindRule(szRule) != nullptr;
}

bool ScopeMatches(const char *szRule, const char *szAsked, uint32_t dwAsked, const char *szOurs,
                  uint32_t dwOurs)
{
    const PFRule pfnMatches = FindRule(szRule);
    return pfnMatches && pfnMatches({szAsked, szAsked + dwAsked}, {szOurs, szOurs + dwOurs});
}

} // namespace camera
