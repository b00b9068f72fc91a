#include <fl/filesystem.h>
#include <fl/i18n.h>

#include <foundation/log/diagnostic_logger.h>

#include "kestrel/plugins.h"
#include "platform/platform.h"
#include "plugins/loader_api.h"

namespace kestrel {

namespace {

constexpr unsigned int kProgress = 8;
constexpr unsigned int kFailure = 512;

// Every plugin reference writes its progress and failures here.
foundation::log::basic_diagnostic_logger<char> pluginLoaderChannel("kestrel::PluginLoader");

// Builds the line only when the channel would write it.
template <typename MakeLine>
void writeLine(unsigned int severity, MakeLine makeLine) {
    if (pluginLoaderChannel.is_enabled(severity)) {
        pluginLoaderChannel.write(severity, makeLine());
    }
}

bool endsWith(const ustring& text, const ustring& ending) {
    return text.size() >= ending.size() &&
           text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

// True when text is valid UTF-16 without a zero unit, so that every
// conversion of it is exact and the system sees all of it. A path that is
// not is never looked up or loaded: the lenient conversions, or the system
// stopping at the zero, would turn it into a different path.
bool convertsExactly(const ustring& text) {
    if (text.find(u'\0') != ustring::npos) {
        return false;
    }
    try {
        fl::filesystem::codecvt_ustring_to_narrow_string(false).convert(text);
        return true;
    } catch (const fl::i18n::conversion_error&) {
        return false;
    }
}

// The path made absolute against the current directory, so that the file
// checked and verified is the file the loader calls load (their own search
// would start elsewhere, in the program's directory). Unchanged when the
// current directory cannot be had.
ustring absolutePath(const ustring& path) {
    const std::wstring full = platform::fullPath(fl::i18n::to_wstring(path));
    return full.empty() ? path : fl::i18n::to_ustring(full);
}

KSException pluginNotLoaded(const std::string& narrowPath) {
    return KSException("corvane:plugin:pluginNotLoaded",
                       "Failure to load the requested plugin: %s.", narrowPath.c_str());
}

// Tries the loader calls in turn until one gives a module: plain, with the
// library's directory searched first, with its directory and the default
// directories, and finally (only with a search path) with the added
// directories. The error mode and the added directory stay with the process.
void* loadLibraryAndAddGlobalSymbols(const ustring& filePath,
                                     const ustring& libraryLoadSearchPath) {
    const detail::LoaderApi& api = detail::loaderApi();
    constexpr std::uint32_t quietErrors =
        platform::kSemFailCriticalErrors | platform::kSemNoOpenFileErrorBox;
    const std::uint32_t previousMode = api.setErrorMode(quietErrors);
    api.setErrorMode(previousMode | quietErrors);

    const std::wstring path = fl::i18n::to_wstring(filePath);
    void* module = api.loadLibrary(path.c_str());
    if (module == nullptr) {
        module = api.loadLibraryEx(path.c_str(), nullptr, platform::kLoadWithAlteredSearchPath);
    }
    if (module == nullptr) {
        module = api.loadLibraryEx(
            path.c_str(), nullptr,
            platform::kLoadLibrarySearchDllLoadDir | platform::kLoadLibrarySearchDefaultDirs);
    }
    // A search path that cannot be converted exactly is not added: it would
    // name a different directory.
    if (module == nullptr && !libraryLoadSearchPath.empty() &&
        convertsExactly(libraryLoadSearchPath)) {
        const std::wstring directory = fl::i18n::to_wstring(libraryLoadSearchPath);
        if (api.addDllDirectory(directory.c_str()) != nullptr) {
            module = api.loadLibraryEx(path.c_str(), nullptr, platform::kLoadLibrarySearchUserDirs);
        }
    }
    return module;
}

}  // namespace

IPluginReference::~IPluginReference() = default;

PluginReference::PluginReference(bool unloadOnDestruction,
                                 std::unique_ptr<IVerificationStrategy> verificationStrategy)
    : _library(nullptr),
      _entryPoint(nullptr),
      _unloadOnDestruction(unloadOnDestruction),
      _verificationStrategy(std::move(verificationStrategy)) {}

PluginReference::PluginReference(PluginReference&& other) noexcept
    : _library(other._library),
      _entryPoint(other._entryPoint),
      _unloadOnDestruction(other._unloadOnDestruction),
      _verificationStrategy(std::move(other._verificationStrategy)) {
    other._library = nullptr;
    other._entryPoint = nullptr;
}

PluginReference::~PluginReference() {
    if (_unloadOnDestruction && _library != nullptr) {
        detail::loaderApi().freeLibrary(_library);
    }
}

void PluginReference::load(const ustring& pluginPath, const std::string& pluginEntryPoint,
                           const ustring& libraryLoadSearchPath) {
    writeLine(kProgress, [&] {
        return "load: pluginPath: " + fl::i18n::to_string(pluginPath) +
               ", pluginEntryPoint: " + pluginEntryPoint +
               ", libraryLoadSearchPath: " + fl::i18n::to_string(libraryLoadSearchPath);
    });
    _library = nullptr;
    _entryPoint = nullptr;

    ustring filePath = pluginPath;
    if (!endsWith(filePath, u".dll")) {
        filePath += u".dll";
    }
    if (convertsExactly(filePath)) {
        filePath = absolutePath(filePath);
    }
    const std::unique_ptr<KSException> failure = attemptLoad(filePath, libraryLoadSearchPath);
    if (failure != nullptr) {
        writeLine(kProgress, [&] {
            return std::string("After attemptLoad ex.ID: ") + failure->getID() +
                   ", ex.Message: " + failure->getMessage();
        });
        throw KSException(*failure);
    }

    const detail::LoaderApi& api = detail::loaderApi();
    _entryPoint = api.getProcAddress(_library, pluginEntryPoint.c_str());
    if (_entryPoint != nullptr) {
        return;
    }
    api.freeLibrary(_library);
    _library = nullptr;
    throw KSException("corvane:plugin:symbolNotFound",
                      "Failure to find the expected plugin entry point: %s.",
                      pluginEntryPoint.c_str());
}

void* PluginReference::getEntryPointFcn() const {
    return _entryPoint;
}

std::unique_ptr<KSException> PluginReference::attemptLoad(const ustring& filePath,
                                                          const ustring& libraryLoadSearchPath) {
    const std::string narrowPath = fl::i18n::to_string(filePath);
    writeLine(kProgress, [&] { return "attemptLoad: filePath: " + narrowPath; });

    if (!convertsExactly(filePath) || !fl::filesystem::exists(filePath)) {
        writeLine(kFailure,
                  [&] { return "attemptLoad: filePath: " + narrowPath + " doesn't exist"; });
        return std::make_unique<KSException>(pluginNotLoaded(narrowPath));
    }
    if (_verificationStrategy != nullptr && !_verificationStrategy->verifyPlugin(filePath)) {
        auto refusal = std::make_unique<KSException>(_verificationStrategy->getException(filePath));
        writeLine(kFailure, [] { return std::string("Verification failed!"); });
        return refusal;
    }
    _library = loadLibraryAndAddGlobalSymbols(filePath, libraryLoadSearchPath);
    if (_library != nullptr) {
        return nullptr;
    }
    writeLine(kFailure, [] { return std::string("loadLibraryAndAddGlobalSymbols failed!"); });
    return std::make_unique<KSException>(pluginNotLoaded(narrowPath));
}

}  // namespace kestrel
