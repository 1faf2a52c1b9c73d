#include "store/Watchers.h"

#include <algorithm>
#include <kesa/serviceregistry/matchesQuery.h>
#include <utility>

namespace kesa::registry {

namespace {

const PathPatterns& anyPath()
{
    static const PathPatterns& patterns = *new PathPatterns(*PathPatterns::createFromGlob("**"));
    return patterns;
}

} // namespace

bool QueryWatch::wants(const Record& record) const
{
    return isVisible(record.serviceDef, realm) && serviceregistry::matchesQuery(record.serviceDef, query, anyPath());
}

void Watchers::addTracker(StreamId stream, const std::string& path, const Realm& realm)
{
    const auto entry = m_trackers.try_emplace(path).first;
    entry->second.emplace(stream, realm);
    m_trackedPaths.emplace(stream, &entry->first);
}

void Watchers::addQuery(StreamId stream, const Query& query, const PathPatterns& patterns, const Realm& realm)
{
    const SplitGlob split(query.pattern);
    m_queries.emplace(stream, QueryWatch{query, patterns, realm, split.pathPrefix(), split.isPath(), true, {}});
    m_patterns.insert(stream, query.pattern, patterns);
}

void Watchers::erase(StreamId stream)
{
    const auto tracked = m_trackedPaths.find(stream);
    if (tracked != m_trackedPaths.end()) {
        eraseTracker(tracked);
        return;
    }
    const auto watch = m_queries.find(stream);
    if (watch != m_queries.end()) {
        m_patterns.erase(stream, watch->second.query.pattern);
        m_queries.erase(watch);
    }
}

void Watchers::eraseTracker(std::unordered_map<StreamId, const std::string*>::iterator tracked)
{
    const auto entry = m_trackers.find(*tracked->second);
    entry->second.erase(tracked->first);
    if (entry->second.empty()) {
        m_trackers.erase(entry);
    }
    m_trackedPaths.erase(tracked);
}

QueryWatch* Watchers::findQuery(StreamId stream)
{
    const auto watch = m_queries.find(stream);
    return watch == m_queries.end() ? nullptr : &watch->second;
}

void Watchers::concerned(const Record& record, std::vector<StreamId>& streams)
{
    const auto trackers = m_trackers.find(record.path());
    if (trackers != m_trackers.end()) {
        for (const auto& [stream, realm] : trackers->second) {
            if (isVisible(record.serviceDef, realm)) {
                streams.push_back(stream);
            }
        }
    }
    m_matching.clear();
    m_patterns.match(record.path(), m_matching);
    std::sort(m_matching.begin(), m_matching.end());
    for (const StreamId stream : m_matching) {
        const QueryWatch& watch = m_queries.at(stream);
        if (watch.hasPassed(record.path()) && watch.wants(record)) {
            streams.push_back(stream);
        }
    }
}

void Watchers::asking(const std::string& path, std::vector<StreamId>& streams)
{
    const auto trackers = m_trackers.find(path);
    if (trackers != m_trackers.end()) {
        for (const auto& [stream, realm] : trackers->second) {
            streams.push_back(stream);
        }
    }
    m_matching.clear();
    m_patterns.match(path, m_matching);
    std::sort(m_matching.begin(), m_matching.end());
    streams.insert(streams.end(), m_matching.begin(), m_matching.end());
}

} // namespace kesa::registry
