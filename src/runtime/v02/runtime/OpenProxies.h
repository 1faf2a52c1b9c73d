#ifndef KESA_RUNTIME_V02_OPENPROXIES_H
#define KESA_RUNTIME_V02_OPENPROXIES_H

#include <kesa/commadapter/KesaClientApi.h>
#include <kesa/url.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace kesa::runtime::v02 {

/// Which locators a proxy is open for, as far as threads other than the executor may look: they may ask why one is not
/// connected. Any thread.
class OpenProxies {
public:
    void add(const url& locator, std::shared_ptr<const IKesaApi> owner, const commadapter::KesaClientApi& client);
    void remove(const url& locator);

    /// As of `KesaClientApi`; empty when there is none.
    std::string obstacle(const url& locator) const;

private:
    mutable std::mutex m_mutex; ///< the executor changes the table, while any thread may ask
    std::map<std::string, std::weak_ptr<const commadapter::KesaClientApi>> m_clients;
};

} // namespace kesa::runtime::v02

#endif
