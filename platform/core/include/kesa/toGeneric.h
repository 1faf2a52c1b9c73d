#ifndef KESA_TOGENERIC_H
#define KESA_TOGENERIC_H

#include <util/config/Value.h>

#include <string>
#include <vector>

namespace kesa {

/// The strings as an array value.
KESA_API util::config::Value toGeneric(const std::vector<std::string>& strings);

} // namespace kesa

#endif
