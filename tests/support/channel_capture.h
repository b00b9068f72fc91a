// Captures the records of one diagnostic channel through an ordinary
// Boost.Log sink, with the channel's severity mask set while it lives.
#pragma once

#include <foundation/log/diagnostic_logger.h>

#include <boost/log/core/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/make_shared.hpp>
#include <string>
#include <utility>
#include <vector>

namespace kestrel_test {

// One record: its "Severity" and its message.
using ChannelLine = std::pair<unsigned int, std::string>;

class ChannelCapture {
  public:
    ChannelCapture(const std::string& channel, unsigned int mask)
        : _channel(channel), _previousMask(foundation::log::severity_mask(channel)) {
        _sink->set_filter(boost::log::expressions::attr<std::string>("Channel") == channel);
        foundation::log::set_severity_mask(channel, mask);
        boost::log::core::get()->add_sink(_sink);
    }
    ~ChannelCapture() {
        boost::log::core::get()->remove_sink(_sink);
        foundation::log::set_severity_mask(_channel, _previousMask);
    }

    std::vector<ChannelLine> lines() const { return _sink->locked_backend()->lines; }

  private:
    struct Backend
        : boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
        void consume(const boost::log::record_view& record) {
            lines.emplace_back(*record["Severity"].extract<unsigned int>(),
                               *record["Message"].extract<std::string>());
        }
        std::vector<ChannelLine> lines;  // guarded by the sink's lock
    };
    using Sink = boost::log::sinks::synchronous_sink<Backend>;

    const std::string _channel;
    const unsigned int _previousMask;
    const boost::shared_ptr<Sink> _sink = boost::make_shared<Sink>();
};

}  // namespace kestrel_test
