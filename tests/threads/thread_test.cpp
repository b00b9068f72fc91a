#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>

#include "kestrel/threads.h"
#include "support/timing.h"

#if defined(__linux__)
#include <sys/resource.h>
#endif
#if defined(_WIN32)
#include <cstring>

#include "support/os.h"  // windows.h
#else
#include <pthread.h>
#endif

using namespace kestrel;
using namespace kestrel_test;

// A second start() of an active thread does nothing; an exception from run()
// ends the thread without reaching anyone; after join() it starts again. The
// threads wait for a manual-reset event, whose signal releases both.
TEST(ThreadTest, StartsOnceUntilJoinedAndKeepsRunsExceptionsToItself) {
    static Event gate(true);
    struct Thrower : Thread {
        std::atomic<int> runs{0};
        bool run() override {
            ++runs;
            gate.wait();
            throw 42;
        }
    } threads[2];
    for (int round = 1; round <= 2; ++round) {
        gate.reset();
        for (auto& thread : threads) {
            EXPECT_TRUE(thread.start() && thread.start() && thread.isActive());
        }
        Thread::sleep(0.02);  // lets both block, most of the time
        gate.signal();
        for (auto& thread : threads) {
            thread.join();  // a lost wake-up hangs here
            EXPECT_TRUE(!thread.isActive() && thread.runs == round);
        }
    }
}

#if defined(__linux__) || defined(_WIN32)
// The priority of a started thread, read by the thread once start() has returned.
static int priorityAfterStart(int priority) {
    struct Probe : Thread {
        using Thread::Thread;
        std::atomic<bool> started{false};
        std::atomic<int> level{-100};
        bool run() override {
            waitFor([&] { return started.load(); });
#if defined(_WIN32)
            level = ::GetThreadPriority(::GetCurrentThread());
#else
            level = getpriority(PRIO_PROCESS, 0);  // the thread's own nice value
#endif
            return true;
        }
    } probe(static_cast<Thread::ThreadPriority>(priority));
    EXPECT_TRUE(probe.start());
    probe.started = true;
    probe.join();
    return probe.level;
}

// Low, high, normal, and any other value as normal.
TEST(ThreadTest, StartsAtItsPriority) {
#if defined(_WIN32)
    const int created = ::GetThreadPriority(::GetCurrentThread());  // new threads start normal
    EXPECT_EQ(created, THREAD_PRIORITY_NORMAL);
    const int low = THREAD_PRIORITY_LOWEST, high = THREAD_PRIORITY_HIGHEST;
#else
    // Two nice steps either way; new threads inherit their creator's value.
    const int created = getpriority(PRIO_PROCESS, 0);
    bool mayRaise = false;
    std::thread([&] { mayRaise = setpriority(PRIO_PROCESS, 0, created - 2) == 0; }).join();
    const int low = created < 17 ? created + 2 : 19, high = mayRaise ? created - 2 : created;
#endif
    const int expected[][2] = {{0, low}, {2, high}, {1, created}, {7, created}};
    for (const auto& [priority, level] : expected)
        EXPECT_EQ(priorityAfterStart(priority), level) << priority;
}
#endif

// The calling thread's name as the system reports it, in UTF-8; nothing
// where the system keeps no names.
static std::optional<std::string> systemThreadName() {
#if defined(_WIN32)
    using GetDescription = HRESULT(WINAPI*)(HANDLE, PWSTR*);
    const FARPROC found =
        ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "GetThreadDescription");
    GetDescription get = nullptr;
    std::memcpy(&get, &found, sizeof get);
    PWSTR wide = nullptr;
    if (get == nullptr || FAILED(get(::GetCurrentThread(), &wide)) || wide == nullptr)
        return std::nullopt;
    char name[256] = {};
    ::WideCharToMultiByte(CP_UTF8, 0, wide, -1, name, sizeof name - 1, nullptr, nullptr);
    ::LocalFree(wide);
    return std::string(name);
#else
    char name[16] = {};
    if (pthread_getname_np(pthread_self(), name, sizeof name) != 0)
        return std::nullopt;
    return std::string(name);
#endif
}

// A name set before a start reaches the system; Linux's 15 bytes are cut at
// a character boundary.
TEST(ThreadTest, NamesSetBeforeAStartReachTheSystem) {
    if (!systemThreadName())
        GTEST_SKIP() << "this system keeps no thread names";
    struct Plain : Thread {
        std::optional<std::string> seen;
        bool run() override { return bool(seen = systemThreadName()); }
    } plain;

    // Byte 15 falls inside the third euro sign.
    const struct {
        std::string name, onLinux;
    } cases[] = {
        {"kestrel-\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC", "kestrel-\xE2\x82\xAC\xE2\x82\xAC"},
        {std::string("cut\0here", 8), "cut"},
    };
    for (const auto& c : cases) {
        plain.setThreadName(c.name);
        ASSERT_TRUE(plain.start());
        plain.join();
#if defined(_WIN32)
        EXPECT_EQ(plain.seen, c.name.substr(0, c.name.find('\0')));
#else
        EXPECT_EQ(plain.seen, c.onLinux);
#endif
    }
}
