// Whether threads stay asleep while idle, from the kernel's count of their
// voluntary context switches (Linux only; elsewhere nothing is checked).
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "kestrel/threads.h"

#if defined(__linux__)
#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#endif

namespace kestrel_test {

#if defined(__linux__)
inline long currentTid() {
    return static_cast<long>(::syscall(SYS_gettid));
}

// How often the thread tid of this process has gone to sleep so far.
inline long sleepsOf(long tid) {
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
            return std::stol(line.substr(24));
    }
    return -1;
}

// The threads of this process that are not in before.
inline std::vector<long> newTasks(const std::vector<long>& before = {}) {
    std::vector<long> tids;
    if (DIR* dir = ::opendir("/proc/self/task")) {
        while (const dirent* entry = ::readdir(dir)) {
            const long tid = entry->d_name[0] != '.' ? std::stol(entry->d_name) : 0;
            if (tid != 0 && std::find(before.begin(), before.end(), tid) == before.end())
                tids.push_back(tid);
        }
        ::closedir(dir);
    }
    return tids;
}

// The threads tids wake at most once each (a late wake from before the
// measurement) in 300 ms of idleness.
inline void expectIdle(const std::vector<long>& tids) {
    std::vector<long> before;
    for (long tid : tids)
        before.push_back(sleepsOf(tid));
    kestrel::Thread::sleep(0.3);
    for (std::size_t i = 0; i < tids.size(); ++i)
        EXPECT_LE(sleepsOf(tids[i]) - before[i], 1) << "thread " << i << " keeps waking";
}
#else
inline long currentTid() {
    return 0;
}
inline std::vector<long> newTasks(const std::vector<long>& = {}) {
    return {0};
}
inline void expectIdle(const std::vector<long>&) {}
#endif

}  // namespace kestrel_test
