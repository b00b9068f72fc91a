// Points the temporary-directory variable (TMPDIR; TMP on Windows) at a
// fresh directory, named after the running test, in the current directory
// while it lives, and removes the directory after.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/os.h"

namespace kestrel_test {

class ScopedTmpdir {
  public:
    ScopedTmpdir()
        : _dir(std::filesystem::current_path() /
               testing::UnitTest::GetInstance()->current_test_info()->name()),
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
    const std::filesystem::path _dir;
    const std::string _path;
};

}  // namespace kestrel_test
