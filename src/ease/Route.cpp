#include "Route.h"

namespace kesa {

Route::Route(std::string_view route)
{
    for (std::string_view rest = withoutOuterSlashes(route); !rest.empty();) {
        const std::string_view segment = takeSegment(rest);
        if (segment == "**") {
            m_segments.push_back({Segment::Kind::eREST, "**"});
        } else if (segment.size() > 2 && segment.front() == '{' && segment.back() == '}') {
            m_segments.push_back({Segment::Kind::ePARAMETER, std::string(segment.substr(1, segment.size() - 2))});
        } else {
            m_segments.push_back({Segment::Kind::eTEXT, std::string(segment)});
        }
        m_hasParameters = m_hasParameters || m_segments.back().kind != Segment::Kind::eTEXT;
    }
}

std::string_view Route::fault() const noexcept
{
    for (const Segment& segment : m_segments) {
        if (segment.kind == Segment::Kind::eREST && &segment != &m_segments.back()) {
            return "'**' has to be the last segment";
        }
        if (segment.text.empty()) {
            return "it has an empty segment";
        }
        if (segment.text.find_first_of("{}") != std::string::npos) {
            return "a parameter is a whole segment, '{name}'";
        }
    }
    return {};
}

std::string Route::rank() const
{
    std::string rank;
    for (const Segment& segment : m_segments) {
        rank.push_back(static_cast<char>(segment.kind));
    }
    return rank;
}

PathParameters Route::parametersOf(std::string_view path) const
{
    PathParameters parameters;
    if (!m_hasParameters) {
        return parameters;
    }
    for (const Segment& segment : m_segments) {
        if (segment.kind == Segment::Kind::eREST) {
            parameters.add(segment.text, path);
            break;
        }
        const std::string_view here = takeSegment(path);
        if (segment.kind == Segment::Kind::ePARAMETER) {
            parameters.add(segment.text, here);
        }
    }
    return parameters;
}

std::string Route::text() const
{
    std::string text;
    for (const Segment& segment : m_segments) {
        text += segment.kind == Segment::Kind::ePARAMETER ? "/{" + segment.text + "}" : "/" + segment.text;
    }
    return text.empty() ? "/" : text;
}

std::string Route::filledFrom(std::string_view path) const
{
    std::string filled;
    for (const Segment& segment : m_segments) {
        if (segment.kind == Segment::Kind::eREST) {
            return filled.append("/").append(path);
        }
        const std::string_view here = takeSegment(path);
        filled.append("/").append(segment.kind == Segment::Kind::eTEXT ? segment.text : here);
    }
    return filled;
}

} // namespace kesa
