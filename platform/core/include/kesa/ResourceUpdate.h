#ifndef KESA_RESOURCEUPDATE_H
#define KESA_RESOURCEUPDATE_H

#include <kesa/ResourceUpdateType.h>

#include <utility>

namespace kesa {

/// One change of one element of a watched set.
template <class T>
struct ResourceUpdate {
    ResourceUpdate() = default;
    ResourceUpdate(ResourceUpdateType updateType, T updated) : type(updateType), element(std::move(updated)) {}

    ResourceUpdateType type = ResourceUpdateType::eADDED;
    T element{};
};

} // namespace kesa

#endif
