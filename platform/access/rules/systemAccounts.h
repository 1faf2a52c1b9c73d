#ifndef KESA_ACCESS_RULES_SYSTEMACCOUNTS_H
#define KESA_ACCESS_RULES_SYSTEMACCOUNTS_H

#include "rules/IAccounts.h"

#include <obr/api.h>

namespace kesa::access {

/// Those of this machine. Lives until the process ends.
KESA_API const IAccounts& systemAccounts();

} // namespace kesa::access

#endif
