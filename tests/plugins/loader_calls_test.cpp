// The operating system's loader calls, as plugin references make them: a
// failure leaves the system's own error code, for which the system has a text.
#include <gtest/gtest.h>

#include <fl/i18n.h>

#include <string>

#include "platform/dynamic_library.h"
#include "plugins/loader_api.h"
#include "support/os.h"

namespace {

using kestrel_test::ErrorCode;
using kestrel_test::lastError;

const std::string kPluginDir = KESTREL_TEST_PLUGIN_DIR;

std::wstring wide(const std::string& text) {
    return fl::i18n::to_wstring(fl::i18n::to_ustring(text));
}

TEST(LoaderCallsTest, FailuresLeaveTheSystemsErrorCode) {
    namespace platform = kestrel::platform;
    const kestrel::detail::LoaderApi& os = kestrel::detail::systemLoaderApi();
    const std::uint32_t quiet = platform::kSemFailCriticalErrors | platform::kSemNoOpenFileErrorBox;
    os.setErrorMode(os.setErrorMode(quiet) | quiet);

    // A missing file, and a library whose dependency is in no searched place.
    void* module = os.loadLibraryEx(
        wide(kPluginDir + "/missing.dll").c_str(), nullptr,
        platform::kLoadLibrarySearchDllLoadDir | platform::kLoadLibrarySearchDefaultDirs);
    ErrorCode error = lastError();
    EXPECT_EQ(module, nullptr);
    EXPECT_EQ(error, kestrel_test::kModuleNotFound);
    module = os.loadLibrary(wide(kPluginDir + "/dependent_plugin.dll").c_str());
    error = lastError();
    EXPECT_EQ(module, nullptr);
    EXPECT_EQ(error, kestrel_test::kModuleNotFound);

    // Flags that exclude each other, and a directory that is not absolute.
    const std::wstring plugin = wide(kPluginDir + "/entry_plugin.dll");
    module = os.loadLibraryEx(
        plugin.c_str(), nullptr,
        platform::kLoadWithAlteredSearchPath | platform::kLoadLibrarySearchDllLoadDir);
    error = lastError();
    EXPECT_EQ(module, nullptr);
    EXPECT_EQ(error, kestrel_test::kInvalidParameter);
    void* cookie = os.addDllDirectory(L"relative");
    error = lastError();
    EXPECT_EQ(cookie, nullptr);
    EXPECT_EQ(error, kestrel_test::kInvalidParameter);

    // A loaded library without the symbol asked for.
    module = os.loadLibraryEx(
        plugin.c_str(), nullptr,
        platform::kLoadLibrarySearchDllLoadDir | platform::kLoadLibrarySearchDefaultDirs);
    ASSERT_NE(module, nullptr);
    void* symbol = os.getProcAddress(module, "nowhere");
    error = lastError();
    EXPECT_EQ(symbol, nullptr);
    EXPECT_EQ(error, kestrel_test::kProcedureNotFound);
    EXPECT_NE(os.getProcAddress(module, "kestrelTestEntry"), nullptr);
    EXPECT_TRUE(os.freeLibrary(module));

    for (const ErrorCode code : {kestrel_test::kModuleNotFound, kestrel_test::kProcedureNotFound,
                                 kestrel_test::kInvalidParameter}) {
        EXPECT_NE(kestrel_test::systemText(code), "") << code;
    }
}

}  // namespace
