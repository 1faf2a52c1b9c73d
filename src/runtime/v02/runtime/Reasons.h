#ifndef KESA_RUNTIME_V02_REASONS_H
#define KESA_RUNTIME_V02_REASONS_H

#include <comm/LoopHold.h>
#include <kesa/runtime/v02/IReasons.h>
#include <runtime/v02/config/KesaConfig.h>
#include <runtime/v02/runtime/OpenProxies.h>
#include <runtime/v02/runtime/ProcessNote.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kesa::runtime::v02 {

/// How this process stands to the registry: it asks none, hosts it, or has a connection to it.
class Reasons final : public IReasons {
public:
    using Holds = std::vector<std::shared_ptr<const comm::LoopHold>>;

    /// `holds`: of the loops over which this process hears of services, but for those of backends. `note`: where it
    /// says what tools read; null: nowhere.
    Reasons(const KesaConfig& config, std::shared_ptr<const OpenProxies> proxies, Holds holds,
            std::unique_ptr<ProcessNote> note);

    /// "/etc/kesa.json is not valid": of a process that asks none by its configuration.
    static std::string whyNoRegistry(const KesaConfig& config);

    /// Of the backends, when they have started.
    void setBackendHolds(Holds holds);

    /// The registry is this process's own.
    void setRegistryHere();
    void setRegistryAt(const url& locator);
    void setRegistryConnected(bool isConnected) { m_isConnected = isConnected; }

    // Of a service that this process has wanted to provide.
    void noteRefusal(const std::string& path, const Response& error) const;
    void noteRegistered(const std::string& path) const;
    /// Its own registration has ended before a registry has answered it.
    void noteDropped(const std::string& path) const;
    /// The runtime has ended: tools read nothing of it any more.
    void endNote() const;

    std::string whyUnknown(const std::string& path) const override;
    std::string whyUnknownWhenAsked(const std::string& path, bool hasAnswered) const override;
    std::string obstacle(const url& locator) const override;
    Holds holds() const override;
    void tellHeld(const std::vector<HeldLoop>& held) const override;
    void tellTooSlow(const std::string& path, const std::string& loop) const override;

private:
    Holds backendHolds() const;
    std::string why(const std::string& path, const char* silence) const;

    const std::shared_ptr<const OpenProxies> m_proxies;
    const Holds m_holds;
    const std::unique_ptr<ProcessNote> m_note;
    std::atomic<bool> m_isConnected{false};
    mutable std::mutex m_mutex;  ///< of all below: the runtime's start writes them, whoever has to give a reason reads
    std::string m_withoutAsking; ///< what is so when no other process is asked
    url m_registry;
    Holds m_backendHolds;
};

} // namespace kesa::runtime::v02

#endif
