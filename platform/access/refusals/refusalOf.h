#ifndef KESA_ACCESS_REFUSALS_REFUSALOF_H
#define KESA_ACCESS_REFUSALS_REFUSALOF_H

#include <kesa/Response.h>
#include <obr/api.h>

#include <string>

namespace kesa::access {

/// What somebody is answered who may not ask that: 403, with `why` as its reason.
KESA_API Response refusalOf(const std::string& why);

} // namespace kesa::access

#endif
