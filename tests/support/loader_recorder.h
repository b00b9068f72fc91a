// Watches the loader calls of plugin references through their test seam,
// and can make chosen calls fail without reaching the system.
#pragma once

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "plugins/loader_api.h"
#include "support/os.h"

namespace kestrel_test {

// Each call is recorded as "<label> ok" or "<label> null", the label being
// "LoadLibraryW", "LoadLibraryExW 0x<flags>", "AddDllDirectory",
// "GetProcAddress <name>" or "FreeLibrary"; SetErrorMode as
// "SetErrorMode 0x<mode>". Not synchronised: load from one thread.
class LoaderRecorder {
  public:
    // Calls with the label failing return null without reaching the system.
    explicit LoaderRecorder(std::string failing = "") {
        _calls.clear();
        _failing = std::move(failing);
        kestrel::detail::setLoaderApiForTesting(&api);
    }
    ~LoaderRecorder() { kestrel::detail::setLoaderApiForTesting(nullptr); }

    static std::vector<std::string>& calls() { return _calls; }

  private:
    using Api = kestrel::detail::LoaderApi;
    inline static std::vector<std::string> _calls;
    inline static std::string _failing;
    static const Api api;

    static const Api& os() { return kestrel::detail::systemLoaderApi(); }
    static std::string hex(std::uint32_t value) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%x", value);
        return text;
    }
    // The system's call, unless calls with this label fail.
    template <auto function, typename... Args>
    static auto call(const std::string& label, Args... args) {
        decltype((os().*function)(args...)) result{};
        if (label != _failing) {
            result = (os().*function)(args...);
        }
        _calls.push_back(label + (result ? " ok" : " null"));
        return result;
    }
};

inline const LoaderRecorder::Api LoaderRecorder::api = {
    [](std::uint32_t mode) {
        _calls.push_back("SetErrorMode " + hex(mode));
        return os().setErrorMode(mode);
    },
    [](const wchar_t* path) { return call<&Api::loadLibrary>("LoadLibraryW", path); },
    [](const wchar_t* path, void* reserved, std::uint32_t flags) {
        return call<&Api::loadLibraryEx>("LoadLibraryExW " + hex(flags), path, reserved, flags);
    },
    [](const wchar_t* dir) { return call<&Api::addDllDirectory>("AddDllDirectory", dir); },
    [](void* module, const char* name) {
        return call<&Api::getProcAddress>(std::string("GetProcAddress ") + name, module, name);
    },
    [](void* module) { return call<&Api::freeLibrary>("FreeLibrary", module); },
};

}  // namespace kestrel_test
