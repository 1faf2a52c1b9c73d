#ifndef KESA_RUNTIME_V02_REASONS_H
#define KESA_RUNTIME_V02_REASONS_H

#include <comm/ActiveObject.h>
#include <kesa/runtime/v02/IReasons.h>
#include <runtime/v02/config/KesaConfig.h>
#include <runtime/v02/runtime/OpenProxies.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace kesa::runtime::v02 {

/// How this process stands to the registry: it asks none, hosts it, or has a connection to it.
class Reasons final : public IReasons {
public:
    Reasons(const KesaConfig& config, std::shared_ptr<const OpenProxies> proxies,
            std::weak_ptr<const comm::ActiveObject> executor, std::weak_ptr<const comm::ActiveObject> updater);

    /// The registry is this process's own.
    void setRegistryHere();
    void setRegistryAt(const url& locator);
    void setRegistryConnected(bool isConnected) { m_isConnected = isConnected; }

    std::string whyUnknown(const std::string& path) const override;
    std::string whyUnknownWhenAsked(const std::string& path, bool hasAnswered) const override;
    std::string obstacle(const url& locator) const override { return m_proxies->obstacle(locator); }

private:
    std::string whyDeaf() const;
    std::string why(const std::string& path, const char* silence) const;

    const std::shared_ptr<const OpenProxies> m_proxies;
    const std::weak_ptr<const comm::ActiveObject> m_executor;
    const std::weak_ptr<const comm::ActiveObject> m_updater;
    std::atomic<bool> m_isConnected{false};
    mutable std::mutex m_mutex;
    std::string m_withoutAsking; ///< what is so when no other process is asked; this and the next under the mutex
    url m_registry;
};

} // namespace kesa::runtime::v02

#endif
