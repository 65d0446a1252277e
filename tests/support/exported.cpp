// SPDX-License-Identifier: MIT
#include "support/exported.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace test
{

static std::string ReadAll(const std::filesystem::path &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
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
    static const auto s_functions = [] {
        std::istringstream lines(ReadAll(APPCORE_TEST_SYMBOLS)); // of nm: the name comes first
        std::set<std::string> functions;
        for (std::string line; std::getline(lines, line);)
            functions.insert(line.substr(0, line.find(' ')));
        return functions;
    }();
    return s_functions.count(name) != 0;
}

std::string Unlisted(const std::set<std::string> &names, const std::string &list)
{
    std::set<std::string> left = names;
    std::string result;
    std::istringstream words(list);
    for (std::string word; words >> word;) {
        bool bKnown = false;
        for (const std::string &name : names)
            if (name == word || (word.back() == '*' &&
                                 name.compare(0, word.size() - 1, word, 0, word.size() - 1) == 0)) {
                left.erase(name);
                bKnown = true;
            }
        if (!bKnown)
            result += word + "? ";
    }
    for (const std::string &name : left)
        result += name + " ";
    return result;
}

} // namespace test
