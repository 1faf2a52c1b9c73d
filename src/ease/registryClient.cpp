#include "registryClient.h"

#include <kesa/ease/use.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>

#include <map>
#include <mutex>

namespace kesa::detail {

using runtime::v02::IRuntimeRegistry;

namespace {

/// A client has ended when it has destroyed its handler, with which the mark goes. It ends with its runtime, after
/// which another may be at the same place.
struct Shared {
    std::weak_ptr<Client> client;
    std::weak_ptr<int> mark;
};

using Clients = std::map<IRuntimeRegistry*, Shared>;

/// Null: there is none. What is found is not destroyed under the caller's lock, since it is returned.
std::shared_ptr<Client> find(const Clients& all, IRuntimeRegistry* runtime)
{
    const auto found = all.find(runtime);
    return found == all.end() || found->second.mark.expired() ? nullptr : found->second.client.lock();
}

} // namespace

std::shared_ptr<Client> registryClient(IRuntimeRegistry* runtime)
{
    static std::mutex& mutex = *new std::mutex;
    static Clients& all = *new Clients;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (auto known = find(all, runtime)) {
            return known;
        }
    }
    // Without the lock, since a runtime that ends keeps who asks for it waiting. Two at once make two, and one stays.
    constexpr const char* PATH = serviceregistry::ServiceRegistryPex::SERVICE_PATH;
    std::shared_ptr<Client> made = runtime == nullptr ? use(PATH) : use(*runtime, PATH);
    made->traceNoFollowing(); // what it follows is told anew, so nothing is missing
    auto mark = std::make_shared<int>();
    const std::weak_ptr<int> weak = mark;
    made->onChange([kept = std::move(mark)](bool) { static_cast<void>(kept); });
    const std::lock_guard<std::mutex> lock(mutex);
    if (auto known = find(all, runtime)) {
        return known;
    }
    std::erase_if(all, [](const auto& other) { return other.second.mark.expired(); });
    all[runtime] = {made, weak};
    return made;
}

} // namespace kesa::detail
