#ifndef KESA_EASE_FOUND_H
#define KESA_EASE_FOUND_H

#include <kesa/IKesaApi.h>
#include <kesa/optional.h>
#include <kesa/runtime/v02/ResolveResult.h>

#include <memory>

namespace kesa {

/// What `trackAndResolveService` tells of its path: a service with its client object, or no value when it is gone.
using FoundByPath = optional<runtime::v02::ResolveResult<std::shared_ptr<IKesaApi>>>;
/// What `trackAndResolveServices` tells of each match: a service, with its client object unless it is gone.
using FoundByQuery = runtime::v02::ResolveResult<optional<std::shared_ptr<IKesaApi>>>;

} // namespace kesa

#endif
