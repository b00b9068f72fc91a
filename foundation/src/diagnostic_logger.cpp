#include "foundation/log/diagnostic_logger.h"

#include <atomic>
#include <boost/log/core/core.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <map>

#include "core/annotated_mutex.h"

namespace foundation {
namespace log {

namespace {

using MaskCell = std::atomic<unsigned int>;

// Masks by channel name. Loggers keep their cell, so a mask set by name
// reaches every logger of that name without a lookup per line.
class MaskRegistry {
  public:
    std::shared_ptr<MaskCell> cell(const std::string& channel) {
        const kestrel::detail::ScopedLock<kestrel::detail::Mutex> guard(_lock);
        std::shared_ptr<MaskCell>& slot = _cells[channel];
        if (!slot) {
            slot = std::make_shared<MaskCell>(default_severity_mask);
        }
        return slot;
    }

  private:
    kestrel::detail::Mutex _lock;
    std::map<std::string, std::shared_ptr<MaskCell>> _cells KESTREL_GUARDED_BY(_lock);
};

MaskRegistry& registry() {
    static MaskRegistry instance;
    return instance;
}

}  // namespace

void set_severity_mask(const std::string& channel, unsigned int mask) {
    registry().cell(channel)->store(mask);
}

unsigned int severity_mask(const std::string& channel) {
    return registry().cell(channel)->load();
}

struct basic_diagnostic_logger<char>::impl {
    explicit impl(const std::string& name)
        : channel(name),
          mask(registry().cell(name)),
          source(boost::log::keywords::channel = name) {}

    const std::string channel;
    const std::shared_ptr<MaskCell> mask;
    // The channel's exclusive lock: the source keeps per-thread severity and
    // its attributes in state that is not synchronised itself.
    kestrel::detail::Mutex lock;
    boost::log::sources::severity_channel_logger<unsigned int, std::string> source
        KESTREL_GUARDED_BY(lock);
};

basic_diagnostic_logger<char>::basic_diagnostic_logger(const std::string& channel)
    : _impl(std::make_unique<impl>(channel)) {}

basic_diagnostic_logger<char>::~basic_diagnostic_logger() = default;

const std::string& basic_diagnostic_logger<char>::channel() const {
    return _impl->channel;
}

bool basic_diagnostic_logger<char>::is_enabled(unsigned int severity) const {
    return severity != 0 && (_impl->mask->load() & severity) == severity &&
           boost::log::core::get()->get_logging_enabled();
}

void basic_diagnostic_logger<char>::write(unsigned int severity, const std::string& line) {
    if (!is_enabled(severity)) {
        return;
    }
    boost::log::record record;
    {
        const kestrel::detail::ScopedLock<kestrel::detail::Mutex> guard(_impl->lock);
        record = _impl->source.open_record(boost::log::keywords::severity = severity);
    }
    if (!record) {
        return;  // every sink filtered it out
    }
    {
        boost::log::record_ostream stream(record);
        stream << line;
        stream.flush();
    }
    // Pushing goes straight to the core, which is thread-safe.
    boost::log::core::get()->push_record(std::move(record));
}

}  // namespace log
}  // namespace foundation
