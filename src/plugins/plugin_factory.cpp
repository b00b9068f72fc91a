#include "kestrel/plugins.h"

namespace kestrel {

IPluginFactory::IPluginFactory() = default;
IPluginFactory::IPluginFactory(const IPluginFactory&) = default;
IPluginFactory& IPluginFactory::operator=(const IPluginFactory&) = default;
IPluginFactory::~IPluginFactory() = default;

UnsignedPluginFactory::UnsignedPluginFactory() = default;
UnsignedPluginFactory::UnsignedPluginFactory(const UnsignedPluginFactory&) = default;
UnsignedPluginFactory::UnsignedPluginFactory(UnsignedPluginFactory&&) noexcept = default;
UnsignedPluginFactory& UnsignedPluginFactory::operator=(const UnsignedPluginFactory&) = default;
UnsignedPluginFactory& UnsignedPluginFactory::operator=(UnsignedPluginFactory&&) noexcept = default;
UnsignedPluginFactory::~UnsignedPluginFactory() = default;

std::unique_ptr<IPluginReference> UnsignedPluginFactory::loadPlugin(
    const ustring& pluginPath, const std::string& pluginEntryPoint, bool unloadOnDestruction,
    const ustring& libraryLoadSearchPath) const {
    std::unique_ptr<IVerificationStrategy> strategy = std::make_unique<NoOpVerificationStrategy>();
    auto reference = std::make_unique<PluginReference>(unloadOnDestruction, std::move(strategy));
    reference->load(pluginPath, pluginEntryPoint, libraryLoadSearchPath);
    return reference;
}

}  // namespace kestrel
