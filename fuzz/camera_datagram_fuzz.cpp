// SPDX-License-Identifier: MIT
//
// What the camera makes of a datagram.  Any bytes are judged, and what is answered gets a whole
// answer to what was asked.  Then a message is made of the input, in any words that mean the same,
// and is judged as it was meant.
#include <algorithm>
#include <vector>

#include "camera.h"
#include "fuzz.h"
#include "probe.h"
#include "scope.h"
#include "scope_oracle.h"
#include "soap.h"
#include "xml/mxml_version.h"

namespace camera
{

HAppMemPool g_hPool;
uint8_t g_byNetLog;

} // namespace camera

// Nothing is asked about the network: each of 2 million answers would list the interfaces.
extern "C" int32_t IpcCapGetHwExternal(TIpcCapHwExternal *)
{
    return 0;
}

namespace
{

using namespace camera;
using scope_oracle::Lower;
using scope_oracle::Texts;

Fence s_datagram, s_answer;
TConfig s_tConfig;

constexpr char kUuid[] = "5f5a69c2-E0AE-504f-829b-00fcdab169cc";
const Texts kOurScopes = {"onvif://www.onvif.org/type/Network_Video_Transmitter",
                          "onvif://www.onvif.org/name/Front%20door%2F%25",
                          "onvif://www.onvif.org/hardware/DC-100"};

bool Has(const std::string &text, const char *szPart, size_t nFrom = 0)
{
    return text.find(szPart, nFrom) != std::string::npos;
}

// ---- Any bytes ----------------------------------------------------------------------------------

std::string TextOf(mxml_node_t *ptTree, const char *szName)
{
    mxml_node_t *ptNode = mxmlFindElement(ptTree, ptTree, szName, nullptr, nullptr, MXML_DESCEND);
    const char *szText = ptNode ? mxmlGetOpaque(ptNode) : nullptr;
    return szText ? szText : "";
}

void CheckAnswer(const TQuestion &question)
{
    const std::string kind = question.eKind == kProbe ? "Probe" : "Resolve";
    TAppNetAddr peer = {};
    AppConvertStrtoNet("127.0.0.1", &peer);
    char *szAnswer = s_answer.Place(kMessageSize);
    const uint32_t dwLength = ProbeAnswer(question, s_tConfig, peer, szAnswer, kMessageSize);
    Require(dwLength > 0 && szAnswer[dwLength] == '\0');
    mxml_node_t *ptTree = nullptr;
    Require(AppXmlLoad(szAnswer, dwLength, &ptTree) == APP_OK);
    Require(TextOf(ptTree, "a:RelatesTo") == question.achMessageId);
    Require(TextOf(ptTree, "a:Action") == scope_oracle::kRules + kind + "Matches");
    mxml_node_t *ptMatch = mxmlFindPath(
        ptTree, ("s:Envelope/s:Body/d:" + kind + "Matches/d:" + kind + "Match").c_str());
    Require(TextOf(ptMatch, "a:Address") == std::string("urn:uuid:") + kUuid);
    Require(TextOf(ptMatch, "d:Scopes") ==
            kOurScopes[0] + " " + kOurScopes[1] + " " + kOurScopes[2]);
    Require(TextOf(ptMatch, "d:XAddrs") == "http://127.0.0.1:8000/onvif/device_service");
    mxmlDelete(ptTree);
    if (strlen(question.achMessageId) % 8 == 0) // the message number may have grown by a digit
        Require(ProbeAnswer(question, s_tConfig, peer, s_answer.Place(dwLength), dwLength) == 0);
}

// Before the envelope, in a text without what could hide it.
bool HasDocumentType(const std::string &text)
{
    const size_t nDeclaration = text.compare(0, 2, "<?") == 0 ? text.find("?>", 1) : 0;
    const std::string before = text.substr(0, text.find("Envelope"));
    return nDeclaration < before.size() && !Has(before, "<!--") && !Has(before, "<![") &&
           !Has(before, "<?", 1) && Has(before, "<!DOCTYPE", nDeclaration);
}

EOutcome Judge(const std::string &text, TQuestion *ptQuestion)
{
    const EOutcome eOutcome = ProbeJudge(s_datagram.Place(text), static_cast<uint32_t>(text.size()),
                                         s_tConfig, ptQuestion);
    for (const char ch : std::string(ptQuestion->achAction))
        Require(ch >= ' ' && ch <= '~');
    if (eOutcome == kAnswered && text.size() % 2 == 0) // it takes long
        CheckAnswer(*ptQuestion);
    return eOutcome;
}

void CheckAny(const std::string &text)
{
    TQuestion question;
    const EOutcome eOutcome = Judge(text, &question);
    Require(eOutcome < kTextOutcomes && eOutcome != kRepeated);
    Require(!HasDocumentType(text) || eOutcome == kDocumentType || eOutcome == kBroken);
}

// ---- Scopes -------------------------------------------------------------------------------------

template <typename Choices>
auto Pick(Parts &parts, const Choices &choices)
{
    return std::data(choices)[parts.Byte() % std::size(choices)];
}

const Texts kRuleNames = {"rfc2396", "rfc3986", "uuid", "ldap", "strcmp0", "none", "", "RFC3986"};

// A text much like `text`.
std::string Changed(Parts &parts, std::string text)
{
    static const Texts kPieces = {"/",   ".", "..", "/./", "%2F", "%2e", ":",
                                  "//",  "?", "#",  "a",   "A",   "%",   "%4",
                                  "%61", ",", "\\", "%5C", "%2c", "-",   "urn:"};
    for (int n = parts.Byte() % 4; n > 0; --n) {
        const size_t nAt = parts.Byte() % (text.size() + 1);
        const uint8_t byHow = parts.Byte() % 5;
        if (byHow == 0)
            text.insert(nAt, Pick(parts, kPieces));
        else if (byHow == 1)
            text.erase(nAt, 1 + parts.Byte() % 4);
        else if (byHow == 2)
            text.resize(nAt);
        else if (nAt < text.size() && byHow == 3)
            text.replace(nAt, 1, Printed("%%%02x", static_cast<unsigned char>(text[nAt])));
        else if (nAt < text.size() && isalpha(static_cast<unsigned char>(text[nAt])))
            text[nAt] = static_cast<char>(text[nAt] ^ 0x20);
    }
    return text;
}

bool IsMatch(const std::string &rule, const std::string &asked, const std::string &ours)
{
    return ScopeMatches(rule == "default" ? nullptr : (" " + rule + "\n").c_str(), asked.data(),
                        static_cast<uint32_t>(asked.size()), ours.data(),
                        static_cast<uint32_t>(ours.size()));
}

void CheckScopes(Parts &parts)
{
    static const Texts kScopes = {kOurScopes[1],
                                  "Http://u@Host:80/a/b//c/?q",
                                  "foo:a/b",
                                  "foo:/a",
                                  std::string("uuid:") + kUuid,
                                  std::string("urn:uuid:") + kUuid,
                                  "ldap://Host:389/cn=a\\,b,ou=c,o=d?x",
                                  "ldap:///o=d,o=d"};
    const std::string base = Pick(parts, kScopes), rule = Pick(parts, kRuleNames);
    const std::string asked = Changed(parts, base), ours = Changed(parts, base);
    Require(IsMatch(scope_oracle::kRules + rule, asked, ours) ==
            scope_oracle::Matches(rule, asked, ours));
}

// What the protocol's text itself tells.
void CheckExamples()
{
    static const struct {
        const char *szRule, *szAsked, *szOurs;
        bool bMatches;
    } s_at[] = {
        {"rfc3986", "http://example.com/abc", "http://example.com/abc/def", true},
        {"rfc3986", "http://example.com/a", "http://example.com/abc", false},
        {"rfc3986", "HTTP://EXAMPLE.com/abc/?x", "http://example.com/abc", true},
        {"rfc3986", "http://example.com/ABC", "http://example.com/abc", false},
        {"rfc3986", "http://example.com/a/./b", "http://example.com/a/./b", false},
        {"rfc3986", "http://example.com/a", "http://example.com/a/../b", false},
        {"rfc3986", "http://example.com/a%2Fb", "http://example.com/a/b", false},
        {"rfc3986", "onvif:", "onvif://www.onvif.org/x", false},
        {"rfc2396", "onvif://www.onvif.org", "onvif://www.onvif.org/x", true},
        {"rfc2396", "onvif://www.onvif.org/", "onvif://www.onvif.org/x", true},
        {"rfc3986", "foo:a", "foo:/a/b", false},
        {"rfc3986", "foo:a#x", "foo:a", true},
        {"uuid", "uuid:5F5A69C2-e0ae-504f-829b-00fcdab169cc",
         "urn:uuid:5f5a69c2-e0ae-504f-829b-00fcdab169cc", true},
        {"ldap", "ldap://h/ou=b,o=c", "LDAP://H/cn=a,ou=b,o=c", true},
        {"ldap", "ldap://h/cn=a", "ldap://h/cn=a,ou=b,o=c", false},
        {"ldap", "ldap://h/b,o=c", "ldap://h/ou=a\\,b,o=c", false},
        {"ldap", "ldap://h/o=c", "ldap://h/ou=a\\\\,o=c", true},
        {"ldap", "ldap://h", "ldap://h/o=c", true},
        {"strcmp0", "a", "a", true},
        {"strcmp0", "a", "A", false},
        {"none", "a", "a", false},
    };
    for (const auto &row : s_at) {
        Require(IsMatch(std::string(scope_oracle::kRules) + row.szRule, row.szAsked, row.szOurs) ==
                row.bMatches);
        Require(scope_oracle::Matches(row.szRule, row.szAsked, row.szOurs) == row.bMatches);
    }
    Require(IsMatch("default", "foo:a", "foo:a/b"));
    Require(!IsMatch("rfc3986", "foo:a", "foo:a"));
}

// ---- Messages -----------------------------------------------------------------------------------

constexpr char kElsewhere[] = "urn:elsewhere";
const Texts kPrefixes = {"p", "q", "x-1", "", "r"};

std::string Trimmed(const std::string &text)
{
    const size_t nFrom = text.find_first_not_of(" \t\r\n");
    return nFrom == std::string::npos
               ? ""
               : text.substr(nFrom, text.find_last_not_of(" \t\r\n") + 1 - nFrom);
}

std::string Escaped(const std::string &text)
{
    std::string escaped;
    for (const char ch : text)
        escaped +=
            Has("<&>'\"", std::string(1, ch).c_str()) ? Printed("&#x%x;", ch) : std::string(1, ch);
    return escaped;
}

bool IsOneOf(const std::string &text, const Texts &texts)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

// Writes a message and keeps what it means.
class Message
{
public:
    explicit Message(Parts &parts) : m_parts(parts) { Write(); }
    const std::string &Text() const { return m_text; }
    const std::string &Id() const { return m_id; }

