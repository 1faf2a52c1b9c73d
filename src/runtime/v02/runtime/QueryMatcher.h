#ifndef KESA_RUNTIME_V02_QUERYMATCHER_H
#define KESA_RUNTIME_V02_QUERYMATCHER_H

#include <kesa/PathPatterns.h>
#include <kesa/serviceregistry/Query.h>
#include <kesa/serviceregistry/ServiceDef.h>

namespace kesa::runtime::v02 {

/// Whether the service is one the query asks for; `patterns` is the query's pattern, compiled. Any thread.
///
/// Values of the query's metadata are compared by their texts. A list of accepted strings accepts any of them; where
/// the service has a list, too, both must hold the same strings in any order. Arrays and dictionaries inside a list
/// match nothing.
KESA_API bool matchesQuery(const serviceregistry::ServiceDef& serviceDef, const serviceregistry::Query& query,
                           const PathPatterns& patterns);

} // namespace kesa::runtime::v02

#endif
