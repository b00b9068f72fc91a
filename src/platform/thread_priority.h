// Thread priorities: moving one thread's scheduling priority two steps above
// or below the priority it was created with. The thread captures a handle to
// itself (it alone can do so portably, before anyone changes it); another
// thread then applies the shift through that handle.
#pragma once

#include <cstdint>

namespace kestrel {
namespace platform {

// What the system needs to change one thread's priority from another thread,
// taken by the thread itself.
struct ThreadPriorityHandle {
    // The system's identifier of the thread (the kernel thread id on Linux,
    // the thread id on Windows); 0 when none was captured.
    std::uint64_t threadId = 0;
    // The thread's priority when it was captured, in the system's own unit
    // (the nice value on Linux, where a smaller value is more favourable).
    int createdPriority = 0;
};

enum class ThreadPriorityShift : std::int32_t {
    Lowest,   // two steps less favourable (THREAD_PRIORITY_LOWEST on Windows)
    Highest,  // two steps more favourable (THREAD_PRIORITY_HIGHEST on Windows)
};

// A handle to the calling thread and its current priority. Never fails: a
// thread whose identity cannot be read gets threadId 0.
ThreadPriorityHandle captureCurrentThread() noexcept;

// Applies the shift to the thread relative to its created priority. A refusal
// by the system (for instance a more favourable priority for an unprivileged
// process), or a handle with threadId 0, leaves the priority as it is: the
// result is deliberately not reported.
void applyThreadPriority(const ThreadPriorityHandle& thread, ThreadPriorityShift shift) noexcept;

}  // namespace platform
}  // namespace kestrel