    EOutcome Outcome() const
    {
        if (m_bBroken)
            return kBroken;
        if (m_bDocumentType)
            return kDocumentType;
        if (!m_bUnderstood)
            return kNotUnderstood;
        if (!m_bAsks || Trimmed(m_action) != scope_oracle::kRules + m_question)
            return kOtherAction;
        if (Trimmed(m_id).empty())
            return kNoMessageId;
        return m_bIdBroken || m_id.size() >= kMaxIdSize ? kBroken : m_eMatch;
    }

private:
    bool Rarely() { return m_parts.Byte() >= 0xF0; }
    std::string Blank() { return Rarely() ? " \n" : ""; }
    void Remark() { m_text += Rarely() ? "<!-- <!DOCTYPE a> -->" : Blank(); }

    // ---- Namespaces and elements

    std::string Find(const std::string &prefix) const
    {
        const auto found = std::find_if(m_declared.rbegin(), m_declared.rend(),
                                        [&](const auto &one) { return one.first == prefix; });
        return found == m_declared.rend() ? "" : found->second;
    }
    void Declare(const std::string &prefix, const std::string &uri)
    {
        m_declared.emplace_back(prefix, uri);
        m_text += (prefix.empty() ? " xmlns='" : " xmlns:" + prefix + "='") + uri + "'";
    }
    // An element with what the two functions write: attributes, and what it holds.
    template <typename Attributes, typename Inner>
    void Element(const std::string &uri, const std::string &local, Attributes attributes,
                 Inner inner)
    {
        const size_t nDeclared = m_declared.size();
        const std::string prefix = Pick(m_parts, kPrefixes);
        const std::string name = prefix.empty() ? local : prefix + ":" + local;
        m_text += "<" + name;
        if (Find(prefix) != uri || Rarely())
            Declare(prefix, uri);
        attributes(prefix);
        m_text += ">";
        inner();
        m_text += "</" + name + ">" + Blank();
        m_declared.resize(nDeclared);
    }
    template <typename Inner>
    void Element(const std::string &uri, const std::string &local, Inner inner)
    {
        Element(
            uri, local, [](const std::string &) {}, inner);
    }

