// Linux: a sleeper is one futex word, and an absolute deadline on the
// monotonic clock bounds its sleeps, so a wait that the system ends early is
// simply resumed, never repeated in short slices. A mutex and condition
// variable would cost a woken sleeper a further system call: the C library
// re-takes the mutex after a wait as if others were queued on it, and its
// release then wakes nobody through the kernel. Words are waited on with
// futexes. The kernel lets a normal thread's timed waits end up to its timer
// slack (50 us by default) late, to batch wake-ups; a thread can set its own.
#include <linux/futex.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>

#include "platform/timed_waits.h"

namespace kestrel {
namespace platform {

namespace {

static_assert(sizeof(std::atomic<int>) == sizeof(int), "a futex is a plain int");

int* futexAddress(const std::atomic<int>& word) {
    return const_cast<int*>(reinterpret_cast<const int*>(&word));
}

// Blocks while word holds expected, until a wake, the absolute deadline on
// the monotonic clock (none when null), a signal, or without cause. A
// cancellation point, as the C library's own blocking waits are: a cancel
// acts during the sleep, as it does there (asynchronous cancellation for the
// length of the system call alone). The cancel unwinds this frame from a
// signal handler, which AddressSanitizer does not follow: a frame of its own
// with poisoned guards around a local would stay poisoned, so it has none.
__attribute__((no_sanitize("address"))) void futexWait(const std::atomic<int>& word, int expected,
                                                       const timespec* deadline) {
    int previousType = PTHREAD_CANCEL_DEFERRED;
    ::pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &previousType);
    ::syscall(SYS_futex, futexAddress(word), FUTEX_WAIT_BITSET_PRIVATE, expected, deadline, nullptr,
              FUTEX_BITSET_MATCH_ANY);
    ::pthread_setcanceltype(previousType, nullptr);
}

void futexWake(const void* word, int count) noexcept {
    ::syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

// The word of a sleeper.
constexpr int kIdle = 0;      // neither asleep nor woken
constexpr int kWoken = 1;     // a wake is kept for the owner
constexpr int kSleeping = 2;  // the owner sleeps, or is about to: a wake calls the kernel

}  // namespace

struct Sleeper::State {
    std::atomic<int> word{kIdle};

    void wake() noexcept {
        // Only a sleeping owner needs the kernel; any other wake is a store.
        if (word.exchange(kWoken, std::memory_order_acq_rel) == kSleeping) {
            futexWake(&word, 1);
        }
    }
};

Sleeper::Sleeper() : _state(std::make_shared<State>()) {}

Sleeper::~Sleeper() = default;

void Sleeper::wake() noexcept {
    _state->wake();
}

Sleeper::Waker Sleeper::waker() const noexcept {
    Waker waker;
    waker._state = _state;
    return waker;
}

void Sleeper::Waker::wake() noexcept {
    if (_state) {
        _state->wake();
        _state.reset();
    }
}

void Sleeper::sleepUntil(std::int64_t deadlineNanoseconds) {
    std::atomic<int>& word = _state->word;
    // Announces the sleep; a wake kept meanwhile ends it at once. A cancelled
    // sleep leaves the word at kSleeping: the next wake then calls the kernel
    // for nobody, and the next sleep returns at once, both harmless.
    int seen = kIdle;
    if (word.compare_exchange_strong(seen, kSleeping, std::memory_order_acq_rel)) {
        if (deadlineNanoseconds == kNoDeadline) {
            futexWait(word, kSleeping, nullptr);
        } else {
            // The futex's absolute deadlines are on CLOCK_MONOTONIC, the
            // clock of std::chrono::steady_clock (and of the waits).
            timespec deadline{};
            deadline.tv_sec = static_cast<time_t>(deadlineNanoseconds / 1000000000);
            deadline.tv_nsec = static_cast<long>(deadlineNanoseconds % 1000000000);
            if (deadline.tv_sec >= 0 && deadline.tv_nsec >= 0) {
                futexWait(word, kSleeping, &deadline);
            }
        }
    }
    // Consumes the wake, if one came, and ends the sleep.
    word.store(kIdle, std::memory_order_release);
}

void sleepOnWord(const std::atomic<int>& word, int expected) {
    futexWait(word, expected, nullptr);
}

void waitOnWord(const std::atomic<int>& word, int expected) noexcept {
    ::syscall(SYS_futex, futexAddress(word), FUTEX_WAIT_PRIVATE, expected, nullptr, nullptr, 0);
}

void wakeWordWaiters(const void* word) noexcept {
    // The kernel looks the address up without reading it; a word whose
    // memory has gone wakes nobody (or, reused, causes a wake without cause,
    // which every futex user tolerates).
    futexWake(word, INT_MAX);
}

void wakeOneWordWaiter(const void* word) noexcept {
    futexWake(word, 1);
}

void requestPreciseTimedWaits() noexcept {
    // 1 ns: 0 would mean "back to the process default".
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
}

}  // namespace platform
}  // namespace kestrel
