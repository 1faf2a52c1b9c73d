#ifndef BENCH_REGISTRYCLIENT_H
#define BENCH_REGISTRYCLIENT_H

#include "Shared.h"

#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/IServiceRegistry.h>
#include <kesa/serviceregistry/ServiceRegistryPexClient.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace bench {

using kesa::serviceregistry::ServiceDef;

/// The path of the service with this number, and the number in such a path; -1: another one.
std::string pathOf(int number);
int numberOf(const std::string& path);

/// The runtime of this process, connected with the registry.
class RegistryClient {
public:
    /// Called on the executor when the event log says that the registration is a success.
    using OnConfirmed = std::function<void(int number, std::int64_t atNs)>;
    /// Returns once the registry has answered.
    explicit RegistryClient(const std::string& processName, OnConfirmed onConfirmed = nullptr);
    /// Ends the runtime, also what is registered and tracked.
    ~RegistryClient();
    RegistryClient(const RegistryClient&) = delete;
    RegistryClient& operator=(const RegistryClient&) = delete;

    kesa::runtime::v02::IKesaRuntime& runtime() const noexcept { return m_runtime; }

    [[nodiscard]] kesa::Disposable registerService(int number, const std::string& information = {});
    /// Registers, waits until it is confirmed, and answers when that was. Only for who has no `OnConfirmed`.
    std::int64_t registerAndWait(int number, kesa::Disposable& registration);
    /// For who only watches: what nobody reads is not written.
    void switchLogOff();
    /// Waits until the registry has dealt with all that this process has asked for so far.
    void sync();
    /// The registry itself, without the runtime's tables.
    kesa::serviceregistry::IServiceRegistry& bare();

private:
    class Sink;

    kesa::Disposable registerPath(const std::string& path, const kesa::GenericObject& metainfo);

    std::shared_ptr<Sink> m_sink;
    kesa::runtime::v02::IKesaRuntime& m_runtime;
    std::shared_ptr<kesa::IKesaApi> m_service;
    std::unique_ptr<kesa::serviceregistry::ServiceRegistryPexClient> m_bare;
    bool m_isLogOff = false;
    int m_synced = 0;
};

} // namespace bench

#endif
