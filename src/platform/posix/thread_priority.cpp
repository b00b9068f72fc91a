// Linux: each thread has its own nice value, set through setpriority() with
// the kernel thread id. Threads inherit the nice value of their creator.
#include "platform/thread_priority.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace kestrel {
namespace platform {

namespace {

constexpr int kShiftSteps = 2;

}  // namespace

ThreadPriorityHandle captureCurrentThread() noexcept {
    ThreadPriorityHandle handle;
    const long tid = syscall(SYS_gettid);
    if (tid <= 0) {
        return handle;
    }
    errno = 0;
    const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
    if (nice == -1 && errno != 0) {
        return handle;
    }
    handle.threadId = static_cast<std::uint64_t>(tid);
    handle.createdPriority = nice;
    return handle;
}

void applyThreadPriority(const ThreadPriorityHandle& thread, ThreadPriorityShift shift) noexcept {
    if (thread.threadId == 0) {
        return;
    }
    const int target = shift == ThreadPriorityShift::Highest ? thread.createdPriority - kShiftSteps
                                                             : thread.createdPriority + kShiftSteps;
    // EACCES/EPERM (not privileged to become more favourable) and ESRCH (the
    // thread has already ended) leave the thread as it is. The kernel clamps
    // the value to its range.
    const int saved = errno;
    static_cast<void>(setpriority(PRIO_PROCESS, static_cast<id_t>(thread.threadId), target));
    errno = saved;
}

}  // namespace platform
}  // namespace kestrel
