// Points the temporary-directory variable (TMPDIR; TMP on Windows) at a
// fresh directory (or at a given path) while it lives.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/os.h"

namespace kestrel_test {

class ScopedTmpdir {
  public:
    // Without a path: a new directory, removed again with its contents.
    explicit ScopedTmpdir(std::string path = "") : _path(std::move(path)), _owned(_path.empty()) {
        if (_owned) {
            _path = testing::TempDir() + "kestrel_tmpdir_" + std::to_string(processId());
            std::filesystem::remove_all(_path);
            std::filesystem::create_directories(_path);
        }
        setEnv(kTempDirVariable, _path.c_str());
    }
    ~ScopedTmpdir() {
        unsetEnv(kTempDirVariable);
        if (_owned) {
            std::filesystem::remove_all(_path);
        }
    }
    ScopedTmpdir(const ScopedTmpdir&) = delete;
    ScopedTmpdir& operator=(const ScopedTmpdir&) = delete;
    const std::string& path() const { return _path; }

  private:
    std::string _path;
    bool _owned;
};

}  // namespace kestrel_test
