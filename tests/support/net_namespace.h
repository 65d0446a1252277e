// SPDX-License-Identifier: MIT
//
// Network namespaces for tests: hosts of their own, without root, where the machine allows them.
#ifndef APPCORE_TESTS_SUPPORT_NET_NAMESPACE_H
#define APPCORE_TESTS_SUPPORT_NET_NAMESPACE_H

#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace test {

constexpr int kNotRun = 77;

inline bool Shell(const std::string &command) { return system((command + " >/dev/null 2>&1").c_str()) == 0; }

inline void WriteFile(const char *szPath, const std::string &text) {
    const int nFd = open(szPath, O_WRONLY | O_CLOEXEC);
    if (nFd >= 0) {
        if (write(nFd, text.data(), text.size()) < 0) perror(szPath);
        close(nFd);
    }
}

// A namespace of the calling (single-threaded) process's own, in which it is root.
inline bool EnterNamespace() {
    const std::string uid = std::to_string(getuid()), gid = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", "0 " + uid + " 1");
    WriteFile("/proc/self/gid_map", "0 " + gid + " 1");
    return Shell("ip link set lo up");
}

// Runs the work in a child process and returns its exit status.
inline int RunInChild(const std::function<int()> &work) {
    fflush(nullptr);
    const pid_t nPid = fork();
    if (nPid == 0) _exit(work());
    int nStatus = 0;
    waitpid(nPid, &nStatus, 0);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
}

} // namespace test

#endif
