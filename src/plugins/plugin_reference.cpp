#include <fl/filesystem.h>
#include <fl/i18n.h>

#include <foundation/log/diagnostic_logger.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>

#include "diagnostics/debug_log_internal.h"
#include "kestrel/plugins.h"
#include "platform/platform.h"
#include "plugins/loader_api.h"

namespace kestrel {

namespace {

constexpr unsigned int kProgress = 8;
constexpr unsigned int kFailure = 512;

// Every plugin reference writes its progress and failures here.
foundation::log::basic_diagnostic_logger<char> pluginLoaderChannel("kestrel::PluginLoader");

// The reason of the latest PluginReference::load on this thread, for callers
// whose reference is gone with the failure (PluginLoader, factories). A plain
// buffer, not a std::string: a thread_local with a destructor registers a
// per-thread destructor, and in a DLL built by mingw-w64 those have hung
// thread exits under Wine. Long reasons are cut at a character boundary.
struct ThreadReason {
    char text[1024];
    std::size_t size;
};
thread_local ThreadReason lastReasonOnThread{};

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

// The system's text for the error code of a failed loader call, exactly as
// UTF-8 and without the line break Windows ends it with; "%1" (Windows'
// place for the file name) becomes fileName. "error <code>" when the system
// has no text for the code.
std::string systemErrorText(platform::ErrorCode code, const std::string& fileName) {
    if (code == 0) {
        return "the loader call failed without an error code";
    }
    wchar_t* systemText = nullptr;
    const std::uint32_t length = platform::FormatMessageW(
        platform::kFormatMessageAllocateBuffer | platform::kFormatMessageFromSystem |
            platform::kFormatMessageIgnoreInserts,
        nullptr, code, platform::kLanguageUserDefault, reinterpret_cast<wchar_t*>(&systemText), 0,
        nullptr);
    std::string text;
    try {
        if (length != 0) {
            text = detail::narrowSystemText(systemText, std::numeric_limits<std::size_t>::max());
        }
    } catch (...) {
        platform::LocalFree(systemText);
        throw;
    }
    platform::LocalFree(systemText);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
        text.pop_back();
    }
    const std::size_t insert = text.find("%1");
    if (insert != std::string::npos) {
        text.replace(insert, 2, fileName);
    }
    return text.empty() ? "error " + std::to_string(code) : text;
}

KSException pluginNotLoaded(const std::string& narrowPath) {
    return KSException("corvane:plugin:pluginNotLoaded",
                       "Failure to load the requested plugin: %s.", narrowPath.c_str());
}

// Tries the loader calls in turn until one gives a module: plain, with the
// library's directory searched first, with its directory and the default
// directories, and finally (only with a search path) with the added
// directories. The error mode and the added directory stay with the process.
// When every call fails, reason is the system's text for the last one made.
void* loadLibraryAndAddGlobalSymbols(const ustring& filePath, const ustring& libraryLoadSearchPath,
                                     std::string& reason) {
    const detail::LoaderApi& api = detail::loaderApi();
    constexpr std::uint32_t quietErrors =
        platform::kSemFailCriticalErrors | platform::kSemNoOpenFileErrorBox;
    const std::uint32_t previousMode = api.setErrorMode(quietErrors);
    api.setErrorMode(previousMode | quietErrors);

    const std::wstring path = fl::i18n::to_wstring(filePath);
    // The error is read at once: the next call (of any kind) may replace it.
    const auto tried = [&](void* result) {
        if (result == nullptr) {
            reason = systemErrorText(platform::GetLastError(), fl::i18n::to_string(filePath));
        }
        return result;
    };
    platform::SetLastError(0);
    void* module = tried(api.loadLibrary(path.c_str()));
    if (module == nullptr) {
        platform::SetLastError(0);
        module =
            tried(api.loadLibraryEx(path.c_str(), nullptr, platform::kLoadWithAlteredSearchPath));
    }
    if (module == nullptr) {
        platform::SetLastError(0);
        module = tried(api.loadLibraryEx(
            path.c_str(), nullptr,
            platform::kLoadLibrarySearchDllLoadDir | platform::kLoadLibrarySearchDefaultDirs));
    }
    // A search path that cannot be converted exactly is not added: it would
    // name a different directory.
    if (module == nullptr && !libraryLoadSearchPath.empty() &&
        convertsExactly(libraryLoadSearchPath)) {
        const std::wstring directory = fl::i18n::to_wstring(libraryLoadSearchPath);
        if (api.addDllDirectory(directory.c_str()) != nullptr) {
            platform::SetLastError(0);
            module = tried(
                api.loadLibraryEx(path.c_str(), nullptr, platform::kLoadLibrarySearchUserDirs));
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
      _verificationStrategy(std::move(other._verificationStrategy)),
      _lastLoadFailureReason(std::move(other._lastLoadFailureReason)) {
    other._library = nullptr;
    other._entryPoint = nullptr;
    other._lastLoadFailureReason.clear();
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
    _lastLoadFailureReason.clear();
    // However the load ends, this thread's reason follows the reference's.
    struct PublishReason {
        const std::string& reason;
        ~PublishReason() { detail::setLastLoadFailureReasonOnThread(reason); }
    } const publish{_lastLoadFailureReason};

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
    platform::SetLastError(0);
    _entryPoint = api.getProcAddress(_library, pluginEntryPoint.c_str());
    if (_entryPoint != nullptr) {
        return;
    }
    _lastLoadFailureReason =
        "entry point not found: " + pluginEntryPoint + " (" +
        systemErrorText(platform::GetLastError(), fl::i18n::to_string(filePath)) + ")";
    api.freeLibrary(_library);
    _library = nullptr;
    throw KSException("corvane:plugin:symbolNotFound",
                      "Failure to find the expected plugin entry point: %s.",
                      pluginEntryPoint.c_str());
}

void* PluginReference::getEntryPointFcn() const {
    return _entryPoint;
}

const std::string& PluginReference::getLastLoadFailureReason() const {
    return _lastLoadFailureReason;
}

namespace detail {

std::string lastLoadFailureReasonOnThread() {
    return std::string(lastReasonOnThread.text, lastReasonOnThread.size);
}

void setLastLoadFailureReasonOnThread(const std::string& reason) {
    std::size_t size = std::min(reason.size(), sizeof lastReasonOnThread.text);
    if (size < reason.size()) {
        // Do not end inside a UTF-8 sequence: back off its continuation bytes
        // and its lead byte.
        while (size > 0 && (static_cast<unsigned char>(reason[size]) & 0xC0) == 0x80) {
            --size;
        }
    }
    reason.copy(lastReasonOnThread.text, size);
    lastReasonOnThread.size = size;
}

}  // namespace detail

std::unique_ptr<KSException> PluginReference::attemptLoad(const ustring& filePath,
                                                          const ustring& libraryLoadSearchPath) {
    const std::string narrowPath = fl::i18n::to_string(filePath);
    writeLine(kProgress, [&] { return "attemptLoad: filePath: " + narrowPath; });

    const bool exact = convertsExactly(filePath);
    if (!exact || !fl::filesystem::exists(filePath)) {
        _lastLoadFailureReason =
            exact ? "file not found: " + narrowPath
                  : "file not found: the path is not valid UTF-16 or holds a zero character: " +
                        narrowPath;
        writeLine(kFailure,
                  [&] { return "attemptLoad: filePath: " + narrowPath + " doesn't exist"; });
        return std::make_unique<KSException>(pluginNotLoaded(narrowPath));
    }
    if (_verificationStrategy != nullptr) {
        // Set first: it stays when the strategy throws.
        _lastLoadFailureReason = "the verification strategy threw an exception";
        if (!_verificationStrategy->verifyPlugin(filePath)) {
            auto refusal =
                std::make_unique<KSException>(_verificationStrategy->getException(filePath));
            _lastLoadFailureReason =
                "refused by the verification strategy: " + std::string(refusal->getMessage());
            writeLine(kFailure, [] { return std::string("Verification failed!"); });
            return refusal;
        }
        _lastLoadFailureReason.clear();
    }
    _library =
        loadLibraryAndAddGlobalSymbols(filePath, libraryLoadSearchPath, _lastLoadFailureReason);
    if (_library != nullptr) {
        _lastLoadFailureReason.clear();
        return nullptr;
    }
    writeLine(kFailure, [] { return std::string("loadLibraryAndAddGlobalSymbols failed!"); });
    return std::make_unique<KSException>(pluginNotLoaded(narrowPath));
}

}  // namespace kestrel
