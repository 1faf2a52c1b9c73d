#include "RouteTree.h"

namespace kesa {

RouteTree::RouteTree() : m_nodes(1) {}

RouteTree::Place& RouteTree::placeOf(const Route& route)
{
    Number node = 0;
    for (const Route::Segment& segment : route.segments()) {
        node = childOf(node, segment);
    }
    if (m_nodes[node].place == nullptr) {
        std::string rank = route.rank();
        const auto next = m_places.lower_bound(rank);
        m_nodes[node].place = &m_places.emplace_hint(next, std::move(rank), Place())->second;
    }
    return *m_nodes[node].place;
}

/// Made when there is none.
RouteTree::Number RouteTree::childOf(Number parent, const Route::Segment& segment)
{
    Node& node = m_nodes[parent];
    const Number present = segment.kind == Route::Segment::Kind::eTEXT        ? node.texts.find(segment.text)
                           : segment.kind == Route::Segment::Kind::ePARAMETER ? node.parameter
                                                                              : node.rest;
    if (present != 0) {
        return present;
    }
    const auto made = static_cast<Number>(m_nodes.size());
    switch (segment.kind) {
    case Route::Segment::Kind::eTEXT:
        node.texts.add(segment.text, made);
        break;
    case Route::Segment::Kind::ePARAMETER:
        node.parameter = made;
        break;
    case Route::Segment::Kind::eREST:
        node.rest = made;
        break;
    }
    m_nodes.emplace_back().isRest = segment.kind == Route::Segment::Kind::eREST;
    return made;
}

void RouteTree::Children::add(const std::string& text, Number node)
{
    if (m_few.size() < MOST_FEW) {
        m_few.emplace_back(text, node);
        return;
    }
    if (m_many.empty()) {
        m_many.insert(m_few.begin(), m_few.end());
    }
    m_many.emplace(text, node);
}

} // namespace kesa
