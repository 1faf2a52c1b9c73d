#ifndef KESA_COMMADAPTER_BACKEND_BACKENDFACTORY_H
#define KESA_COMMADAPTER_BACKEND_BACKENDFACTORY_H

#include <kesa/commadapter/IBackend.h>

#include <functional>
#include <memory>
#include <string>

namespace kesa::commadapter {

using BackendFactory =
    std::function<std::unique_ptr<IBackend>(const std::string& process, const std::string& partition)>;

/// Where networks are simulated: replaces what `createBackend` makes; empty restores it. Not while a runtime starts.
void setBackendFactory(BackendFactory factory);

} // namespace kesa::commadapter

#endif
