#ifndef KESA_REGISTRY_STORE_PATTERNTRIE_H
#define KESA_REGISTRY_STORE_PATTERNTRIE_H

#include "store/SplitGlob.h"

#include <kesa/PathPatterns.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kesa::registry {

/// Which of many globs match a path. Globs that begin alike share the nodes of their segments, so a path meets only
/// those that agree with it so far. All nodes that a part of the path can lead to are followed at once, each once per
/// segment: "**" never backtracks.
class PatternTrie {
public:
    using Id = std::uint64_t;

    /// `patterns` is `glob`, compiled.
    void insert(Id id, const std::string& glob, const PathPatterns& patterns);
    /// With the glob it was inserted with.
    void erase(Id id, const std::string& glob);
    /// Appends the ids of all globs that match the canonical `path`, in no order.
    void match(const std::string& path, std::vector<Id>& ids);

    bool isEmpty() const noexcept { return m_root.isEmpty(); }

private:
    struct Node;
    struct GlobChild {
        std::string glob;
        PathPatterns patterns;
        std::unique_ptr<Node> node;
    };
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>()(text); }
    };
    struct Node {
        std::unordered_map<std::string, std::unique_ptr<Node>, Hash, std::equal_to<>> names;
        /// By the characters they begin with: a segment looks at those it begins with, too.
        std::map<std::string, std::vector<GlobChild>, std::less<>> globs;
        std::unique_ptr<Node> any;         ///< "*"
        std::unique_ptr<Node> anySegments; ///< "**"
        std::set<Id> ends;                 ///< globs that end here
        std::map<Id, PathPatterns> rests;  ///< globs that go on in a way that no segment stands for
        std::uint64_t entered = 0;         ///< the step of a match that came here last
        std::uint64_t restsTested = 0;     ///< the match that tested `rests` last
        bool isAnySegments = false;

        bool isEmpty() const noexcept;
    };

    static Node& child(Node& node, const std::string& segment);
    static bool eraseBelow(Node& node, std::span<const std::string> segments, Id id);
    static void eraseGlob(Node& node, std::span<const std::string> segments, Id id);
    void enter(Node& node, std::vector<Node*>& nodes);
    void follow(Node& node, std::string_view segment, std::vector<Node*>& nodes);
    void testRests(Node& node, const std::string& path, std::vector<Id>& ids) const;

    Node m_root;
    std::uint64_t m_steps = 0;   ///< of all matches so far
    std::uint64_t m_matches = 0; ///< so far
};

} // namespace kesa::registry

#endif
