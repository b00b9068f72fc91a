// Diagnostic channels of the foundation: named Boost.Log sources that write
// one record per line. Each record carries the attributes "Channel"
// (std::string, the channel's name) and "Severity" (unsigned int, one bit
// within the low 15 bits). A channel writes only the severities enabled in
// its mask, and only while the Boost.Log core has logging enabled.
//
// Where the records end up: by default on standard error, one line each,
//   [kestrel::PluginLoader] [512] loadLibraryAndAddGlobalSymbols failed!
// through a default sink that the first channel's construction adds to the
// Boost.Log core (normally when the library owning the channel is loaded).
// It takes the records of these channels only (those with both attributes).
// A host that routes the records itself adds its own sinks to the core and
// calls remove_default_sink() (before or after, any time);
// core::remove_all_sinks() removes the default sink as well. Adding a sink
// alone does not remove it: the records would then reach both. See
// docs/diagnostics.md.
//
// Masks are kept per channel name, process-wide: every logger of a name
// shares one mask, and set_severity_mask() may be called before or after the
// channel's loggers exist. A name that was never set starts with
// default_severity_mask: the failure severities, 512 and above.
#pragma once

#include <memory>
#include <string>

#include "fl/export.h"

namespace foundation {
namespace log {

// Severity bits 512..16384: failures only.
constexpr unsigned int default_severity_mask = 0x7E00u;

// Sets the enabled-severity mask of the channel with this name.
FL_API void set_severity_mask(const std::string& channel, unsigned int mask);
// The enabled-severity mask of the channel with this name.
FL_API unsigned int severity_mask(const std::string& channel);

// Takes the default standard-error sink out of the Boost.Log core, for good:
// it is not added again, also not by channels built later. Any thread; does
// nothing the second time.
FL_API void remove_default_sink();

template <typename CharT>
class basic_diagnostic_logger;

// One named channel.
//
// Thread safety: any thread may write; the channel's lock is held only while
//   a record is opened, never while its text is streamed or pushed.
// Lifetime: usually a static object living as long as the library that owns
//   it; records already pushed do not refer to it.
// Errors: write() passes on exceptions of the Boost.Log core and of sinks.
template <>
class FL_API basic_diagnostic_logger<char> {
  public:
    // A source writing to the channel of this name (its "Channel" attribute).
    explicit basic_diagnostic_logger(const std::string& channel);
    ~basic_diagnostic_logger();
    basic_diagnostic_logger(const basic_diagnostic_logger&) = delete;
    basic_diagnostic_logger& operator=(const basic_diagnostic_logger&) = delete;

    // The channel's name.
    const std::string& channel() const;

    // True when the mask has every bit of severity and the Boost.Log core
    // has logging enabled. Check it before building an expensive line.
    bool is_enabled(unsigned int severity) const;

    // Writes one record with the line as its message, if is_enabled().
    void write(unsigned int severity, const std::string& line);

  private:
    struct impl;
    std::unique_ptr<impl> _impl;
};

// The channel type that callers name.
using diagnostic_logger = basic_diagnostic_logger<char>;

}  // namespace log
}  // namespace foundation
