// Points the temporary-directory variable (TMPDIR; TMP on Windows) at a
// fresh directory, named after the running test and its suite, in the
// current directory while it lives, and removes the directory after. CTest runs the tests of a
// program at the same time in that directory: two tests of the same name in
// different suites must not share one.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "support/os.h"

namespace kestrel_test {

class ScopedTmpdir {
  public:
    ScopedTmpdir()
        : _dir(std::filesystem::current_path() / std::filesystem::u8path(testName())),
          _path(_dir.u8string()) {
        std::filesystem::remove_all(_dir);
        std::filesystem::create_directories(_dir);
        setEnv(kTempDirVariable, _path.c_str());
    }
    ~ScopedTmpdir() {
        unsetEnv(kTempDirVariable);
        std::filesystem::remove_all(_dir);
    }
    ScopedTmpdir(const ScopedTmpdir&) = delete;
    ScopedTmpdir& operator=(const ScopedTmpdir&) = delete;
    // As UTF-8.
    const std::string& path() const { return _path; }
    const std::filesystem::path& dir() const { return _dir; }

  private:
    // "<suite>.<test>", with the slashes of parameterised names replaced.
    static std::string testName() {
        const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
        std::string name = std::string(test->test_suite_name()) + "." + test->name();
        std::replace(name.begin(), name.end(), '/', '_');
        return name;
    }

    const std::filesystem::path _dir;
    const std::string _path;
};

}  // namespace kestrel_test
