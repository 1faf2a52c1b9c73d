#ifndef KESA_REGISTRYD_WATCHDOG_H
#define KESA_REGISTRYD_WATCHDOG_H

#include <kesa/url.h>

#include <memory>

namespace registryd {

class ServiceManager;

/// Tells the service manager that the registry answers, as long as it does: asks it as any client does, over the I/O
/// loop, three times in the manager's `WatchdogSec`, and tells of each answer. A registry that hangs is so ended and
/// started again. Nothing where the manager has not asked for it. Ends with the object, which goes before the registry.
class Watchdog {
public:
    /// `registry` is a locator of this process's. `manager` outlives the runtime.
    Watchdog(const kesa::url& registry, ServiceManager& manager);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    class Impl;
    std::shared_ptr<Impl> m_impl;
};

} // namespace registryd

#endif
