// Thread names as the system reports them, read on the named thread itself.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "kestrel/events.h"
#include "kestrel/threads.h"

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <cstring>
#else
#include <pthread.h>
#endif

using namespace kestrel;

namespace {

// The calling thread's name in UTF-8; nothing where the system has no names.
std::optional<std::string> currentThreadName() {
#if defined(_WIN32)
    using GetThreadDescriptionFunction = HRESULT(WINAPI*)(HANDLE, PWSTR*);
    const FARPROC found =
        ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "GetThreadDescription");
    if (found == nullptr) {
        return std::nullopt;
    }
    GetThreadDescriptionFunction get = nullptr;
    std::memcpy(&get, &found, sizeof get);
    PWSTR wide = nullptr;
    if (FAILED(get(::GetCurrentThread(), &wide)) || wide == nullptr) {
        return std::nullopt;
    }
    const int bytes = ::WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr);
    std::string name(static_cast<std::size_t>(bytes > 0 ? bytes : 1), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, wide, -1, &name[0], bytes, nullptr, nullptr);
    ::LocalFree(wide);
    name.resize(name.find('\0'));
    return name;
#else
    char name[16] = {};
    if (pthread_getname_np(pthread_self(), name, sizeof name) != 0) {
        return std::nullopt;
    }
    return std::string(name);
#endif
}

// What the system keeps of a name: all of it, or the cut Linux makes.
std::string kept(const std::string& full, const std::string& cutForLinux) {
#if defined(_WIN32)
    static_cast<void>(cutForLinux);
    return full;
#else
    static_cast<void>(full);
    return cutForLinux;
#endif
}

struct NamedWork : WorkThread {
    std::optional<std::string> seen;
    ~NamedWork() override { stop(); }
    void starting() override { seen = currentThreadName(); }
    void running() override { wait(Thread::INFINITE_SECONDS); }
};

struct NamedTimer : TimerThread {
    std::optional<std::string> seen;
    Event ran;
    NamedTimer() : TimerThread(FIXED_RATE, 0.001) {}
    ~NamedTimer() override { stop(); }
    void executing() override {
        seen = currentThreadName();
        ran.signal();
        waitUntilStop();
    }
};

struct NamedPlain : Thread {
    std::optional<std::string> seen;
    bool run() override {
        seen = currentThreadName();
        return true;
    }
};

struct NameEvent : IEvent {
    NameEvent(std::optional<std::string>& seen, Event& done) : _seen(seen), _done(done) {}
    bool execute() override {
        _seen = currentThreadName();
        _done.signal();
        return true;
    }
    std::optional<std::string>& _seen;
    Event& _done;
};

std::optional<std::string> eventThreadName(EventThread& thread) {
    std::optional<std::string> seen;
    Event done;
    EXPECT_TRUE(thread.start());
    thread.postEvent(new NameEvent(seen, done), nullptr, nullptr);
    done.wait();
    thread.stop();
    return seen;
}

}  // namespace

// Each kind of thread has its own default; a name set before a start is the
// one the next start gives, cut for Linux at a character boundary.
TEST(ThreadNameTest, DefaultsAndNamesSetBeforeAStartReachTheSystem) {
    if (!currentThreadName()) {
        GTEST_SKIP() << "this system keeps no thread names";
    }
    NamedPlain plain;
    ASSERT_TRUE(plain.start());
    plain.join();
    EXPECT_EQ(plain.seen, "kestrel-thread");

    NamedWork work;
    EXPECT_EQ(work.getThreadName(), "kestrel-work");
    ASSERT_TRUE(work.start());
    EXPECT_EQ(work.seen, "kestrel-work");
    work.stop();

    NamedTimer timer;
    EXPECT_EQ(timer.getThreadName(), "kestrel-timer");
    ASSERT_TRUE(timer.start());
    timer.ran.wait();
    EXPECT_EQ(timer.seen, "kestrel-timer");
    timer.stop();

    EventThread events;
    EXPECT_EQ(events.getThreadName(), "kestrel-event");
    EXPECT_EQ(eventThreadName(events), "kestrel-event");

    events.setThreadName("render");
    EXPECT_EQ(events.getThreadName(), "render");
    EXPECT_EQ(eventThreadName(events), "render");

    // 26 ASCII characters; then 8 + 3 * 3 bytes, where byte 15 falls inside
    // the third euro sign, and a two-byte character that ends at byte 15.
    const std::string alphabet = "abcdefghijklmnopqrstuvwxyz";
    const std::string euros = "kestrel-\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC";
    const std::string umlauts = "kestrel-x\xC3\xA4\xC3\xB6\xC3\xBC\xC3\xA4";
    const struct {
        std::string name, onLinux;
    } cases[] = {
        {alphabet, "abcdefghijklmno"},
        {euros, "kestrel-\xE2\x82\xAC\xE2\x82\xAC"},
        {umlauts, "kestrel-x\xC3\xA4\xC3\xB6\xC3\xBC"},
        {std::string("cut\0here", 8), "cut"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        timer.setThreadName(c.name);
        ASSERT_TRUE(timer.start());
        timer.ran.wait();
        EXPECT_EQ(timer.seen, kept(c.name.substr(0, c.name.find('\0')), c.onLinux));
        timer.stop();
        work.setThreadName(c.name);
        ASSERT_TRUE(work.start());
        EXPECT_EQ(work.seen, kept(c.name.substr(0, c.name.find('\0')), c.onLinux));
        work.stop();
    }
}
