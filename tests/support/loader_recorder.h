// Watches the loader calls of plugin references through their test seam,
// and can make chosen calls fail without reaching the system.
#pragma once

#include <dlfcn.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "plugins/loader_api.h"

namespace kestrel_test {

// Each call is recorded as "<label> ok" or "<label> null", where the label is
// "LoadLibraryW", "LoadLibraryExW 0x1100", "AddDllDirectory",
// "GetProcAddress <name>" or "FreeLibrary"; SetErrorMode as
// "SetErrorMode <mode>". Not synchronised: load from one thread.
class LoaderRecorder {
  public:
    LoaderRecorder() {
        state() = State();
        kestrel::detail::setLoaderApiForTesting(&api());
    }
    ~LoaderRecorder() { kestrel::detail::setLoaderApiForTesting(nullptr); }
    LoaderRecorder(const LoaderRecorder&) = delete;
    LoaderRecorder& operator=(const LoaderRecorder&) = delete;

    // Calls with this label return null (false) from now on.
    void fail(const std::string& label) { state().failing.insert(label); }
    std::vector<std::string> calls() const { return state().calls; }
    void clear() { state().calls.clear(); }

  private:
    using Api = kestrel::detail::LoaderApi;
    struct State {
        std::vector<std::string> calls;
        std::set<std::string> failing;
    };
    static State& state() {
        static State instance;
        return instance;
    }
    static const Api& system() { return kestrel::detail::systemLoaderApi(); }
    static std::string hex(std::uint32_t value) {
        std::ostringstream text;
        text << "0x" << std::hex << value;
        return text.str();
    }
    template <typename Result, typename Call>
    static Result record(const std::string& label, Call call) {
        Result result{};
        if (state().failing.count(label) == 0) {
            result = call();
        }
        state().calls.push_back(label + (result ? " ok" : " null"));
        return result;
    }
    static const Api& api() {
        static const Api instance = {
            [](std::uint32_t mode) {
                state().calls.push_back("SetErrorMode " + hex(mode));
                return system().setErrorMode(mode);
            },
            [](const wchar_t* path) {
                return record<void*>("LoadLibraryW", [&] { return system().loadLibrary(path); });
            },
            [](const wchar_t* path, void* reserved, std::uint32_t flags) {
                return record<void*>("LoadLibraryExW " + hex(flags),
                                     [&] { return system().loadLibraryEx(path, reserved, flags); });
            },
            [](const wchar_t* directory) {
                return record<void*>("AddDllDirectory",
                                     [&] { return system().addDllDirectory(directory); });
            },
            [](void* module, const char* name) {
                return record<void*>(std::string("GetProcAddress ") + name,
                                     [&] { return system().getProcAddress(module, name); });
            },
            [](void* module) {
                return record<bool>("FreeLibrary", [&] { return system().freeLibrary(module); });
            },
        };
        return instance;
    }
};

// True when the library at path is loaded in the process.
inline bool isLibraryLoaded(const std::string& path) {
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        ::dlclose(handle);
    }
    return handle != nullptr;
}

}  // namespace kestrel_test
