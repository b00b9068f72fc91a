// Linux: the name lives in the thread's comm field (/proc/self/task/<tid>/
// comm), 16 bytes with the terminating NUL.
#include "platform/thread_name.h"

#include <pthread.h>

#include <cerrno>

namespace kestrel {
namespace platform {

void nameCurrentThread(const std::string& name) noexcept {
    try {
        const std::string cut = cutAtCharacterBoundary(name, kLinuxThreadNameBytes);
        const int saved = errno;
        static_cast<void>(pthread_setname_np(pthread_self(), cut.c_str()));
        errno = saved;
    } catch (...) {
        // No memory for the copy: the thread keeps its name.
    }
}

}  // namespace platform
}  // namespace kestrel
