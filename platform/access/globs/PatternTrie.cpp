#include "globs/PatternTrie.h"

#include <kesa/Path.h>

#include <algorithm>
#include <utility>

namespace kesa::access {

namespace {

// Against a step of a program, as measured: looking at a node, for which the segment is hashed, and at one of the
// beginnings of its globs.
constexpr std::size_t NODE_STEPS = 12;
constexpr std::size_t HASHED_BYTES_PER_STEP = 16;
constexpr std::size_t LOOK_STEPS = 20;

constexpr std::size_t NODE_BYTES = 400; ///< with what leads to it

} // namespace

bool PatternTrie::Node::isEmpty() const noexcept
{
    return names.empty() && globs.empty() && !any && !anySegments && ends.empty() && tails.empty() && rests.empty();
}

struct PatternTrie::Place {
    explicit Place(const std::string& text) : glob(text)
    {
        SplitGlob split(glob);
        segments = std::move(split.segments);
        hasRest = split.hasRest;
        isTail = !hasRest && !segments.empty() && segments.back() == "**";
        if (isTail) {
            segments.pop_back();
        }
    }

    const std::string& glob;
    std::vector<std::string> segments;
    bool hasRest = false;
    bool isTail = false;
};

PatternTrie::Node& PatternTrie::child(Node& node, const std::string& segment)
{
    if (segment == "*" || segment == "**") {
        auto& wildcard = segment == "*" ? node.any : node.anySegments;
        if (!wildcard) {
            wildcard = std::make_unique<Node>();
            wildcard->isAnySegments = segment == "**";
        }
        return *wildcard;
    }
    if (SplitGlob::isName(segment)) {
        auto& named = node.names[segment];
        if (!named) {
            named = std::make_unique<Node>();
        }
        return *named;
    }
    auto& globs = node.globs[std::string(SplitGlob::literalPrefix(segment))];
    return *globs.try_emplace(segment, segment).first->second.node;
}

void PatternTrie::insert(Id id, const std::string& glob, const PathPatterns& patterns)
{
    const Place place(glob);
    Node* node = &m_root;
    for (const std::string& segment : place.segments) {
        node = &child(*node, segment);
    }
    if (place.hasRest) {
        node->rests.try_emplace(glob, Rest{patterns, {}}).first->second.ids.insert(id);
    } else {
        (place.isTail ? node->tails : node->ends).insert(id);
    }
}

void PatternTrie::erase(Id id, const std::string& glob)
{
    eraseBelow(m_root, Place(glob), 0, id);
}

/// True when nothing is left of `node`.
bool PatternTrie::eraseBelow(Node& node, const Place& place, std::size_t depth, Id id)
{
    if (depth == place.segments.size()) {
        if (!place.hasRest) {
            (place.isTail ? node.tails : node.ends).erase(id);
        }
        const auto rest = node.rests.find(place.glob);
        if (rest != node.rests.end() && rest->second.ids.erase(id) > 0 && rest->second.ids.empty()) {
            node.rests.erase(rest);
        }
        return node.isEmpty();
    }
    const std::string& segment = place.segments[depth];
    if (segment == "*" || segment == "**") {
        auto& wildcard = segment == "*" ? node.any : node.anySegments;
        if (wildcard && eraseBelow(*wildcard, place, depth + 1, id)) {
            wildcard.reset();
        }
    } else if (SplitGlob::isName(segment)) {
        const auto named = node.names.find(segment);
        if (named != node.names.end() && eraseBelow(*named->second, place, depth + 1, id)) {
            node.names.erase(named);
        }
    } else {
        eraseGlob(node, place, depth, id);
    }
    return node.isEmpty();
}

void PatternTrie::eraseGlob(Node& node, const Place& place, std::size_t depth, Id id)
{
    const std::string& segment = place.segments[depth];
    const auto globs = node.globs.find(SplitGlob::literalPrefix(segment));
    if (globs == node.globs.end()) {
        return;
    }
    const auto found = globs->second.find(segment);
    if (found != globs->second.end() && eraseBelow(*found->second.node, place, depth + 1, id)) {
        globs->second.erase(found);
    }
    if (globs->second.empty()) {
        node.globs.erase(globs);
    }
}

std::size_t PatternTrie::match(const std::string& path, std::vector<Id>& ids)
{
    ++m_matches;
    m_steps = 0;
    std::vector<Node*> nodes;
    std::vector<Node*> next;
    ++m_segments;
    enter(m_root, nodes);
    std::string_view rest = std::string_view(path).substr(1);
    while (true) {
        for (Node* const node : nodes) {
            takeRests(*node, path, ids);
        }
        if (rest.empty() || nodes.empty()) {
            break;
        }
        const std::string_view segment = rest.substr(0, rest.find('/'));
        rest.remove_prefix(std::min(segment.size() + 1, rest.size()));
        ++m_segments;
        next.clear();
        for (Node* const node : nodes) {
            follow(*node, segment, next);
        }
        std::swap(nodes, next);
    }
    for (const Node* const node : nodes) {
        ids.insert(ids.end(), node->ends.begin(), node->ends.end());
    }
    return m_steps;
}

/// "**" stands for no segment, too.
void PatternTrie::enter(Node& node, std::vector<Node*>& nodes)
{
    if (node.entered == m_segments) {
        return;
    }
    node.entered = m_segments;
    nodes.push_back(&node);
    if (node.anySegments) {
        enter(*node.anySegments, nodes);
    }
}

void PatternTrie::follow(Node& node, std::string_view segment, std::vector<Node*>& nodes)
{
    m_steps += NODE_STEPS;
    if (!node.leadsOn()) {
        return;
    }
    m_steps += segment.size() / HASHED_BYTES_PER_STEP;
    if (node.isAnySegments) {
        enter(node, nodes);
    }
    if (node.any) {
        enter(*node.any, nodes);
    }
    const auto named = node.names.find(segment);
    if (named != node.names.end()) {
        enter(*named->second, nodes);
    }
    followGlobs(node, segment, nodes);
}

/// Looks at the beginnings of globs that the segment begins with, the longest first. One that is next to it in the
/// order, and none, says what the others have in common with the segment at most. So each takes one look.
void PatternTrie::followGlobs(Node& node, std::string_view segment, std::vector<Node*>& nodes)
{
    auto at = node.globs.upper_bound(segment);
    while (at != node.globs.begin()) {
        --at;
        m_steps += LOOK_STEPS;
        const std::string& beginning = at->first;
        const std::size_t longest = std::min(beginning.size(), segment.size());
        const std::size_t common = static_cast<std::size_t>(
            std::mismatch(beginning.begin(), beginning.begin() + static_cast<std::ptrdiff_t>(longest), segment.begin())
                .first -
            beginning.begin());
        if (common < beginning.size()) {
            at = node.globs.upper_bound(segment.substr(0, common));
            continue;
        }
        for (const auto& [text, each] : at->second) {
            if (each.glob.match(segment, m_steps)) {
                enter(*each.node, nodes);
            }
        }
    }
}

void PatternTrie::takeRests(Node& node, const std::string& path, std::vector<Id>& ids)
{
    if (node.restsTested == m_matches) {
        return;
    }
    node.restsTested = m_matches;
    ids.insert(ids.end(), node.tails.begin(), node.tails.end());
    for (const auto& [glob, rest] : node.rests) {
        if (rest.patterns.match(path, m_steps)) {
            ids.insert(ids.end(), rest.ids.begin(), rest.ids.end());
        }
    }
}

/// As if no other glob shared its nodes: behind "**" each of them is looked at for every segment of the path, else for
/// one. Of all that are looked at for one, the segments together are the path.
std::size_t PatternTrie::cost(const std::string& glob, const PathPatterns& patterns)
{
    constexpr std::size_t HASHING = Path::MAX_SERVICE_PATH_SIZE / HASHED_BYTES_PER_STEP;
    const Place place(glob);
    std::size_t steps = HASHING + (place.hasRest ? patterns.cost(Path::MAX_SERVICE_PATH_SIZE) : 0);
    std::size_t looks = 1;
    const auto node = [&looks] { return looks * NODE_STEPS + (looks > 1 ? HASHING : 0); };
    for (const std::string& segment : place.segments) {
        steps += node();
        if (segment == "**") {
            looks = Path::MAX_SERVICE_SEGMENTS;
        } else if (segment != "*" && !SplitGlob::isName(segment)) {
            steps += looks * LOOK_STEPS + SegmentGlob(segment).cost(Path::MAX_SERVICE_PATH_SIZE, looks);
        }
    }
    return steps + node();
}

std::size_t PatternTrie::memory(const std::string& glob, const PathPatterns& patterns)
{
    const SplitGlob split(glob);
    std::size_t bytes = glob.size() + patterns.memory();
    for (const std::string& segment : split.segments) {
        bytes += NODE_BYTES + 2 * segment.size();
        if (!SplitGlob::isName(segment) && segment != "*" && segment != "**") {
            bytes += SegmentGlob(segment).memory();
        }
    }
    return bytes;
}

} // namespace kesa::access
