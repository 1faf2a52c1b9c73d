#ifndef KESA_REGISTRY_STORE_NEARESTSERVICE_H
#define KESA_REGISTRY_STORE_NEARESTSERVICE_H

#include "store/Store.h"

#include <cstddef>
#include <string>

namespace kesa::registry {

/// Of the paths that are there, the one that a mistyped path may have meant: first of those with as many segments the
/// one whose segments differ least; without one, any near one that begins alike. Empty when none is near. `looks`: so
/// many names are looked at, at most. What is out of sight is passed over as if it was not there.
std::string nearestService(const Store& store, const std::string& path, std::size_t looks, const SightPtr& sight);

} // namespace kesa::registry

#endif
