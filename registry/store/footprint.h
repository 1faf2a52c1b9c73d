#ifndef KESA_REGISTRY_STORE_FOOTPRINT_H
#define KESA_REGISTRY_STORE_FOOTPRINT_H

#include "store/Record.h"

#include <cstddef>

namespace kesa::registry {

// About how many bytes of memory a value takes, with what it points to: for what is short much more than on the wire.
std::size_t footprint(const util::config::Value& value);
std::size_t footprint(const ServiceDef& serviceDef);
std::size_t footprint(const Query& query);

} // namespace kesa::registry

#endif
