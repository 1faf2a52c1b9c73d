#ifndef KESA_EASE_SERVEDLOOPS_H
#define KESA_EASE_SERVEDLOOPS_H

#include <kesa/IKesaApi.h>
#include <kesa/ease/OwnLoop.h>
#include <kesa/url.h>

#include <memory>
#include <string>
#include <vector>

namespace kesa {

namespace runtime::v02 {
class IRuntimeRegistry;
}

namespace detail {

/// How who provides a service object finds where it is served.
struct HasServedLoop {
    HasServedLoop() = default;
    HasServedLoop(const HasServedLoop&) = delete;
    HasServedLoop& operator=(const HasServedLoop&) = delete;
    virtual ~HasServedLoop() = default;
    std::shared_ptr<OwnLoop> servedLoop; ///< never null
};

/// A service that this process provides, from when it is registered until this is destroyed. Any thread.
class ServedHere {
public:
    /// `loop` is null when `on` has no part in it.
    ServedHere(const runtime::v02::IRuntimeRegistry* runtime, std::shared_ptr<const OwnLoop> loop);
    ServedHere(const ServedHere&) = delete;
    ServedHere& operator=(const ServedHere&) = delete;
    ~ServedHere();
    void registered(const std::vector<url>& locators);

    /// Where all of `locators` lead to, if that is one loop; null when it is none, or not known.
    static std::shared_ptr<const OwnLoop> find(const runtime::v02::IRuntimeRegistry* runtime,
                                               const std::vector<url>& locators);

private:
    const runtime::v02::IRuntimeRegistry* const m_runtime;
    const std::shared_ptr<const OwnLoop> m_loop;
};

/// The paths of services that are served on `loop`, at most 16 of them. Any thread.
std::vector<std::string> servedOn(const OwnLoop& loop);

/// Why this call must not wait for an answer of `api`: it is served on the loop that this call runs on. Empty when it
/// may, or when that cannot be known: no call is refused that could be answered.
std::string refusalToWaitFor(const IKesaApi& api);

} // namespace detail

} // namespace kesa

#endif
