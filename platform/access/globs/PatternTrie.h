#ifndef KESA_ACCESS_GLOBS_PATTERNTRIE_H
#define KESA_ACCESS_GLOBS_PATTERNTRIE_H

#include "globs/SegmentGlob.h"
#include "globs/SplitGlob.h"

#include <kesa/PathPatterns.h>
#include <obr/api.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::access {

/// Which of many globs match a path. Globs that begin alike share the nodes of their segments, so a path meets only
/// those that agree with it so far. All nodes that a part of the path can lead to are followed at once, each once per
/// segment: "**" never backtracks. What globs have in common is looked at once, however many they are.
class KESA_API PatternTrie {
public:
    using Id = std::uint64_t;

    /// `patterns` is `glob`, compiled.
    void insert(Id id, const std::string& glob, const PathPatterns& patterns);
    /// With the glob it was inserted with.
    void erase(Id id, const std::string& glob);
    /// Appends the ids of all globs that match the canonical `path`, in no order. Answers how many steps that took,
    /// each of a few nanoseconds: for any path of a service not more than the `cost` of all globs.
    std::size_t match(const std::string& path, std::vector<Id>& ids);

    /// The most steps that a glob adds to what it takes to match the path of a service, whatever that is.
    static std::size_t cost(const std::string& glob, const PathPatterns& patterns);
    /// About how many bytes a glob takes.
    static std::size_t memory(const std::string& glob, const PathPatterns& patterns);

    bool isEmpty() const noexcept { return m_root.isEmpty(); }

private:
    struct Node;
    struct GlobChild {
        explicit GlobChild(const std::string& segment) : glob(segment), node(std::make_unique<Node>()) {}
        SegmentGlob glob;
        std::unique_ptr<Node> node;
    };
    /// A glob that goes on in a way that no segment stands for.
    struct Rest {
        PathPatterns patterns; ///< of the whole glob
        std::set<Id> ids;
    };
    struct Node {
        std::map<std::string, std::unique_ptr<Node>, std::less<>> names;
        /// By their segments, below the characters these begin with: a segment looks only at those it begins with, too.
        std::map<std::string, std::map<std::string, GlobChild>, std::less<>> globs;
        std::unique_ptr<Node> any;         ///< "*"
        std::unique_ptr<Node> anySegments; ///< "**"
        std::set<Id> ends;                 ///< globs that end here
        std::set<Id> tails;                ///< globs that end here with "**": they match whatever follows
        std::map<std::string, Rest> rests; ///< by their globs
        std::uint64_t entered = 0;         ///< the step of a match that came here last
        std::uint64_t restsTested = 0;     ///< the match that tested `rests` and took `tails` last
        bool isAnySegments = false;

        bool isEmpty() const noexcept;
        /// A segment more can lead from here.
        bool leadsOn() const noexcept { return isAnySegments || any || !names.empty() || !globs.empty(); }
    };
    /// The way to the node of a glob, and what it is there.
    struct Place;

    static Node& child(Node& node, const std::string& segment);
    static bool eraseBelow(Node& node, const Place& place, std::size_t depth, Id id);
    static void eraseGlob(Node& node, const Place& place, std::size_t depth, Id id);
    void enter(Node& node, std::vector<Node*>& nodes);
    void follow(Node& node, std::string_view segment, std::vector<Node*>& nodes);
    void followGlobs(Node& node, std::string_view segment, std::vector<Node*>& nodes);
    void takeRests(Node& node, const std::string& path, std::vector<Id>& ids);

    Node m_root;
    std::uint64_t m_segments = 0; ///< of all matches so far
    std::uint64_t m_matches = 0;  ///< so far
    std::size_t m_steps = 0;      ///< of this match
};

} // namespace kesa::access

#endif
