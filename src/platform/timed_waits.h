// Blocking waits: a place where one thread sleeps until another wakes it or
// a deadline passes, waits on a word of memory, and the precision of the
// timed waits of threads that must run on time.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace kestrel {
namespace platform {

// A deadline that never passes.
constexpr std::int64_t kNoDeadline = INT64_MAX;

// Where one thread, its owner, sleeps until another thread wakes it. A wake
// given while the owner is not asleep is kept (one at most) and ends its next
// sleep at once, so a wake given between the owner's last look at what it
// waits for and its sleep is never lost.
//
// Thread safety: sleepUntil() by the owner only; wake() from any thread.
// Lifetime: wake() must have returned before the sleeper is destroyed.
// Errors: the constructor throws std::bad_alloc when the system has no
//   resources for it; nothing else throws.
class Sleeper {
    struct State;

  public:
    // A wake taken while the sleeper is known to exist (for instance under a
    // lock that the owner must take before it may destroy the sleeper) and
    // given later, once that lock is released: a woken owner then does not
    // block at once on the lock its waker still holds. It keeps what the wake
    // needs alive, so the owner may have destroyed the sleeper meanwhile; the
    // wake then reaches nobody. An empty Waker wakes nobody.
    class Waker {
      public:
        Waker() = default;
        // Ends the owner's current or next sleep; at most once per Waker.
        void wake() noexcept;

      private:
        friend class Sleeper;
        std::shared_ptr<State> _state;
    };

    Sleeper();
    ~Sleeper();
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;

    // Ends the owner's current or next sleep.
    void wake() noexcept;
    // A wake to be given later (see Waker).
    Waker waker() const noexcept;
    // Sleeps until woken or until deadlineNanoseconds on the steady clock of
    // the waits (kNoDeadline: no time limit), and consumes the wake. Returns
    // at once for a deadline that has passed. May also return early, without
    // cause: the caller looks again at what it waits for. Not noexcept: the
    // sleep is a cancellation point, and a cancelled thread's unwind must
    // pass through it.
    void sleepUntil(std::int64_t deadlineNanoseconds);

  private:
    // Shared with the Wakers taken from it.
    std::shared_ptr<State> _state;
};

// Blocks while word holds expected; returns when another thread has changed
// it and called wakeWordWaiters(), or without cause.
void waitOnWord(const std::atomic<int>& word, int expected) noexcept;
// The same wait as a cancellation point (where the system has them), for
// waits that may last as long as the caller's wish: a thread cancelled in
// it unwinds from there. Returns also when woken by wakeOneWordWaiter().
void sleepOnWord(const std::atomic<int>& word, int expected);
// Wakes every thread in waitOnWord() on word. Uses only the address, never
// the memory behind it: a thread may call it after the word's owner, woken
// by the change it made, has destroyed the word.
void wakeWordWaiters(const void* word) noexcept;
// Wakes one thread waiting on word, if any; as wakeWordWaiters() otherwise.
void wakeOneWordWaiter(const void* word) noexcept;

// Asks the system to end the calling thread's timed waits as close to their
// deadlines as it can, for as long as the thread lives (Linux: no timer slack
// for the thread; Windows: a high-resolution waitable timer for the thread's
// sleeps, or else the 1 ms timer resolution, held only during its timed
// sleeps). Best effort: a refusal leaves the waits as they were.
void requestPreciseTimedWaits() noexcept;

}  // namespace platform
}  // namespace kestrel
