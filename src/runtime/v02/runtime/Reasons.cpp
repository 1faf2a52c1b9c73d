#include <runtime/v02/runtime/Reasons.h>

#include <fmt/format.h>

#include <utility>

namespace kesa::runtime::v02 {

IReasons::~IReasons() = default;

namespace {

std::string withoutRegistry(const KesaConfig& config)
{
    constexpr const char* SO = "and so sees its own services only; 'kesactl check-config'";
    const bool isFile = !config.m_file.empty();
    return config.m_valid
               ? fmt::format(
                     "this process asks no registry, since {} has no \"use_registry\": true, {} shows what counts",
                     isFile ? config.m_file : "its built-in configuration", SO)
               : fmt::format("this process asks no registry, since {}, {} says more",
                             isFile ? config.m_file + " is not valid"
                                    : "it has no configuration file, and no valid text in place of one",
                             SO);
}

} // namespace

Reasons::Reasons(const KesaConfig& config, std::shared_ptr<const OpenProxies> proxies)
    : m_proxies(std::move(proxies)), m_withoutAsking(withoutRegistry(config))
{}

void Reasons::setRegistryHere()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_withoutAsking = "this process hosts the registry, and its runtime sees its own services only; 'kesactl list' "
                      "shows those of all";
}

void Reasons::setRegistryAt(const url& locator)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_withoutAsking.clear();
    m_registry = locator;
}

std::string Reasons::whyUnknown(const std::string& path) const
{
    url registry;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_withoutAsking.empty()) {
            return m_withoutAsking;
        }
        registry = m_registry;
    }
    const std::string why = obstacle(registry);
    if (m_isConnected) {
        return fmt::format("the registry at {} is connected and {}; 'kesactl why {}' says more", registry.toString(),
                           why.empty() ? "names nobody" : "silent: " + why, path);
    }
    return fmt::format("the registry at {} is not connected{}{}; 'kesactl doctor' says more", registry.toString(),
                       why.empty() ? "" : ": ", why);
}

} // namespace kesa::runtime::v02
