// A search through the tree of the segments, the nearest folder first. In each folder the very segment that was written
// is tried before its siblings are looked at: so the part of a path that has no typo costs nothing, whatever lies
// beside it.
#include "store/nearestService.h"

#include <util/nearestName.h>

#include <algorithm>
#include <queue>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace kesa::registry {
namespace {

/// What is there of the wanted path up to some segment, or something near to that.
struct Place {
    std::size_t distance; ///< so far
    std::size_t number;   ///< of two at the same distance the earlier one goes on
    std::size_t depth;    ///< segments
    std::string path;
    bool isFolder; ///< its children are to be looked at, not itself
};

struct IsLater {
    bool operator()(const Place& one, const Place& other) const
    {
        return std::tie(one.distance, one.number) > std::tie(other.distance, other.number);
    }
};

bool isSeen(const Store& store, const std::string& path, const SightPtr& sight)
{
    const Store::Held* const held = store.find(path);
    return held != nullptr && sees(sight, *held->record);
}

class Search {
public:
    Search(const Store& store, const std::string& path, std::size_t& looks, const SightPtr& sight)
        : m_store(store), m_looks(looks), m_sight(sight)
    {
        for (std::size_t begin = 1; begin <= path.size();) {
            const std::size_t end = std::min(path.find('/', begin), path.size());
            m_segments.push_back(std::string_view(path).substr(begin, end - begin));
            begin = end + 1;
        }
        m_far = util::leastFarDistance(path);
    }

    std::string run()
    {
        add(0, 0, "", false);
        while (!m_places.empty()) {
            const Place place = m_places.top();
            m_places.pop();
            if (place.depth == m_segments.size() && isSeen(m_store, place.path, m_sight)) {
                return place.path;
            }
            if (place.depth < m_segments.size() && m_looks > 0) {
                --m_looks;
                goOn(place);
            }
        }
        return {};
    }

private:
    void add(std::size_t distance, std::size_t depth, std::string path, bool isFolder)
    {
        m_places.push({distance, m_number++, depth, std::move(path), isFolder});
    }

    void goOn(const Place& place)
    {
        if (place.isFolder) {
            addSiblings(place);
        } else {
            add(place.distance, place.depth + 1, place.path + '/' + std::string(m_segments[place.depth]), false);
            add(place.distance, place.depth, place.path, true);
        }
    }

    void addSiblings(const Place& folder)
    {
        const std::string_view wanted = m_segments[folder.depth];
        if (wanted.size() > util::LONGEST_NEAR_NAME) {
            return;
        }
        const std::string prefix = folder.path + '/';
        std::vector<std::string> names;
        m_store.children(prefix + std::string(wanted.substr(0, 1)), m_looks, names); // most likely there
        m_store.children(prefix, m_looks - names.size(), names);
        m_looks -= names.size();
        for (const std::string& name : names) {
            const std::size_t longest = std::max(name.size(), wanted.size());
            const std::size_t distance =
                name.size() > util::LONGEST_NEAR_NAME ? longest : util::nameDistance(wanted, name);
            if (name != wanted && distance < longest && folder.distance + distance < m_far) {
                add(folder.distance + distance, folder.depth + 1, folder.path + '/' + name, false);
            }
        }
    }

    const Store& m_store;
    std::size_t& m_looks;
    const SightPtr& m_sight;
    std::vector<std::string_view> m_segments;
    std::size_t m_far;
    std::size_t m_number = 0;
    std::priority_queue<Place, std::vector<Place>, IsLater> m_places;
};

} // namespace

std::string nearestService(const Store& store, const std::string& path, std::size_t looks, const SightPtr& sight)
{
    if (std::string found = Search(store, path, looks, sight).run(); !found.empty()) {
        return found;
    }
    for (std::size_t size = path.size() / 2; size > 0 && looks > 0; size /= 2) {
        std::vector<std::string_view> known;
        store.below(path.substr(0, size), looks, known);
        looks -= known.size();
        std::erase_if(known, [&](std::string_view each) { return !isSeen(store, std::string(each), sight); });
        const std::string_view nearest = util::nearestName(path, known);
        if (!nearest.empty()) {
            return std::string(nearest);
        }
    }
    return {};
}

} // namespace kesa::registry
