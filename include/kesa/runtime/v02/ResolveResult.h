#ifndef KESA_RUNTIME_V02_RESOLVERESULT_H
#define KESA_RUNTIME_V02_RESOLVERESULT_H

#include <kesa/serviceregistry/ServiceDef.h>

#include <utility>

namespace kesa::runtime::v02 {

/// A service with the client object it was resolved to.
template <class T>
class KESA_API ResolveResult {
public:
    ResolveResult() = default;
    ResolveResult(serviceregistry::ServiceDef resolved, T client)
        : serviceDef(std::move(resolved)), api(std::move(client))
    {}
    ResolveResult(const ResolveResult&) = default;
    ResolveResult(ResolveResult&&) noexcept = default;
    ResolveResult& operator=(const ResolveResult&) = default;
    ResolveResult& operator=(ResolveResult&&) noexcept = default;
    virtual ~ResolveResult() = default;

    serviceregistry::ServiceDef serviceDef;
    T api{};
};

} // namespace kesa::runtime::v02

#endif
