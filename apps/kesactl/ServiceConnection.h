#ifndef KESACTL_SERVICECONNECTION_H
#define KESACTL_SERVICECONNECTION_H

#include "System.h"

#include <comm/Clock.h>
#include <comm/Condition.h>
#include <kesa/Disposable.h>
#include <kesa/IKesaApi.h>
#include <kesa/optional.h>

#include <memory>
#include <mutex>
#include <string>

namespace kesactl {

/// The record of a service as the registry has it, or as the document that asks for none. A `Failure` when there is
/// none, which says what is there instead.
ServiceDef findService(const System& system, const std::string& path, comm::TimeNs deadline);

/// The connection to a service, at the locators of its record.
class ServiceConnection {
public:
    using Client = std::shared_ptr<kesa::IKesaApi>;

    explicit ServiceConnection(ServiceDef service);
    ~ServiceConnection();
    ServiceConnection(const ServiceConnection&) = delete;
    ServiceConnection& operator=(const ServiceConnection&) = delete;

    /// Waits for it; null at the deadline, or when this process reaches none of the locators.
    Client tryClient(comm::TimeNs deadline);
    /// The same; a `Failure` that says why there is none at the deadline. The client object stays good when the
    /// connection is lost and found again.
    Client client(comm::TimeNs deadline);
    /// This process reaches none of the locators.
    bool isRefused();

private:
    struct State {
        void keep(const kesa::optional<Client>& newClient, bool isRefusal);

        std::mutex mutex; // between the backend's loop and the main thread, which waits
        comm::Condition changed;
        kesa::optional<Client> client; ///< with the mutex held, as the next one
        bool isRefused = false;
    };

    const ServiceDef m_service;
    const std::shared_ptr<State> m_state = std::make_shared<State>();
    kesa::Disposable m_subscription;
};

} // namespace kesactl

#endif
