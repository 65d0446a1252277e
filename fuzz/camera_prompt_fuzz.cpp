// SPDX-License-Identifier: MIT
//
// The camera's prompt: any bytes of standard input, in pieces of any size, beside an oracle that
// says which actions run, with which arguments, and what is printed.
#include <algorithm>
#include <vector>

#include "camera.h"
#include "fuzz.h"

namespace
{

std::string s_seen;  // what was printed, and the actions that ran
uint32_t s_dwResult; // of these
Fence s_fence;

} // namespace

// ---- The camera around the prompt ---------------------------------------------------------------

namespace camera
{

HAppMemPool g_hPool;

void Print(const char *szFormat, ...)
{
    char achText[1024];
    va_list args;
    va_start(args, szFormat);
    vsnprintf(achText, sizeof(achText), szFormat, args);
    va_end(args);
    s_seen += achText;
}

void PrintText(const char *szText)
{
    s_seen += szText;
}

bool ModuleStart(TModule *)
{
    return true;
}

void ModuleStop(TModule *) {}

void MainWake() {}

// A task that has run what it is sent before main() looks again.
bool ModuleSend(TModule *ptModule, void *pvArg)
{
    ptModule->pfnWork(ptModule, kEvent, pvArg);
    return true;
}

} // namespace camera

