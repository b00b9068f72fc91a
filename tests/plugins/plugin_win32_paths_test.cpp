// Plugin paths as Windows users have them: folders beyond ASCII, relative
// paths, and narrow text in the ANSI code page. Windows only: each case is
// about how the Windows loader and the wide calls see a path.
#include <gtest/gtest.h>

#include <fl/i18n.h>
#include <windows.h>

#include <filesystem>
#include <string>

#include "kestrel/exception.h"
#include "kestrel/plugins.h"

using kestrel::PluginLoader;
namespace fs = std::filesystem;

namespace {

const char* const kEntry = "kestrelTestEntry";

fs::path binDir() {
    return fs::u8path(KESTREL_TEST_PLUGIN_DIR);
}

// The folder of this program, where the loader's own search begins.
fs::path programDir() {
    wchar_t name[4096] = {};
    ::GetModuleFileNameW(nullptr, name, 4096);
    return fs::path(name).parent_path();
}

kestrel::ustring u16(const fs::path& path) {
    const std::wstring& wide = path.native();
    return kestrel::ustring(wide.begin(), wide.end());
}

// The file the module holding address was loaded from.
fs::path moduleFileOf(void* address) {
    HMODULE module = nullptr;
    if (!::GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            static_cast<LPCWSTR>(address), &module)) {
        return {};
    }
    wchar_t name[4096] = {};
    ::GetModuleFileNameW(module, name, 4096);
    return fs::path(name);
}

// A fresh folder below the current directory, made current while it lives,
// holding copies of the test plugins; the folder's name is UTF-8.
class PluginFolder {
  public:
    explicit PluginFolder(const std::string& name)
        : _previous(fs::current_path()), _dir(_previous / fs::u8path(name)) {
        fs::remove_all(_dir);
        fs::create_directories(_dir);
        fs::current_path(_dir);
    }
    ~PluginFolder() {
        fs::current_path(_previous);
        std::error_code ignored;  // a library still loaded keeps its file
        fs::remove_all(_dir, ignored);
    }
    PluginFolder(const PluginFolder&) = delete;
    PluginFolder& operator=(const PluginFolder&) = delete;

    // Copies the test plugin file (from the test programs' folder) to
    // folder/target, creating the folders on the way.
    static void copy(const char* file, const fs::path& target) {
        fs::create_directories(target.parent_path());
        fs::copy_file(binDir() / file, target, fs::copy_options::overwrite_existing);
    }
    const fs::path& dir() const { return _dir; }

  private:
    const fs::path _previous;
    const fs::path _dir;
};

TEST(PluginWin32PathsTest, PluginsAndSearchPathsBeyondAsciiLoad) {
    const PluginFolder folder(u8"pl\u00fcgins_Jos\u00e9_\u65e5\u672c_\U0001F600");
    const fs::path deps = folder.dir() / fs::u8path(u8"d\u00e9pendances");
    PluginFolder::copy("entry_plugin.dll", folder.dir() / "entry_plugin.dll");
    PluginFolder::copy("dependent_plugin.dll", folder.dir() / "dependent_plugin.dll");
    fs::create_directories(deps);
    for (const fs::directory_entry& file : fs::directory_iterator(binDir() / "plugin_deps")) {
        fs::copy_file(file.path(), deps / file.path().filename());
    }

    // Given as UTF-16 and as UTF-8, without the extension.
    const PluginLoader wide(u16(folder.dir() / "entry_plugin"), kEntry, true, u"");
    EXPECT_TRUE(
        fs::equivalent(moduleFileOf(wide.getEntryPointFcn()), folder.dir() / "entry_plugin.dll"));
    const PluginLoader narrow((folder.dir() / "entry_plugin").u8string(), kEntry, true, u"");
    EXPECT_EQ(narrow.getEntryPointFcn(), wide.getEntryPointFcn());

    // The dependency is found only through the search path.
    const PluginLoader dependent(u16(folder.dir() / "dependent_plugin.dll"), kEntry, true,
                                 u16(deps));
    EXPECT_EQ(reinterpret_cast<int (*)()>(dependent.getEntryPointFcn())(), 42);
    EXPECT_TRUE(fs::equivalent(moduleFileOf(dependent.getEntryPointFcn()),
                               folder.dir() / "dependent_plugin.dll"));
}

// The loader's own search starts in the program's folder: a file of the same
// relative name there must not be the one that is loaded.
TEST(PluginWin32PathsTest, ARelativePathLoadsTheFileBelowTheCurrentDirectory) {
    const PluginFolder folder(u8"relative_\u00e9");
    const fs::path decoy = programDir() / "shadow_sub" / "shadowed_plugin.dll";
    PluginFolder::copy("entry_plugin.dll", decoy);
    PluginFolder::copy("entry_plugin.dll", folder.dir() / "shadow_sub" / "shadowed_plugin.dll");
    {
        const PluginLoader loader(std::string("shadow_sub\\shadowed_plugin"), kEntry, true, u"");
        EXPECT_TRUE(fs::equivalent(moduleFileOf(loader.getEntryPointFcn()),
                                   folder.dir() / "shadow_sub" / "shadowed_plugin.dll"));
    }
    std::error_code ignored;
    fs::remove_all(decoy.parent_path(), ignored);
}

// "Jos\xe9" is "José" in code page 1252 and not UTF-8; dropping the byte
// would name the folder "Jos", which holds a plugin too.
TEST(PluginWin32PathsTest, NarrowPathsThatAreNotUtf8AreRefused) {
    const PluginFolder folder("invalid_narrow");
    PluginFolder::copy("entry_plugin.dll", folder.dir() / "Jos" / "entry_plugin.dll");
    PluginFolder::copy("entry_plugin.dll",
                       folder.dir() / fs::u8path(u8"Jos\u00e9") / "entry_plugin.dll");
    try {
        const PluginLoader loader((folder.dir() / "Jos").u8string() + "\xe9\\entry_plugin", kEntry,
                                  true, u"");
        ADD_FAILURE() << "loaded " << moduleFileOf(loader.getEntryPointFcn()).u8string();
    } catch (const kestrel::KSException& e) {
        EXPECT_STREQ(e.getID(), "corvane:plugin:pluginNotLoaded");
    }
    EXPECT_EQ(::GetModuleHandleW((folder.dir() / "Jos" / "entry_plugin.dll").c_str()), nullptr);
}

}  // namespace
