#ifndef KESA_SERVICEREGISTRY_MATCHESQUERY_H
#define KESA_SERVICEREGISTRY_MATCHESQUERY_H

#include <kesa/PathPatterns.h>
#include <kesa/serviceregistry/Query.h>
#include <kesa/serviceregistry/ServiceDef.h>

namespace kesa::serviceregistry {

/// Whether the service is one the query asks for; `patterns` is the query's pattern, compiled. Any thread.
///
/// Values of the query's metadata are compared by their texts. A list of accepted strings accepts any of them; where
/// the service has a list, too, both must hold the same strings in any order. Arrays and dictionaries inside a list
/// match nothing.
KESA_API bool matchesQuery(const ServiceDef& serviceDef, const Query& query, const PathPatterns& patterns);

} // namespace kesa::serviceregistry

#endif
