// A plugin whose static initialisation throws while the system loader runs it.
#include <stdexcept>

namespace {

struct ThrowsOnLoad {
    ThrowsOnLoad() { throw std::runtime_error("initialiser failed on purpose"); }
};

const ThrowsOnLoad throwsOnLoad;

}  // namespace

extern "C" __attribute__((visibility("default"))) int kestrelTestEntry() {
    return 1;
}
