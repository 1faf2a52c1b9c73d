#ifndef KESA_EASE_ROUTETREE_H
#define KESA_EASE_ROUTETREE_H

#include "Route.h"

#include <kesa/ease/RouteInfo.h>
#include <kesa/ease/routeFunction.h>

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kesa {

/// Which of many routes match a path. Routes that begin alike share the nodes of their segments, so a path meets only
/// those that agree with it so far, however many there are.
class RouteTree {
public:
    static constexpr std::size_t COMMANDS = 4;

    struct Served {
        Route route;
        RouteFunction function;
        RouteInfo info;
    };
    /// What is served at one place, by id of the command. Routes that differ in the names of parameters alone share it.
    using Place = std::array<std::unique_ptr<Served>, COMMANDS>;
    using Places = std::multimap<std::string, Place>;

    RouteTree();

    /// Of a route without fault; made when there is none.
    Place& placeOf(const Route& route);

    /// Calls `see` with the places that `path` matches, the most particular first, until it answers true. `path` is
    /// without outer '/'.
    template <class See>
    void match(std::string_view path, See see) const;

    /// By rank; among equals the last made comes first.
    const Places& places() const noexcept { return m_places; }

private:
    using Number = std::uint32_t;

    /// By text. A few are looked through, which is faster than to compute a hash.
    class Children {
    public:
        /// 0 when there is none.
        Number find(std::string_view text) const;
        void add(const std::string& text, Number node);

    private:
        static constexpr std::size_t MOST_FEW = 16;
        struct Hash {
            using is_transparent = void;
            std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>()(text); }
        };

        std::vector<std::pair<std::string, Number>> m_few;
        std::unordered_map<std::string, Number, Hash, std::equal_to<>> m_many; ///< all, once there are more
    };
    struct Node {
        Children texts;
        Number parameter = 0; ///< 0: none
        Number rest = 0;      ///< likewise
        bool isRest = false;
        Place* place = nullptr; ///< of routes that end here
    };
    struct Fork {
        Number node;
        std::string_view path; ///< that is left
    };

    Number childOf(Number parent, const Route::Segment& segment);

    std::vector<Node> m_nodes; ///< by number
    Places m_places;
};

inline RouteTree::Number RouteTree::Children::find(std::string_view text) const
{
    if (m_many.empty()) {
        for (const auto& [known, node] : m_few) {
            if (known == text) {
                return node;
            }
        }
        return 0;
    }
    const auto found = m_many.find(text);
    return found == m_many.end() ? 0 : found->second;
}

template <class See>
void RouteTree::match(std::string_view path, See see) const
{
    std::vector<Fork> forks; // the next to be tried when what is more particular has served nobody is the last
    Number at = 0;
    while (true) {
        const Node& node = m_nodes[at];
        if ((path.empty() || node.isRest) && node.place != nullptr && see(*node.place)) {
            return;
        }
        Fork next{node.rest, path};
        if (!path.empty() && !node.isRest) {
            const std::string_view segment = takeSegment(path);
            for (const Number child : {node.parameter, node.texts.find(segment)}) {
                if (child != 0) {
                    if (next.node != 0) {
                        forks.push_back(next);
                    }
                    next = {child, path};
                }
            }
        }
        if (next.node == 0) {
            if (forks.empty()) {
                return;
            }
            next = forks.back();
            forks.pop_back();
        }
        at = next.node;
        path = next.path;
    }
}

} // namespace kesa

#endif