    // ---- The header

    // With attributes that SOAP has, or that are called like those.
    void WriteDemand(const std::string &blockPrefix, bool bKnown)
    {
        static const std::string kRoles = std::string(kSoapNs) + "/role/";
        const std::string prefix = Pick(m_parts, kPrefixes);
        if (prefix != blockPrefix && m_parts.Byte() % 2 == 0)
            Declare(prefix, Pick(m_parts, Texts{kSoapNs, kSoapNs, kElsewhere}));
        const bool bSoap = !prefix.empty() && Find(prefix) == kSoapNs;
        const std::string start = " " + (prefix.empty() ? "" : prefix + ":");
        const std::string must =
            Pick(m_parts, Texts{"1", "true", " 1\n", "true", "false", "True", "", "1 1"});
        m_text += start + "mustUnderstand='" + must + "'";
        std::string role;
        if (m_parts.Byte() % 2 == 0) {
            role = Pick(m_parts, Texts{kRoles + "next", " " + kRoles + "ultimateReceiver", "",
                                       kRoles + "none", kElsewhere});
            m_text += start + "role='" + role + "'";
        }
        if (bSoap && IsOneOf(Trimmed(must), {"1", "true"}) && !bKnown &&
            IsOneOf(Trimmed(role), {"", kRoles + "next", kRoles + "ultimateReceiver"}))
            m_bUnderstood = false;
    }
    void WriteBlock(const std::string &uri, const std::string &local, const std::string &text)
    {
        const bool bAddressing = uri == kAddressingNs;
        const bool bKnown = (bAddressing && IsOneOf(local, {"Action", "MessageID", "To", "From",
                                                            "ReplyTo", "FaultTo", "RelatesTo"})) ||
                            (uri == kDiscoveryNs && local == "AppSequence");
        Element(
            uri, local,
            [&](const std::string &prefix) {
                if (m_parts.Byte() % 2)
                    WriteDemand(prefix, bKnown);
            },
            [&] { m_text += text; });
    }
    void WriteId()
    {
        std::string written = Blank() + "urn:";
        for (const char ch : m_parts.Text())
            written += ch >= ' ' && ch <= '~' ? ch : 'x';
        if (Rarely())
            written.resize(kMaxIdSize - 3 + m_parts.Byte() % 6, 'y');
        if (Rarely())
            written = " ";
        m_id = written;
        written = Escaped(written);
        if (Rarely())
            written += WriteReference();
        WriteBlock(kAddressingNs, "MessageID", written);
    }
    // Beyond the range a reference would mean another character to Mini-XML.
    std::string WriteReference()
    {
        static const std::vector<uint32_t> kCodes = {0xD7FF, 0xD800, 0xDFFF,   0xE000,
                                                     0xFFFE, 0xFFFF, 0x10FFFF, 0x110000};
        const uint32_t dwAny = std::max(m_parts.Number() % 0x400000, uint32_t{' '});
        const uint32_t dwCode = m_parts.Byte() % 2 ? Pick(m_parts, kCodes) : dwAny;
        if (dwCode < 0x80)
            m_id += static_cast<char>(dwCode);
        else if (dwCode < 0x800)
            m_id += Printed("%c%c", 0xC0 | dwCode >> 6, 0x80 | (dwCode & 0x3F));
        else if (dwCode < 0x10000)
            m_id += Printed("%c%c%c", 0xE0 | dwCode >> 12, 0x80 | (dwCode >> 6 & 0x3F),
                            0x80 | (dwCode & 0x3F));
        else
            m_id += Printed("%c%c%c%c", 0xF0 | dwCode >> 18, 0x80 | (dwCode >> 12 & 0x3F),
                            0x80 | (dwCode >> 6 & 0x3F), 0x80 | (dwCode & 0x3F));
        m_bIdBroken = dwCode == 0xFFFE || dwCode == 0xFFFF;
        m_bBroken = (dwCode >= 0xD800 && dwCode < 0xE000) || dwCode > 0x10FFFF;
        return Printed("&#x%X;", dwCode);
    }
    void WriteHeader()
    {
        Remark();
        for (int n = m_parts.Byte() % 3; n > 0; --n)
            WriteBlock(Pick(m_parts, Texts{kAddressingNs, kDiscoveryNs, kElsewhere}),
                       Pick(m_parts, Texts{"To", "ReplyTo", "Security", "AppSequence", "From"}),
                       "http://198.51.100.1/");
        if (!Rarely()) {
            m_action = scope_oracle::kRules +
                       (Rarely() ? Pick(m_parts, Texts{"Probe", "Resolve", "Bye"}) : m_question);
            WriteBlock(kAddressingNs, "Action", Blank() + m_action + Blank());
        }
        if (!Rarely())
            WriteId();
    }

