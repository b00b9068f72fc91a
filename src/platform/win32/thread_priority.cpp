// Windows: a thread's priority level is set within its process's priority
// class (THREAD_PRIORITY_HIGHEST and _LOWEST are +2 and -2 around normal),
// through a handle opened from the identifier the thread captured itself.
// The handle asks for THREAD_SET_INFORMATION: Windows also accepts the
// limited right for SetThreadPriority, Wine does not.
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
