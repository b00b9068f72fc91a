#include "plugins/loader_api.h"

#include <atomic>

#include "platform/platform.h"

namespace kestrel {
namespace detail {

namespace {

std::atomic<const LoaderApi*> replacement{nullptr};

}  // namespace

const LoaderApi& systemLoaderApi() {
    static const LoaderApi api = {
        &platform::SetErrorMode,    &platform::LoadLibraryW,   &platform::LoadLibraryExW,
        &platform::AddDllDirectory, &platform::GetProcAddress, &platform::FreeLibrary,
    };
    return api;
}

const LoaderApi& loaderApi() {
    const LoaderApi* api = replacement.load(std::memory_order_acquire);
    return api != nullptr ? *api : systemLoaderApi();
}

void setLoaderApiForTesting(const LoaderApi* api) {
    replacement.store(api, std::memory_order_release);
}

}  // namespace detail
}  // namespace kestrel