    // ---- The body

    void WriteTypes()
    {
        bool bMatch = true;
        const auto words = [&] {
            for (int n = m_parts.Byte() % 3; n > 0; --n) {
                const std::string prefix = Pick(m_parts, Texts{"n", "t", "p", "q", "", "none"});
                const std::string uri = Find(prefix);
                std::string local = uri == kNetworkNs ? "NetworkVideoTransmitter" : "Device";
                if (Rarely())
                    local = Pick(m_parts, Texts{"NetworkVideoTransmitter", "device", "Device"});
                m_text += " " + (prefix.empty() ? "" : prefix + ":") + local;
                bMatch &= (uri == kNetworkNs && local == "NetworkVideoTransmitter") ||
                          (uri == kDeviceNs && local == "Device");
            }
        };
        const auto declarations = [&](const std::string &) {
            Declare("n", Rarely() ? kElsewhere : kNetworkNs);
            Declare("t", Rarely() ? kNetworkNs : kDeviceNs);
        };
        Element(kDiscoveryNs, "Types", declarations, words);
        if (!bMatch)
            m_eMatch = kOtherTypes;
    }
    void WriteScopes()
    {
        const std::string rule = m_parts.Byte() % 2 ? Pick(m_parts, kRuleNames) : "rfc3986";
        bool bMatch = IsOneOf(rule, {"rfc2396", "rfc3986", "uuid", "ldap", "strcmp0"});
        const auto words = [&] {
            for (int n = m_parts.Byte() % 3; n > 0; --n) {
                const std::string word = Changed(m_parts, Pick(m_parts, kOurScopes));
                m_text += Escaped(word) + "\n";
                bMatch &= word.empty() ||
                          std::any_of(kOurScopes.begin(), kOurScopes.end(), [&](const auto &ours) {
                              return scope_oracle::Matches(rule, word, ours);
                          });
            }
        };
        const auto attribute = [&](const std::string &) {
            if (rule != "rfc3986" || m_parts.Byte() % 2) // which is the default too
                m_text += " MatchBy='" + Blank() + scope_oracle::kRules + rule + Blank() + "'";
        };
        Element(kDiscoveryNs, "Scopes", attribute, words);
        if (!bMatch && m_eMatch == kAnswered)
            m_eMatch = kOtherScopes;
    }
    void WriteAddress()
    {
        std::string address = std::string("urn:uuid:") + kUuid;
        if (m_parts.Byte() % 2)
            address = Changed(m_parts, address);
        if (Rarely())
            address += " urn:x";
        if (Lower(address) != Lower(std::string("urn:uuid:") + kUuid))
            m_eMatch = kOtherDevice;
        Element(kAddressingNs, "EndpointReference", [&] {
            Remark();
            Element(kAddressingNs, "Address",
                    [&] { m_text += Blank() + Escaped(address) + Blank(); });
        });
    }
    void WriteQuestion()
    {
        Remark();
        if (m_question == "Resolve")
            return Rarely() ? static_cast<void>(m_eMatch = kOtherDevice) : WriteAddress();
        if (m_parts.Byte() % 2)
            WriteTypes();
        Remark();
        if (m_parts.Byte() % 2)
            WriteScopes();
    }

