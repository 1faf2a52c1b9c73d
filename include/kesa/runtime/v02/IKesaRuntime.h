#ifndef KESA_RUNTIME_V02_IKESARUNTIME_H
#define KESA_RUNTIME_V02_IKESARUNTIME_H

#include <kesa/runtime/v02/IReasons.h>
#include <kesa/runtime/v02/IRuntimeRegistry.h>
#include <kesa/runtime/v02/KesaConfigAccessor.h>

#include <memory>

namespace kesa::runtime::v02 {

/// The runtime of a process, as `KesaRuntime::getInstance` hands it out.
class KESA_API IKesaRuntime : public IRuntimeRegistry {
public:
    /// Answers on the caller's thread; valid until shutdown.
    virtual KesaConfigAccessor getConfigAccessor() const = 0;
    /// What it knows about why a service is not there; null where a runtime does not say. Any thread.
    virtual std::shared_ptr<const IReasons> reasons() const { return nullptr; }
};

} // namespace kesa::runtime::v02

#endif
