#ifndef KESA_EASE_REGISTRYCLIENT_H
#define KESA_EASE_REGISTRYCLIENT_H

#include <memory>

namespace kesa {

class Client;

namespace runtime::v02 {
class IRuntimeRegistry;
}

namespace detail {

/// The client of the registry that all who ask through `runtime` share, null: through that of this process. It lives as
/// long as one of them keeps it; who follows through it ends that by himself. Any thread.
std::shared_ptr<Client> registryClient(runtime::v02::IRuntimeRegistry* runtime);

} // namespace detail

} // namespace kesa

#endif
