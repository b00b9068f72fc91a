// Diagnostics: route the library's diagnostic lines into the host's own
// Boost.Log sink instead of standard error.
//
// The library writes progress and failures to named channels
// ("kestrel::PluginLoader", ...), Boost.Log sources whose records carry the
// attributes "Channel" (std::string) and "Severity" (unsigned int: 8 for
// progress, 512 for failures). By default they are printed to standard
// error; a host with its own sinks removes that default sink.
#include <foundation/log/diagnostic_logger.h>
#include <kestrel/kestrel.h>

#include <boost/log/core/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/make_shared.hpp>
#include <cstdio>
#include <sstream>

int main() {
    namespace logging = boost::log;
    namespace expr = boost::log::expressions;

    // The host's sink: here a text stream, in a real host its log file.
    auto text = boost::make_shared<std::ostringstream>();
    using Sink = logging::sinks::synchronous_sink<logging::sinks::text_ostream_backend>;
    auto sink = boost::make_shared<Sink>();
    sink->locked_backend()->add_stream(text);
    sink->set_formatter(expr::stream << expr::attr<std::string>("Channel") << " ("
                                     << expr::attr<unsigned int>("Severity")
                                     << "): " << expr::smessage);
    logging::core::get()->add_sink(sink);
    // From now on the lines reach only the host's sink.
    foundation::log::remove_default_sink();
    // Progress lines too, for this channel (failures are on by default).
    foundation::log::set_severity_mask("kestrel::PluginLoader", 8 | 512);

    try {
        const kestrel::PluginLoader plugin(std::string("/no/such/plugin"), "entry", true, u"");
    } catch (const kestrel::KSException& e) {
        std::printf("%s: %s\n", e.getID(), e.getMessage());
    }
    sink->flush();
    std::printf("the host's sink received:\n%s", text->str().c_str());
    return text->str().find("kestrel::PluginLoader (512): attemptLoad") != std::string::npos ? 0
                                                                                             : 1;
}
