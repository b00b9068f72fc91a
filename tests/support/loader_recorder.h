// Watches the loader calls of plugin references through their test seam,
// and can make chosen calls fail without reaching the system.
#pragma once

#include <cstdio>

#include <set>
#include <string>
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
    LoaderRecorder() {
        calls().clear();
        failing().clear();
        kestrel::detail::setLoaderApiForTesting(&api);
    }
    ~LoaderRecorder() { kestrel::detail::setLoaderApiForTesting(nullptr); }

    // Calls with this label return null (false) without reaching the system.
    void fail(const std::string& label) { failing().insert(label); }
    static std::vector<std::string>& calls() {
        static std::vector<std::string> instance;
        return instance;
    }

  private:
    static std::set<std::string>& failing() {
        static std::set<std::string> instance;
        return instance;
    }
    static const kestrel::detail::LoaderApi& os() { return kestrel::detail::systemLoaderApi(); }
    static std::string hex(std::uint32_t value) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%x", value);
        return text;
    }
    template <typename Result, typename Call>
    static Result record(const std::string& label, Call call) {
        const Result result = failing().count(label) == 0 ? call() : Result{};
        calls().push_back(label + (result ? " ok" : " null"));
        return result;
    }

    static constexpr kestrel::detail::LoaderApi api = {
        [](std::uint32_t mode) {
            calls().push_back("SetErrorMode " + hex(mode));
            return os().setErrorMode(mode);
        },
        [](const wchar_t* path) {
            return record<void*>("LoadLibraryW", [&] { return os().loadLibrary(path); });
        },
        [](const wchar_t* path, void* reserved, std::uint32_t flags) {
            return record<void*>("LoadLibraryExW " + hex(flags),
                                 [&] { return os().loadLibraryEx(path, reserved, flags); });
        },
        [](const wchar_t* dir) {
            return record<void*>("AddDllDirectory", [&] { return os().addDllDirectory(dir); });
        },
        [](void* module, const char* name) {
            return record<void*>(std::string("GetProcAddress ") + name,
                                 [&] { return os().getProcAddress(module, name); });
        },
        [](void* module) {
            return record<bool>("FreeLibrary", [&] { return os().freeLibrary(module); });
        },
    };
};

}  // namespace kestrel_test
