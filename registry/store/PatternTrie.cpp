#include "store/PatternTrie.h"

#include <algorithm>
#include <utility>

namespace kesa::registry {

bool PatternTrie::Node::isEmpty() const noexcept
{
    return names.empty() && globs.empty() && !any && !anySegments && ends.empty() && rests.empty();
}

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
    const auto found =
        std::find_if(globs.begin(), globs.end(), [&segment](const GlobChild& each) { return each.glob == segment; });
    if (found != globs.end()) {
        return *found->node;
    }
    // A part of a well-formed glob is well-formed.
    globs.push_back({segment, *PathPatterns::createFromGlob(segment), std::make_unique<Node>()});
    return *globs.back().node;
}

void PatternTrie::insert(Id id, const std::string& glob, const PathPatterns& patterns)
{
    const SplitGlob split(glob);
    Node* node = &m_root;
    for (const std::string& segment : split.segments) {
        node = &child(*node, segment);
    }
    if (split.hasRest) {
        node->rests.emplace(id, patterns);
    } else {
        node->ends.insert(id);
    }
}

void PatternTrie::erase(Id id, const std::string& glob)
{
    const SplitGlob split(glob);
    eraseBelow(m_root, split.segments, id);
}

/// True when nothing is left of `node`.
bool PatternTrie::eraseBelow(Node& node, std::span<const std::string> segments, Id id)
{
    if (segments.empty()) {
        node.ends.erase(id);
        node.rests.erase(id);
        return node.isEmpty();
    }
    const std::string& segment = segments.front();
    const auto rest = segments.subspan(1);
    if (segment == "*" || segment == "**") {
        auto& wildcard = segment == "*" ? node.any : node.anySegments;
        if (wildcard && eraseBelow(*wildcard, rest, id)) {
            wildcard.reset();
        }
    } else if (SplitGlob::isName(segment)) {
        const auto named = node.names.find(segment);
        if (named != node.names.end() && eraseBelow(*named->second, rest, id)) {
            node.names.erase(named);
        }
    } else {
        eraseGlob(node, segments, id);
    }
    return node.isEmpty();
}

void PatternTrie::eraseGlob(Node& node, std::span<const std::string> segments, Id id)
{
    const auto globs = node.globs.find(SplitGlob::literalPrefix(segments.front()));
    if (globs == node.globs.end()) {
        return;
    }
    std::erase_if(globs->second, [&](GlobChild& each) {
        return each.glob == segments.front() && eraseBelow(*each.node, segments.subspan(1), id);
    });
    if (globs->second.empty()) {
        node.globs.erase(globs);
    }
}

void PatternTrie::match(const std::string& path, std::vector<Id>& ids)
{
    ++m_matches;
    std::vector<Node*> nodes;
    std::vector<Node*> next;
    ++m_steps;
    enter(m_root, nodes);
    std::string_view rest = std::string_view(path).substr(1);
    while (true) {
        for (Node* const node : nodes) {
            testRests(*node, path, ids);
        }
        if (rest.empty() || nodes.empty()) {
            break;
        }
        const std::string_view segment = rest.substr(0, rest.find('/'));
        rest.remove_prefix(std::min(segment.size() + 1, rest.size()));
        ++m_steps;
        next.clear();
        for (Node* const node : nodes) {
            follow(*node, segment, next);
        }
        std::swap(nodes, next);
    }
    for (const Node* const node : nodes) {
        ids.insert(ids.end(), node->ends.begin(), node->ends.end());
    }
}

/// "**" stands for no segment, too.
void PatternTrie::enter(Node& node, std::vector<Node*>& nodes)
{
    if (node.entered == m_steps) {
        return;
    }
    node.entered = m_steps;
    nodes.push_back(&node);
    if (node.anySegments) {
        enter(*node.anySegments, nodes);
    }
}

void PatternTrie::follow(Node& node, std::string_view segment, std::vector<Node*>& nodes)
{
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
    if (node.globs.empty()) {
        return;
    }
    const std::string text(segment);
    for (std::size_t length = 0; length <= segment.size(); ++length) {
        const auto globs = node.globs.find(segment.substr(0, length));
        if (globs == node.globs.end()) {
            continue;
        }
        for (const GlobChild& each : globs->second) {
            if (each.patterns.match(text)) {
                enter(*each.node, nodes);
            }
        }
    }
}

void PatternTrie::testRests(Node& node, const std::string& path, std::vector<Id>& ids) const
{
    if (node.restsTested == m_matches) {
        return;
    }
    node.restsTested = m_matches;
    for (const auto& [id, patterns] : node.rests) {
        if (patterns.match(path)) {
            ids.push_back(id);
        }
    }
}

} // namespace kesa::registry
