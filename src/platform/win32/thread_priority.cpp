// Windows: a thread's priority is set relative to its process's priority
// class, through a handle that allows setting it. The handle is opened from
// the thread identifier the thread captured itself.
#include <windows.h>

#include "platform/thread_priority.h"

namespace kestrel {
namespace platform {

ThreadPriorityHandle captureCurrentThread() noexcept {
    ThreadPriorityHandle handle;
    handle.threadId = ::GetCurrentThreadId();
    const int priority = ::GetThreadPriority(::GetCurrentThread());
    handle.createdPriority = priority != THREAD_PRIORITY_ERROR_RETURN ? priority : 0;
    return handle;
}

void applyThreadPriority(const ThreadPriorityHandle& thread, ThreadPriorityShift shift) noexcept {
    if (thread.threadId == 0) {
        return;
    }
    // A failure (the thread has ended, access is denied) leaves the thread as
    // it is and is not reported; the caller's last error stays as it was.
    const DWORD savedError = ::GetLastError();
    HANDLE handle =
        ::OpenThread(THREAD_SET_INFORMATION, FALSE, static_cast<DWORD>(thread.threadId));
    if (handle != nullptr) {
        ::SetThreadPriority(handle, shift == ThreadPriorityShift::Highest ? THREAD_PRIORITY_HIGHEST
                                                                          : THREAD_PRIORITY_LOWEST);
        ::CloseHandle(handle);
    }
    ::SetLastError(savedError);
}

}  // namespace platform
}  // namespace kestrel
