// Captures the records of one diagnostic channel through an ordinary
// Boost.Log sink, with the channel's severity mask set for the capture's
// lifetime.
#pragma once

#include <foundation/log/diagnostic_logger.h>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/make_shared.hpp>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kestrel_test {

// One record: its severity and its text.
using ChannelLine = std::pair<unsigned int, std::string>;

class ChannelCapture {
  public:
    ChannelCapture(std::string channel, unsigned int mask)
        : _channel(std::move(channel)),
          _previousMask(foundation::log::severity_mask(_channel)),
          _backend(boost::make_shared<Backend>(_channel)),
          _sink(boost::make_shared<Sink>(_backend)) {
        foundation::log::set_severity_mask(_channel, mask);
        boost::log::core::get()->add_sink(_sink);
    }
    ~ChannelCapture() {
        boost::log::core::get()->remove_sink(_sink);
        foundation::log::set_severity_mask(_channel, _previousMask);
    }
    ChannelCapture(const ChannelCapture&) = delete;
    ChannelCapture& operator=(const ChannelCapture&) = delete;

    std::vector<ChannelLine> lines() const { return _backend->lines(); }
    void clear() { _backend->clear(); }

  private:
    class Backend
        : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
      public:
        explicit Backend(std::string channel) : _channel(std::move(channel)) {}
        void consume(const boost::log::record_view& record) {
            if (boost::log::extract<std::string>("Channel", record).get() != _channel) {
                return;
            }
            std::lock_guard<std::mutex> guard(_lock);
            _lines.emplace_back(boost::log::extract<unsigned int>("Severity", record).get(),
                                boost::log::extract<std::string>("Message", record).get());
        }
        std::vector<ChannelLine> lines() const {
            std::lock_guard<std::mutex> guard(_lock);
            return _lines;
        }
        void clear() {
            std::lock_guard<std::mutex> guard(_lock);
            _lines.clear();
        }

      private:
        const std::string _channel;
        mutable std::mutex _lock;
        std::vector<ChannelLine> _lines;  // guarded by _lock
    };
    using Sink = boost::log::sinks::synchronous_sink<Backend>;

    const std::string _channel;
    const unsigned int _previousMask;
    boost::shared_ptr<Backend> _backend;
    boost::shared_ptr<Sink> _sink;
};

}  // namespace kestrel_test
