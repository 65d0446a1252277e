// SPDX-License-Identifier: MIT
#include "support/exported.h"

#include <ctype.h>

#include <filesystem>
#include <fstream>
#include <utility>

namespace test
{

static std::string ReadAll(const std::filesystem::path &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

static std::set<std::string> Words(const std::string &text)
{
    std::set<std::string> words;
    std::string word;
    for (const char ch : text + " ")
        if (isalnum(ch) || ch == '_' || ch == '*')
            word += ch;
        else
            words.insert(std::exchange(word, ""));
    return words;
}

const std::map<std::string, std::string> &Exported()
{
    static const auto s_exported = [] {
        std::map<std::string, std::string> exported;
        for (const auto &header : std::filesystem::directory_iterator(APPCORE_TEST_HEADERS)) {
            const std::string text = ReadAll(header.path());
            for (size_t n = 0; (n = text.find("\nAPP_API ", n)) != std::string::npos; ++n) {
                const size_t nOpen = text.find('(', n),
                             nName = text.find_last_of(" *\n", nOpen) + 1;
                exported[text.substr(nName, nOpen - nName)] =
                    text.substr(nOpen, text.find(";", nOpen) - nOpen);
            }
        }
        return exported;
    }();
    return s_exported;
}

bool IsFunction(const std::string &name)
{
    static const auto s_words = Words(ReadAll(APPCORE_TEST_SYMBOLS));
    return s_words.count(name) != 0;
}

std::string Unlisted(const std::set<std::string> &names, const std::string &text)
{
    const std::set<std::string> words = Words(text);
    std::string result;
    for (const std::string &name : names) {
        bool bListed = words.count(name) != 0;
        for (size_t n = name.size(); n > 0 && !bListed; --n)
            bListed = words.count(name.substr(0, n) + "*") != 0;
        result += bListed ? "" : name + " ";
    }
    return result;
}

} // namespace test
