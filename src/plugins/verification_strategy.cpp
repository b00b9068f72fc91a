#include <fl/i18n.h>

#include <foundation/log/diagnostic_logger.h>

#include "kestrel/plugins.h"

namespace kestrel {

namespace {

// The channel for verification strategies; the library's own strategy has
// nothing to report, so it stays quiet.
foundation::log::basic_diagnostic_logger<char> verificationStrategyChannel(
    "kestrel::VerificationStrategy");

}  // namespace

IVerificationStrategy::~IVerificationStrategy() = default;

NoOpVerificationStrategy::NoOpVerificationStrategy() = default;
NoOpVerificationStrategy::NoOpVerificationStrategy(const NoOpVerificationStrategy&) = default;
NoOpVerificationStrategy::NoOpVerificationStrategy(NoOpVerificationStrategy&&) noexcept = default;
NoOpVerificationStrategy& NoOpVerificationStrategy::operator=(const NoOpVerificationStrategy&) =
    default;
NoOpVerificationStrategy& NoOpVerificationStrategy::operator=(NoOpVerificationStrategy&&) noexcept =
    default;
NoOpVerificationStrategy::~NoOpVerificationStrategy() = default;

bool NoOpVerificationStrategy::verifyPlugin(const ustring& /*path*/) {
    return true;
}

KSException NoOpVerificationStrategy::getException(const ustring& path) {
    return KSException("corvane:plugin:pluginNotLoaded",
                       "Failure to load the requested plugin: %s.",
                       fl::i18n::to_string(path).c_str());
}

}  // namespace kestrel
