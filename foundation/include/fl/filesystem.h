// Path services of the foundation: the installation root, file existence and
// unique temporary files. Paths are ustrings; on POSIX systems they reach the
// operating system as UTF-8, and a backslash counts as a directory separator
// there as it does on Windows, so paths written in Windows form work on both.
#pragma once

#include <filesystem>
#include <string>

#include "fl/export.h"
#include "fl/i18n.h"

namespace fl {
namespace filesystem {

// The installation root: the directory above the library directory that
// holds this foundation library (for /opt/velox/lib/libqxfoundation.so it is
// /opt/velox). Found from where the library is loaded, never from the
// environment; computed once. No trailing separator (except for "/").
// Throws std::runtime_error if the library cannot locate itself.
FL_API ustring get_install_path();

// True when something (a file or a directory) exists at path. Never throws;
// a path that cannot be examined counts as missing.
FL_API bool exists(const ustring& path);

// The directory for temporary files, chosen as std::filesystem's
// temp_directory_path() chooses it (TMPDIR, TMP, TEMP, TEMPDIR, then /tmp on
// POSIX). Throws AccessDenied when the directory cannot be examined for lack
// of permission, std::filesystem::filesystem_error when it is not a
// directory or does not exist.
FL_API ustring temp_directory_name();

// Creates a new, empty file named directory + separator + prefix + a random
// part + suffix, exclusively (no two callers, in this or another process, can
// be handed the same name), closes it and returns its path. An empty
// directory means the current directory. Throws AccessDenied when the
// directory refuses the new file (EACCES, EPERM, EROFS) and
// std::filesystem::filesystem_error for any other failure.
FL_API ustring tmpnam(const ustring& directory, const ustring& prefix, const ustring& suffix);

// The operating system refused access to a path. path1() names it, code()
// holds the system's error.
//
// Thread safety: a value; not shared.
// Lifetime: copyable.
// Errors: never throws.
class FL_API AccessDenied : public std::filesystem::filesystem_error {
  public:
    // what: the description; path: the refused path; code: the system error.
    AccessDenied(const std::string& what, const std::filesystem::path& path, std::error_code code);
    ~AccessDenied() override;
};

// Converts a UTF-16 path to the narrow form the C runtime's file functions
// take (UTF-8). Constructed with lenient true, invalid UTF-16 units are
// skipped as in fl::i18n::to_string; with false, they make convert() throw
// fl::i18n::conversion_error.
//
// Thread safety: convert() may be called from any thread.
// Lifetime: a value object.
// Errors: fl::i18n::conversion_error from a strict converter.
class FL_API codecvt_ustring_to_narrow_string : public i18n::converter<char, char16_t> {
  public:
    // A lenient (skipping) or strict (throwing) converter.
    explicit codecvt_ustring_to_narrow_string(bool lenient);
    ~codecvt_ustring_to_narrow_string() override;
    // text as UTF-8.
    std::string convert(const ustring& text) const override;

  private:
    bool _lenient;
};

}  // namespace filesystem
}  // namespace fl
