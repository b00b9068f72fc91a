#include "foundation/log/diagnostic_logger.h"

#include <atomic>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <boost/make_shared.hpp>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>

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

// Writes each record to standard error as one line:
//   [<Channel>] [<Severity>] <Message>
// One fwrite per line, so that lines of concurrent processes stay whole.
class StderrBackend
    : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
  public:
    void consume(const boost::log::record_view& record) {
        std::string line = "[";
        if (const auto channel = record["Channel"].extract<std::string>()) {
            line += *channel;
        }
        line += "] ";
        if (const auto severity = record["Severity"].extract<unsigned int>()) {
            line += "[" + std::to_string(*severity) + "] ";
        }
        if (const auto message = record["Message"].extract<std::string>()) {
            line += *message;
        }
        line += '\n';
        std::fwrite(line.data(), 1, line.size(), stderr);
        std::fflush(stderr);
    }
};

using StderrSink = boost::log::sinks::synchronous_sink<StderrBackend>;

// The default sink: in the core from the first channel's construction until
// the host removes it (remove_default_sink(), or core::remove_all_sinks()).
// Taken out of the core again when this library is unloaded, since its code
// lives here; the core is held so that it is still there then.
class DefaultSink {
  public:
    void install() {
        std::lock_guard<std::mutex> guard(_lock);
        if (_removed || _sink) {
            return;
        }
        _sink = boost::make_shared<StderrSink>();
        // The channels' records only: the host's own records keep going
        // where the host sends them.
        _sink->set_filter([](const boost::log::attribute_value_set& values) {
            return values.find("Channel") != values.end() &&
                   values.find("Severity") != values.end();
        });
        _core->add_sink(_sink);
    }

    void remove() {
        std::lock_guard<std::mutex> guard(_lock);
        _removed = true;
        if (_sink) {
            _core->remove_sink(_sink);
            _sink.reset();
        }
    }

    ~DefaultSink() {
        if (_sink) {
            _core->remove_sink(_sink);
        }
    }

  private:
    const boost::log::core_ptr _core = boost::log::core::get();
    std::mutex _lock;
    bool _removed = false;                // guarded by _lock
    boost::shared_ptr<StderrSink> _sink;  // guarded by _lock
};

DefaultSink& defaultSink() {
    static DefaultSink instance;
    return instance;
}

}  // namespace

void remove_default_sink() {
    defaultSink().remove();
}

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
    : _impl(std::make_unique<impl>(channel)) {
    defaultSink().install();
}

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
