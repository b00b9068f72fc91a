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
        : _path((std::filesystem::current_path() /
                 testing::UnitTest::GetInstance()->current_test_info()->name())
                    .string()) {
        std::filesystem::remove_all(_path);
        std::filesystem::create_directories(_path);
        setEnv(kTempDirVariable, _path.c_str());
    }
    ~ScopedTmpdir() {
        unsetEnv(kTempDirVariable);
        std::filesystem::remove_all(_path);
    }
    ScopedTmpdir(const ScopedTmpdir&) = delete;
    ScopedTmpdir& operator=(const ScopedTmpdir&) = delete;
    const std::string& path() const { return _path; }

  private:
    const std::string _path;
};

}  // namespace kestrel_test