namespace
{

// ---- The oracle ---------------------------------------------------------------------------------

using Words = std::vector<std::string>;

struct TWanted {
    const char *szName, *szAction;
    std::vector<uint32_t> most; // one for each number
    bool bText;
};
const TWanted s_atWanted[] = {
    {"help", "shell.help", {}, false},       {"status", "report.status", {}, false},
    {"tasks", "report.tasks", {}, false},    {"pools", "report.pools", {}, false},
    {"set", "config.set", {}, true},         {"motion", "motion.raise", {1000000}, false},
    {"log", "shell.log", {255, 255}, false}, {"discover", "discovery.search", {}, false},
    {"actions", "shell.actions", {}, false}, {"stats", "report.stats", {}, true},
    {"quit", "shell.quit", {}, false},
};

std::string Noted(const std::string &action, uint32_t dwArg1, uint32_t dwArg2, uint32_t dwArg3,
                  const std::string &text)
{
    return Printed("<%s %u %u %u>", action.c_str(), dwArg1, dwArg2, dwArg3) + text + "\n";
}

std::string Usage(const std::string &name)
{
    std::pair<std::string, std::string> usage(name, "");
    AppHostWalkCommands(
        [](const char *szName, const char *szHelp, void *pvUsage) {
            auto &wanted = *static_cast<std::pair<std::string, std::string> *>(pvUsage);
            if (wanted.first == szName)
                wanted.second = "usage: " + wanted.first + " " + szHelp + "\n";
        },
        &usage);
    return usage.second;
}

Words Split(const std::string &line)
{
    Words words;
    for (size_t nEnd = 0; words.size() < 15;) {
        const size_t nStart = line.find_first_not_of(" \t\r", nEnd);
        if (nStart == std::string::npos)
            break;
        nEnd = std::min(line.find_first_of(" \t\r", nStart), line.size());
        words.push_back(line.substr(nStart, nEnd - nStart));
    }
    return words;
}

bool AreNumbers(const Words &words, const TWanted &wanted)
{
    if (words.size() != wanted.most.size() + 1)
        return false;
    for (size_t i = 0; i < wanted.most.size(); ++i)
        if (words[i + 1].find_first_not_of("0123456789") != std::string::npos ||
            words[i + 1].size() > 10 || std::stoull(words[i + 1]) > wanted.most[i])
            return false;
    return true;
}

std::string Outcome(const Words &words, const TWanted &wanted)
{
    if (!wanted.bText && !AreNumbers(words, wanted))
        return Usage(words[0]);
    if (words[0] == "quit")
        return "";
    uint32_t adwArg[2] = {};
    for (size_t i = 0; i < wanted.most.size(); ++i)
        adwArg[i] = static_cast<uint32_t>(std::stoul(words[i + 1]));
    std::string text;
    for (size_t i = 1; i < words.size(); ++i)
        text += (i > 1 ? " " : "") + words[i];
    return Noted(wanted.szAction, adwArg[0], adwArg[1], 0, text) +
           (s_dwResult == APP_OK ? ""
                                 : Printed("%s: failed, code %u\n", wanted.szName, s_dwResult));
}

std::string Outcome(const std::string &line)
{
    if (line.empty())
        return "";
    const Words words = Split(line);
    if (line.size() > 255 || line.find('\0') != std::string::npos || words.empty())
        return "this line cannot be run\n";
    for (const TWanted &wanted : s_atWanted)
        if (words[0] == wanted.szName)
            return Outcome(words, wanted);
    return "no such command; try help\n";
}

// All that is seen of a prompt that is given these bytes; the end of one that was ended.
std::string Session(const std::string &bytes, bool bEcho, bool *pbEnded)
{
    std::string seen = "camera> ";
    size_t nStart = 0;
    for (size_t nEnd; (nEnd = bytes.find('\n', nStart)) != std::string::npos; nStart = nEnd + 1) {
        const std::string line = bytes.substr(nStart, nEnd - nStart);
        if (line.size() > 511) {
            seen += "\nthis line is too long\n";
        } else {
            seen += (bEcho ? line.substr(0, line.find('\0')) + "\n" : "") + Outcome(line);
            const Words words = Split(line);
            *pbEnded = line.size() < 256 && words == Words{"quit"};
        }
        if (*pbEnded)
            return seen;
        seen += "camera> ";
    }
    return seen + (bytes.size() - nStart > 511 ? "\nthis line is too long\n" : "");
}

// ---- Driving it ---------------------------------------------------------------------------------

template <size_t nRow>
uint32_t Note(uint32_t dwArg1, uint32_t dwArg2, uint32_t dwArg3)
{
    s_seen += Noted(s_atWanted[nRow].szAction, dwArg1, dwArg2, dwArg3, camera::ShellText());
    return s_dwResult;
}

// The first registration of a key stays.  "shell.quit" is the shell's own.
template <size_t... nRow>
void RegisterActions(std::index_sequence<nRow...>)
{
    for (uint32_t dwResult : {AppRegisterShareAction(s_atWanted[nRow].szAction, Note<nRow>)...})
        Require(dwResult == APP_OK);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    RegisterActions(std::make_index_sequence<std::size(s_atWanted) - 1>());
    return 0;
}

// The first byte is the size of the pieces, the second what the actions return and the echo.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize)
{
    Parts parts(pbyData, nSize);
    const size_t nPiece = parts.Byte() + 1u;
    const uint8_t byResult = parts.Byte();
    s_dwResult = byResult / 2u % 4u * 100u;
    std::string bytes;
    while (parts.Left() > 0)
        bytes += static_cast<char>(parts.Byte());

    bool bEnded = false;
    s_seen.clear();
    camera::TPrompt tPrompt = {};
    tPrompt.bEcho = byResult % 2u != 0;
    const std::string wanted = Session(bytes, tPrompt.bEcho, &bEnded);
    Require(camera::ShellStart());
    for (size_t i = 0; i < bytes.size() && !tPrompt.bQuit; i += nPiece) {
        const std::string piece = bytes.substr(i, nPiece);
        const auto dwLen = static_cast<uint32_t>(piece.size());
        const uint32_t dwTaken = camera::PromptTake(&tPrompt, s_fence.Place(piece), dwLen);
        Require(dwTaken == dwLen || tPrompt.bQuit);
    }
    Require(camera::PromptTake(&tPrompt, nullptr, 0) == 0 && camera::PromptIsIdle(&tPrompt));
    camera::ShellStop();
    Require(s_seen == wanted);
    Require(tPrompt.bQuit == bEnded && TakeLines() == 0);
    return 0;
}
