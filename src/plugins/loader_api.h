// The loader calls that plugin references make, gathered in one table so
// that tests can watch the sequence or replace single calls (internal).
#pragma once

#include <cstdint>
#include <string>

#include "core/test_seam.h"

namespace kestrel {
namespace detail {

struct LoaderApi {
    std::uint32_t (*setErrorMode)(std::uint32_t mode);
    void* (*loadLibrary)(const wchar_t* fileName);
    void* (*loadLibraryEx)(const wchar_t* fileName, void* reserved, std::uint32_t flags);
    void* (*addDllDirectory)(const wchar_t* directory);
    void* (*getProcAddress)(void* module, const char* name);
    bool (*freeLibrary)(void* module);
};

// The operating system's calls (the platform layer).
KESTREL_TEST_SEAM const LoaderApi& systemLoaderApi();

// The calls plugin references use now.
const LoaderApi& loaderApi();

// Makes every plugin reference use api (which must outlive its use) until
// the next call; null restores the system's calls. Call it only while no
// plugin is being loaded or freed.
KESTREL_TEST_SEAM void setLoaderApiForTesting(const LoaderApi* api);

// Why the latest plugin load on the calling thread failed; empty when it
// succeeded or none was made. Every PluginReference::load sets it.
std::string lastLoadFailureReasonOnThread();
void setLastLoadFailureReasonOnThread(const std::string& reason);

}  // namespace detail
}  // namespace kestrel
