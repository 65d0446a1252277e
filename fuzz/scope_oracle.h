// SPDX-License-Identifier: MIT
//
// What the scope rules say, told slowly: both texts are taken apart first, then their parts are
// compared.
#ifndef APPCORE_FUZZ_SCOPE_ORACLE_H
#define APPCORE_FUZZ_SCOPE_ORACLE_H

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace scope_oracle
{

using Texts = std::vector<std::string>;

constexpr char kRules[] = "http://schemas.xmlsoap.org/ws/2005/04/discovery/";

inline std::string Lower(std::string text)
{
    for (char &ch : text)
        if (ch >= 'A' && ch <= 'Z')
            ch = static_cast<char>(ch - 'A' + 'a');
    return text;
}

inline std::string Decoded(const std::string &text)
{
    static const std::string kHex = "0123456789abcdef";
    std::string decoded;
    for (size_t i = 0; i < text.size(); ++i) {
        const std::string digits = Lower(text.substr(i + 1, 2));
        if (text[i] == '%' && digits.size() == 2 &&
            digits.find_first_not_of(kHex) == std::string::npos) {
            decoded += static_cast<char>(kHex.find(digits[0]) * 16 + kHex.find(digits[1]));
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

// Takes the text up to the first of `stops`, or all.
inline std::string Take(std::string &text, const char *szStops)
{
    const std::string taken = text.substr(0, text.find_first_of(szStops));
    text.erase(0, taken.size());
    return taken;
}

inline bool Skip(std::string &text, const std::string &start)
{
    const bool bThere = Lower(text.substr(0, start.size())) == start;
    if (bThere)
        text.erase(0, start.size());
    return bThere;
}

inline bool Begins(const Texts &all, const Texts &start)
{
    return start.size() <= all.size() && std::equal(start.begin(), start.end(), all.begin());
}

struct TUri {
    std::string scheme;
    std::optional<std::string> authority;
    bool bRooted;
    Texts segments;
};

inline std::optional<TUri> ParseUri(std::string text)
{
    TUri uri = {};
    text = Take(text, "?#");
    uri.scheme = Lower(Take(text, ":"));
    if (!Skip(text, ":") || uri.scheme.empty() || uri.scheme[0] < 'a' || uri.scheme[0] > 'z' ||
        uri.scheme.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789+-.") !=
            std::string::npos)
        return std::nullopt;
    if (Skip(text, "//"))
        uri.authority = Lower(Take(text, "/"));
    uri.bRooted = Skip(text, "/");
    while (!text.empty()) {
        uri.segments.push_back(Decoded(Take(text, "/")));
        Skip(text, "/");
    }
    return uri;
}

inline bool UriMatches(const std::string &asked, const std::string &ours)
{
    const std::optional<TUri> a = ParseUri(asked), o = ParseUri(ours);
    if (!a || !o || a->scheme != o->scheme || a->authority != o->authority)
        return false;
    for (const Texts &segments : {a->segments, o->segments})
        for (const std::string &segment : segments)
            if (segment == "." || segment == "..")
                return false;
    return Begins(o->segments, a->segments) && (a->segments.empty() || a->bRooted == o->bRooted);
}

// The digits, or nothing for what is no UUID.
inline std::string UuidOf(std::string text)
{
    text = Lower(text);
    Skip(text, "urn:");
    if (!Skip(text, "uuid:"))
        return "";
    std::string shape = text;
    for (char &ch : shape)
        if ((ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'f'))
            ch = 'h';
    return shape == "hhhhhhhh-hhhh-hhhh-hhhh-hhhhhhhhhhhh" ? text : "";
}

// The server, then the names from the root on; nothing for what is no such URL.
inline Texts LdapOf(std::string text)
{
    if (!Skip(text, "ldap://"))
        return {};
    text = Take(text, "?#");
    const std::string server = Lower(Take(text, "/"));
    Skip(text, "/");
    text = Decoded(text);
    Texts names;
    for (size_t i = 0; i < text.size(); ++i) {
        if (i == 0)
            names.emplace_back();
        if (text[i] == ',') {
            names.emplace_back();
            continue;
        }
        names.back() += text[i];
        if (text[i] == '\\' && i + 1 < text.size())
            names.back() += text[++i];
    }
    names.push_back(server);
    std::reverse(names.begin(), names.end());
    return names;
}

// `rule` is the last part of its URI.
inline bool Matches(const std::string &rule, const std::string &asked, const std::string &ours)
{
    if (rule == "rfc2396" || rule == "rfc3986")
        return UriMatches(asked, ours);
    if (rule == "uuid")
        return !UuidOf(asked).empty() && UuidOf(asked) == UuidOf(ours);
    if (rule == "ldap")
        return !LdapOf(asked).empty() && Begins(LdapOf(ours), LdapOf(asked));
    return rule == "strcmp0" && asked == ours;
}

} // namespace scope_oracle

#endif
