// The system loader as the platform layer drives it, with files in a plugin
// folder that the library does not control. Each test expects a process of
// its own, as CTest runs them: directories that loads add to the library
// search stay in the process for good.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/dynamic_library.h"
#include "support/load_outcome.h"
#include "support/scoped_tmpdir.h"

#if !defined(_WIN32)
#include <sys/stat.h>
#endif

using namespace kestrel_test;
namespace fs = std::filesystem;

#if !defined(_WIN32)
// Only regular files are opened: a FIFO would block the opener for ever.
TEST(DynamicLibraryTest, FifosAndDirectoriesWithAPluginsNameFailAsNotLoaded) {
    const ScopedTmpdir tmp;
    ASSERT_EQ(::mkfifo((tmp.path() + "/fifo.dll").c_str(), 0600), 0);
    fs::create_directories(tmp.dir() / "directory.dll");
    EXPECT_EQ(loadOutcome(u(tmp.dir() / "fifo")), kNotLoaded);
    EXPECT_EQ(loadOutcome(u(tmp.dir() / "directory")), kNotLoaded);
    // Nor as a dependency in a search directory.
    fs::create_directories(tmp.dir() / "deps");
    for (const auto& file : fs::directory_iterator(kPluginDir + "/plugin_deps"))
        ASSERT_EQ(::mkfifo((tmp.dir() / "deps" / file.path().filename()).c_str(), 0600), 0);
    EXPECT_EQ(loadOutcome(u(kPluginDir + "/dependent_plugin"), u(tmp.dir() / "deps")), kNotLoaded);
}

// Five plugins that each need the other four: every one is looked at once,
// not once per path through the group (which took minutes). Found only
// through the search path, the group cannot be loaded by the system loader.
TEST(DynamicLibraryTest, PluginsThatNeedEachOtherAreEachInspectedOnce) {
    const ScopedTmpdir tmp;
    const std::string cycle = kPluginDir + "/plugin_cycle";
    fs::copy_file(cycle + "/libcycle_a.so", tmp.dir() / "cycle_a.dll");
    EXPECT_EQ(loadOutcome(u(tmp.dir() / "cycle_a"), u(cycle)), kNotLoaded);
    // The plugin, then each of the five names once.
    EXPECT_LE(kestrel::platform::lastInspectedFileCount(), 6u);
    EXPECT_GE(kestrel::platform::lastInspectedFileCount(), 5u);
}

// AddDllDirectory adds its directory again on every load that reaches it,
// as specified; the search still looks in each distinct directory once.
TEST(DynamicLibraryTest, RepeatedFailingLoadsSearchEachDirectoryOnce) {
    const ScopedTmpdir tmp;
    std::vector<std::size_t> counts;
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(loadOutcome(u(kPluginDir + "/dependent_plugin"), u(tmp.dir())), kNotLoaded);
        counts.push_back(kestrel::platform::lastSearchedDirectoryCount());
    }
    EXPECT_GE(counts.front(), 1u);
    EXPECT_EQ(counts, std::vector<std::size_t>(counts.size(), counts.front()));
}

// An exception thrown through the system loader leaves its lock held: the
// process ends at once, saying which plugin and why, instead of a foreign
// exception leaving load() and a later load waiting for ever.
TEST(DynamicLibraryDeathTest, PluginWhoseInitialiserThrowsEndsTheProcessWithAMessage) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(loadOutcome(u(kPluginDir + "/throwing_plugin")),
                 "throwing_plugin\\.dll failed: its initialisation threw an exception: "
                 "initialiser failed on purpose");
}
#else
// The system loader stops an exception thrown by a library's initialisation
// and fails the load: the specified failure, and later loads go on.
TEST(DynamicLibraryTest, PluginWhoseInitialiserThrowsFailsAsNotLoaded) {
    EXPECT_EQ(loadOutcome(u(kPluginDir + "/throwing_plugin")), kNotLoaded);
    EXPECT_EQ(loadOutcome(u(kPluginDir + "/entry_plugin")), "loaded 42");
}
#endif
