#ifndef KESA_REGISTRY_POLICY_SYSTEMACCOUNTS_H
#define KESA_REGISTRY_POLICY_SYSTEMACCOUNTS_H

#include "policy/Rule.h"

namespace kesa::registry {

/// Those of this machine. Lives until the process ends.
const IAccounts& systemAccounts();

} // namespace kesa::registry

#endif
