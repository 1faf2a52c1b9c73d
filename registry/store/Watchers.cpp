#include "store/Watchers.h"

#include <algorithm>
#include <utility>

namespace kesa::registry {

void Watchers::addTracker(StreamId stream, const std::string& path, const Viewer& viewer)
{
    const auto entry = m_trackers.try_emplace(path).first;
    entry->second.emplace(stream, viewer);
    m_trackedPaths.emplace(stream, &entry->first);
}

void Watchers::addQuery(StreamId stream, const Query& query, const PathPatterns& patterns, const Viewer& viewer)
{
    const std::string key = Selection::key(query, viewer);
    const auto [known, isNew] = m_ids.try_emplace(key, m_lastId + 1);
    const AskedId id = known->second;
    if (isNew) {
        m_lastId = id;
        m_asked.emplace(id, Asked{key, Selection(query, patterns, viewer), {}});
        m_patterns.insert(id, query.pattern, patterns);
    }
    Asked& asked = m_asked.at(id);
    const auto watch = m_queries.emplace(stream, std::pair(id, QueryWatch{asked.selection, true, {}})).first;
    asked.queries.emplace(stream, &watch->second.second);
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
        const AskedId id = watch->second.first;
        m_queries.erase(watch);
        eraseQuery(stream, id);
    }
}

void Watchers::eraseQuery(StreamId stream, AskedId id)
{
    const auto asked = m_asked.find(id);
    asked->second.queries.erase(stream);
    if (asked->second.queries.empty()) {
        m_patterns.erase(id, asked->second.selection.query.pattern);
        m_ids.erase(asked->second.key);
        m_asked.erase(asked);
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
    return watch == m_queries.end() ? nullptr : &watch->second.second;
}

void Watchers::concerned(const Record& record, std::vector<StreamId>& streams)
{
    const auto trackers = m_trackers.find(record.path());
    if (trackers != m_trackers.end()) {
        for (const auto& [stream, viewer] : trackers->second) {
            if (isVisible(record.serviceDef, viewer.realm) && sees(viewer.sight, record)) {
                streams.push_back(stream);
            }
        }
    }
    m_matching.clear();
    m_patterns.match(record.path(), m_matching);
    const auto queries = static_cast<std::ptrdiff_t>(streams.size());
    for (const AskedId id : m_matching) {
        const Asked& asked = m_asked.at(id);
        if (!asked.selection.wants(record)) {
            continue;
        }
        for (const auto& [stream, watch] : asked.queries) {
            if (watch->hasPassed(record.path())) {
                streams.push_back(stream);
            }
        }
    }
    std::sort(streams.begin() + queries, streams.end());
}

void Watchers::asking(const std::string& path, std::vector<StreamId>& streams)
{
    const auto trackers = m_trackers.find(path);
    if (trackers != m_trackers.end()) {
        for (const auto& [stream, viewer] : trackers->second) {
            streams.push_back(stream);
        }
    }
    m_matching.clear();
    m_patterns.match(path, m_matching);
    const auto queries = static_cast<std::ptrdiff_t>(streams.size());
    for (const AskedId id : m_matching) {
        for (const auto& [stream, watch] : m_asked.at(id).queries) {
            streams.push_back(stream);
        }
    }
    std::sort(streams.begin() + queries, streams.end());
}

Watchers::Exchanges Watchers::exchanges(const Sights& sights) const
{
    Exchanges exchanges;
    for (const auto& [stream, sight] : sights) {
        const auto tracked = m_trackedPaths.find(stream);
        if (tracked != m_trackedPaths.end()) {
            exchanges.emplace(m_trackers.at(*tracked->second).at(stream).sight, sight);
            continue;
        }
        const auto watch = m_queries.find(stream);
        if (watch != m_queries.end()) {
            exchanges.emplace(m_asked.at(watch->second.first).selection.viewer.sight, sight);
        }
    }
    return exchanges;
}

void Watchers::compare(const Record& record, const Sights& sights, std::vector<StreamId>& lost,
                       std::vector<StreamId>& gained)
{
    const auto compareOne = [&](StreamId stream, bool saw) {
        const auto changed = sights.find(stream);
        if (changed != sights.end() && sees(changed->second, record) != saw) {
            (saw ? lost : gained).push_back(stream);
        }
    };
    const auto trackers = m_trackers.find(record.path());
    if (trackers != m_trackers.end()) {
        for (const auto& [stream, viewer] : trackers->second) {
            if (isVisible(record.serviceDef, viewer.realm)) {
                compareOne(stream, sees(viewer.sight, record));
            }
        }
    }
    m_matching.clear();
    m_patterns.match(record.path(), m_matching);
    for (const AskedId id : m_matching) {
        const Asked& asked = m_asked.at(id);
        if (!asked.selection.asksFor(record)) {
            continue;
        }
        const bool saw = sees(asked.selection.viewer.sight, record);
        for (const auto& [stream, watch] : asked.queries) {
            if (watch->hasPassed(record.path())) {
                compareOne(stream, saw);
            }
        }
    }
}

/// What a query has listed is kept: its first answer goes on where it was.
void Watchers::change(const Sights& sights)
{
    for (const auto& [stream, sight] : sights) {
        const auto tracked = m_trackedPaths.find(stream);
        if (tracked != m_trackedPaths.end()) {
            m_trackers.at(*tracked->second).at(stream).sight = sight;
        }
        const QueryWatch* const watch = findQuery(stream);
        if (watch != nullptr && watch->selection.viewer.sight != sight) {
            const Selection before = watch->selection;
            const QueryWatch listed = *watch;
            erase(stream);
            addQuery(stream, before.query, before.patterns, {before.viewer.realm, sight});
            QueryWatch& changed = *findQuery(stream);
            changed.isListing = listed.isListing;
            changed.listedUpTo = listed.listedUpTo;
        }
    }
}

} // namespace kesa::registry
