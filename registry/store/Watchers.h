#ifndef KESA_REGISTRY_STORE_WATCHERS_H
#define KESA_REGISTRY_STORE_WATCHERS_H

#include "store/Selection.h"
#include "store/Viewer.h"
#include <globs/PatternTrie.h>

#include <kesa/PathPatterns.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kesa::registry {

/// One request: counts up, never 0.
using StreamId = std::uint64_t;

/// A query, and how far its first answer has come. The first answer walks the records in the order of their paths, as
/// they are when it reaches them. A change of what it has passed is told at once, in the global order, like any other;
/// a change of what lies before it is not told, it will be met. So nothing is missed, nothing is repeated, nothing
/// waits, and no record is told of once it is gone.
struct QueryWatch {
    const Selection& selection;
    bool isListing = true;  ///< the first answer is not complete
    std::string listedUpTo; ///< the last path it has passed; empty before the first

    bool hasPassed(const std::string& path) const noexcept { return !isListing || path <= listedUpTo; }
};

/// Who wants to be told of which services. Trackers are found by path, queries by their pattern's segments: what a
/// change costs depends on its path's segments, on how many different things are asked for there, and on those who are
/// told, not on how many others there are.
class Watchers {
public:
    void addTracker(StreamId stream, const std::string& path, const Viewer& viewer);
    void addQuery(StreamId stream, const Query& query, const PathPatterns& patterns, const Viewer& viewer);
    /// Streams it does not know are ignored.
    void erase(StreamId stream);
    /// Null when there is none.
    QueryWatch* findQuery(StreamId stream);
    /// Appends who is to be told of a change of `record`: trackings, then queries, each in the order they came.
    void concerned(const Record& record, std::vector<StreamId>& streams);
    /// Appends who asks for the path: trackings, then queries whose pattern matches it, in the order they came.
    void asking(const std::string& path, std::vector<StreamId>& streams);

    using Sights = std::unordered_map<StreamId, SightPtr>;
    /// Which sights these would take the place of, and by which: each pair once.
    using Exchanges = std::set<std::pair<SightPtr, SightPtr>>;
    Exchanges exchanges(const Sights& sights) const;
    /// Appends whom `record` would be lost to, and who would gain it, if these had those sights.
    void compare(const Record& record, const Sights& sights, std::vector<StreamId>& lost,
                 std::vector<StreamId>& gained);
    void change(const Sights& sights);

private:
    using Trackers = std::map<StreamId, Viewer>;
    struct Asked {
        std::string key;
        Selection selection;
        std::map<StreamId, QueryWatch*> queries; ///< that ask for it; never empty
    };
    using AskedId = access::PatternTrie::Id;

    void eraseTracker(std::unordered_map<StreamId, const std::string*>::iterator tracked);
    void eraseQuery(StreamId stream, AskedId id);

    // What peers choose is in no table of hashes: they could choose many of one.
    std::map<std::string, Trackers> m_trackers;
    std::unordered_map<StreamId, const std::string*> m_trackedPaths; ///< into the keys of `m_trackers`
    std::map<std::string, AskedId> m_ids;                            ///< by the key of the selection
    std::unordered_map<AskedId, Asked> m_asked;
    std::unordered_map<StreamId, std::pair<AskedId, QueryWatch>> m_queries; ///< refers into `m_asked`
    AskedId m_lastId = 0;
    access::PatternTrie m_patterns;
    std::vector<AskedId> m_matching; ///< only inside `concerned` and `asking`
};

} // namespace kesa::registry

#endif
