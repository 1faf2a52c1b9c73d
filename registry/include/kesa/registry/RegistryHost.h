#ifndef KESA_REGISTRY_REGISTRYHOST_H
#define KESA_REGISTRY_REGISTRYHOST_H

#include <kesa/Response.h>
#include <kesa/runtime/v02/IRuntimeRegistry.h>
#include <kesa/serviceregistry/IServiceRegistry.h>

#include <functional>
#include <memory>

namespace kesa::registry {

/// Makes this process the host of the registry: registers it with the runtime, as the first of all services, and shows
/// its watchers what this process itself provides. The runtime must have found one of its registry locators to be its
/// own (`KesaRuntime::isRegistryHost`). There is one at a time: a second one is refused and leaves the first alone.
/// Once one has been stopped the next may be made: it begins when the first has been withdrawn, which its `ready`
/// tells.
///
/// The runtime of the hosting process knows its own services only: who wants to see all of them here asks `registry()`.
class KESA_API RegistryHost {
public:
    /// `ready` is called on the executor once the registry can be reached, `failed` on the updater when it cannot be
    /// registered, or inside the constructor when this process does not host the registry (409); one of them, once.
    /// After `stop` none begins; one may be under way. Both are kept until the registration has ended.
    RegistryHost(runtime::v02::IRuntimeRegistry& runtime, std::function<void()> ready,
                 std::function<void(const Response& error)> failed);
    /// Stops, if that has not been done.
    ~RegistryHost();
    RegistryHost(const RegistryHost&) = delete;
    RegistryHost& operator=(const RegistryHost&) = delete;

    /// Ends all requests with 503, then withdraws the registry. Every other registration of this process must have
    /// been disposed before. From then on until the runtime ends or hosts again, its channel KESA_RUNTIME_BACKENDS is
    /// silent unless a threshold has been set for it. Does nothing when the registration was refused. Before the
    /// runtime ends; not on a loop of it.
    void stop();

    /// Reads the policy of the configuration document again: what it no longer allows ends with 403, who may see more
    /// or less is told, and the rest feels nothing. Answers why the document does not count, for people; then the
    /// policy is as before. Empty: it counts. Any thread, but no loop of the runtime: files are read.
    std::string reloadPolicy();
    /// What counts now, for people: "3 rules of /etc/kesa.json", or that there is none, and what that means. Any
    /// thread.
    std::string describePolicy() const;

    serviceregistry::IServiceRegistry& registry();

private:
    class Impl;
    std::shared_ptr<Impl> m_impl;
};

} // namespace kesa::registry

#endif
