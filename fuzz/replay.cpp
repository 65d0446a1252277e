// SPDX-License-Identifier: MIT
//
// Runs a fuzz target without a fuzzer, so that its oracle counts with every compiler and sanitizer
// and on every word size: the corpus first, then random inputs made of it and of the target's
// words.
//
// usage: NAME_fuzz_replay [SEED RUNS | FILE]
//
// An input that ends the run is left in NAME_fuzz_replay.input beside the program.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pbyData, size_t nSize);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *pnArgs, char ***paszArgs);

namespace
{

#if defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr unsigned kRuns = 2000;
#elif defined(__SANITIZE_ADDRESS__)
constexpr unsigned kRuns = 5000;
#else
constexpr unsigned kRuns = 20000;
#endif
constexpr unsigned kSeed = 11;
constexpr size_t kLongest = 1024;

std::string Read(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> ReadCorpus(const std::string &target)
{
    const std::filesystem::path folder = APPCORE_FUZZ_SOURCE "/corpus/" + target;
    std::vector<std::string> inputs;
    if (std::filesystem::is_directory(folder))
        for (const auto &entry : std::filesystem::directory_iterator(folder))
            inputs.push_back(Read(entry.path()));
    std::sort(inputs.begin(), inputs.end()); // a directory has no order
    return inputs;
}

// A line of a dictionary: a word in quotes, in which \" \\ and \xHH stand for one byte each.
std::string Unquote(const std::string &line)
{
    std::string word;
    for (size_t i = 1; i + 1 < line.size(); ++i) {
        if (line[i] == '\\' && line[++i] == 'x') {
            word += static_cast<char>(strtol(line.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            word += line[i];
        }
    }
    return word;
}

std::vector<std::string> ReadWords(const std::string &target)
{
    std::vector<std::string> words;
    std::ifstream file(APPCORE_FUZZ_SOURCE "/dict/" + target);
    for (std::string line; std::getline(file, line);)
        if (line[0] == '"')
            words.push_back(Unquote(line));
    return words;
}

class Inputs
{
public:
    Inputs(const std::string &target, unsigned nSeed)
        : m_random(nSeed), m_corpus(ReadCorpus(target)), m_words(ReadWords(target))
    {
    }
    const std::vector<std::string> &Corpus() const { return m_corpus; }
    size_t Words() const { return m_words.size(); }

    // An entry of the corpus, changed, or words in a row.
    std::string Next()
    {
        std::string input;
        if (!m_corpus.empty() && Below(2) == 0) {
            input = Pick(m_corpus);
            for (size_t n = 1 + Below(4); n > 0; --n)
                Change(input);
        } else {
            for (size_t n = Below(16); n > 0; --n)
                input += Piece();
        }
        return input.substr(0, kLongest);
    }

private:
    size_t Below(size_t nLimit) { return m_random() % nLimit; }
    const std::string &Pick(const std::vector<std::string> &from)
    {
        return from[Below(from.size())];
    }
    std::string Piece()
    {
        if (m_words.empty() || Below(4) == 0)
            return std::string(1, static_cast<char>(Below(256)));
        return Pick(m_words);
    }
    void Change(std::string &input)
    {
        const size_t nAt = Below(input.size() + 1), nLength = Below(8);
        switch (Below(5)) {
        case 0:
            input.insert(nAt, Piece());
            break;
        case 1:
            input.erase(nAt, nLength);
            break;
        case 2:
            input.replace(nAt, nLength, Piece());
            break;
        case 3:
            input.insert(nAt, input.substr(Below(nAt + 1), nLength));
            break;
        default: { // goes on as another one
            const std::string &other = Pick(m_corpus);
            input = input.substr(0, nAt) + other.substr(Below(other.size() + 1));
        }
        }
    }

    std::mt19937 m_random; // the same numbers everywhere
    std::vector<std::string> m_corpus, m_words;
};

// The input stays behind when it ends the process, however it does so.
class Runner
{
public:
    explicit Runner(const std::string &program)
        : m_path(program + ".input"),
          m_nFd(open(m_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644))
    {
    }
    ~Runner()
    {
        close(m_nFd);
        unlink(m_path.c_str());
    }
    void Run(const std::string &input)
    {
        if (pwrite(m_nFd, input.data(), input.size(), 0) < 0 ||
            ftruncate(m_nFd, static_cast<off_t>(input.size())) != 0)
            perror(m_path.c_str());
        // A block of exactly this size, so that a sanitizer sees a step beyond it.
        const std::unique_ptr<uint8_t[]> block(new uint8_t[input.size()]);
        if (!input.empty())
            memcpy(block.get(), input.data(), input.size());
        LLVMFuzzerTestOneInput(block.get(), input.size());
    }

private:
    std::string m_path;
    int m_nFd;
};

} // namespace

int main(int nArgs, char **aszArg)
{
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&nArgs, &aszArg);
    Runner runner(aszArg[0]);
    if (nArgs == 2) {
        runner.Run(Read(aszArg[1]));
        return 0;
    }
    const auto nSeed = nArgs == 3 ? static_cast<unsigned>(strtoul(aszArg[1], nullptr, 10)) : kSeed;
    const unsigned long nRuns = nArgs == 3 ? strtoul(aszArg[2], nullptr, 10) : kRuns;
    // The program is called like its target.
    const std::string program = std::filesystem::path(aszArg[0]).filename();
    Inputs inputs(program.substr(0, program.rfind("_replay")), nSeed);
    printf("%zu inputs of the corpus, %lu random ones of %zu words, seed %u\n",
           inputs.Corpus().size(), nRuns, inputs.Words(), nSeed);
    fflush(stdout);
    runner.Run("");
    for (const std::string &input : inputs.Corpus())
        runner.Run(input);
    for (unsigned long i = 0; i < nRuns; ++i)
        runner.Run(inputs.Next());
    return 0;
}
