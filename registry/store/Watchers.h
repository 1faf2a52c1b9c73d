#ifndef KESA_REGISTRY_STORE_WATCHERS_H
#define KESA_REGISTRY_STORE_WATCHERS_H

#include "store/PatternTrie.h"
#include "store/Record.h"

#include <kesa/PathPatterns.h>

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace kesa::registry {

/// One request: counts up, never 0.
using StreamId = std::uint64_t;

/// A query, and how far its first answer has come. The first answer walks the records in the order of their paths, as
/// they are when it reaches them. A change of what it has passed is told at once, in the global order, like any other;
/// a change of what lies before it is not told, it will be met. So nothing is missed, nothing is repeated, nothing
/// waits, and no record is told of once it is gone.
struct QueryWatch {
    Query query;
    PathPatterns patterns;
    Realm realm;
    std::string pathPrefix; ///< of all that can match
    bool isPath;            ///< only the path prefix can match
    bool isListing;         ///< the first answer is not complete
    std::string listedUpTo; ///< the last path it has passed; empty before the first

    /// Whether the walk may find a match at `path`, or behind it.
    bool covers(std::string_view path) const noexcept
    {
        return isPath ? path == pathPrefix : path.substr(0, pathPrefix.size()) == pathPrefix;
    }
    bool hasPassed(const std::string& path) const noexcept { return !isListing || path <= listedUpTo; }
    /// Of a path that the patterns match.
    bool wants(const Record& record) const;
};

/// Who wants to be told of which services. Trackers are found by path, queries by their pattern's segments: what a
/// change costs depends on its path's segments and on those who are told, not on how many others there are.
class Watchers {
public:
    void addTracker(StreamId stream, const std::string& path, const Realm& realm);
    void addQuery(StreamId stream, const Query& query, const PathPatterns& patterns, const Realm& realm);
    /// Streams it does not know are ignored.
    void erase(StreamId stream);
    /// Null when there is none.
    QueryWatch* findQuery(StreamId stream);
    /// Appends who is to be told of a change of `record`: trackings, then queries, each in the order they came.
    void concerned(const Record& record, std::vector<StreamId>& streams);
    /// Appends who asks for the path: trackings, then queries whose pattern matches it, in the order they came.
    void asking(const std::string& path, std::vector<StreamId>& streams);

private:
    using Trackers = std::map<StreamId, Realm>;

    void eraseTracker(std::unordered_map<StreamId, const std::string*>::iterator tracked);

    std::unordered_map<std::string, Trackers> m_trackers;
    std::unordered_map<StreamId, const std::string*> m_trackedPaths; ///< into the keys of `m_trackers`
    std::unordered_map<StreamId, QueryWatch> m_queries;
    PatternTrie m_patterns;
    std::vector<StreamId> m_matching; ///< only inside `concerned` and `asking`
};

} // namespace kesa::registry

#endif
