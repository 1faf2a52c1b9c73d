#ifndef KESA_REGISTRY_STORE_SELECTION_H
#define KESA_REGISTRY_STORE_SELECTION_H

#include "store/Viewer.h"

#include <kesa/PathPatterns.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace kesa::registry {

/// What a query asks for. All queries that ask for the same share one: a change is held against it once.
struct Selection {
    /// `compiled` is the query's pattern.
    Selection(const Query& asked, const PathPatterns& compiled, const Viewer& watchers);

    Query query;
    PathPatterns patterns;
    Viewer viewer;
    std::string pathPrefix; ///< of all that can match
    bool isPath;            ///< only the path prefix can match

    /// Whether there may be a match at `path`, or behind it.
    bool covers(std::string_view path) const noexcept
    {
        return isPath ? path == pathPrefix : path.substr(0, pathPrefix.size()) == pathPrefix;
    }
    /// Of a path that the patterns match.
    bool wants(const Record& record) const { return asksFor(record) && sees(viewer.sight, record); }
    /// The same, whether or not he may see it.
    bool asksFor(const Record& record) const;

    /// The same text for the same selection.
    static std::string key(const Query& query, const Viewer& viewer);
    /// The most steps (see `PatternTrie`) that it adds to a change of one service, whatever its record.
    std::size_t cost() const;
    /// The most that `wants` takes of them.
    static std::size_t costOfWants(const Query& query);
    /// About how many bytes it holds.
    std::size_t memory() const;
};

} // namespace kesa::registry

#endif