    void Write()
    {
        const bool bDeclaration = m_parts.Byte() % 2;
        m_question = m_parts.Byte() % 4 == 3 ? "Resolve" : "Probe";
        if (Rarely())
            m_question = "Hello";
        if (bDeclaration) {
            m_text = "<?xml version='1.0'?>";
            Remark();
        }
        m_bDocumentType = Rarely();
        m_text += m_bDocumentType ? "<!DOCTYPE Envelope>" : "";
        Element(kSoapNs, "Envelope", [&] {
            if (!Rarely())
                Element(kSoapNs, "Header", [&] { WriteHeader(); });
            Element(kSoapNs, "Body", [&] {
                const std::string uri = Rarely() ? kElsewhere : kDiscoveryNs;
                m_bAsks = uri == kDiscoveryNs && m_question != "Hello";
                Element(uri, m_question, [&] { WriteQuestion(); });
            });
        });
    }

    Parts &m_parts;
    std::string m_text, m_question, m_action, m_id;
    std::vector<std::pair<std::string, std::string>> m_declared; // prefix, namespace
    bool m_bBroken = false, m_bDocumentType = false, m_bUnderstood = true, m_bAsks = false;
    bool m_bIdBroken = false;
    EOutcome m_eMatch = kAnswered; // of a question that is one
};

// Reading very many attributes or elements takes long.
void CheckMany()
{
    Parts parts(nullptr, 0);
    const Message message(parts);
    std::string attributes = message.Text(), elements = attributes;
    TQuestion question;
    Require(Judge(elements, &question) == kAnswered);
    for (int i = 0; i < 1100; ++i) {
        attributes.insert(attributes.find('>'), Printed(" a%d='1'", i));
        elements.insert(elements.rfind('<'), "<a/>");
    }
    Require(Judge(attributes, &question) == kBroken && Judge(elements, &question) == kBroken);
}

void CheckMessage(Parts &parts)
{
    const Message message(parts);
    TQuestion question;
    const EOutcome eOutcome = Judge(message.Text(), &question);
    if (eOutcome != message.Outcome())
        fprintf(stderr, "%d, not %d:\n%s\n", eOutcome, message.Outcome(), message.Text().c_str());
    Require(eOutcome == message.Outcome());
    Require(eOutcome != kAnswered || question.achMessageId == message.Id());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    AppStrncpy(s_tConfig.achName, "Front door/%", sizeof(s_tConfig.achName));
    AppStrncpy(s_tConfig.achHardware, "DC-100", sizeof(s_tConfig.achHardware));
    AppStrncpy(s_tConfig.achUuid, kUuid, sizeof(s_tConfig.achUuid));
    s_tConfig.dwService = 8000;
    CheckExamples();
    CheckMany();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    CheckAny(std::string(reinterpret_cast<const char *>(pbyData), nSize));
    Parts parts(pbyData, nSize);
    CheckScopes(parts);
    CheckMessage(parts);
    return 0;
}
