#include "globs/SegmentGlob.h"

#include <algorithm>

namespace kesa::access {

namespace {

// Measured against a step of a program: comparing two texts takes one for so many bytes,
constexpr std::size_t BYTES_PER_STEP = 32;
// and looking for one text in another takes so many for a byte, where it begins again and again.
constexpr std::size_t STEPS_PER_SEARCHED_BYTE = 4;

} // namespace

SegmentGlob::SegmentGlob(const std::string& segment)
{
    if (segment.find_first_of("?[{\\") != std::string::npos) {
        m_patterns = PathPatterns::createFromGlob(segment);
        return;
    }
    std::size_t begin = 0;
    for (std::size_t star = segment.find('*'); star != std::string::npos; star = segment.find('*', begin)) {
        m_pieces.push_back(segment.substr(begin, star - begin));
        begin = star + 1;
    }
    m_pieces.push_back(segment.substr(begin));
}

bool SegmentGlob::match(std::string_view segment, std::size_t& steps) const
{
    return m_patterns ? m_patterns->match(segment, steps) : matchPieces(segment, steps);
}

/// Each piece where it is found first: no other place leaves more for those behind it.
bool SegmentGlob::matchPieces(std::string_view segment, std::size_t& steps) const
{
    const std::string& first = m_pieces.front();
    const std::string& last = m_pieces.back();
    steps += 1 + (first.size() + last.size()) / BYTES_PER_STEP;
    if (segment.size() < first.size() + last.size() || !segment.starts_with(first) || !segment.ends_with(last)) {
        return false;
    }
    segment.remove_prefix(first.size());
    segment.remove_suffix(last.size());
    for (std::size_t index = 1; index + 1 < m_pieces.size(); ++index) {
        const std::size_t at = segment.find(m_pieces[index]);
        steps += 1 + STEPS_PER_SEARCHED_BYTE * std::min(at, segment.size());
        if (at == std::string_view::npos) {
            return false;
        }
        segment.remove_prefix(at + m_pieces[index].size());
    }
    return true;
}

std::size_t SegmentGlob::cost(std::size_t bytes, std::size_t segments) const
{
    if (m_patterns) {
        return m_patterns->cost(bytes, segments);
    }
    const std::size_t compared = m_pieces.front().size() + m_pieces.back().size();
    const std::size_t searched = m_pieces.size() > 2 ? STEPS_PER_SEARCHED_BYTE * bytes : 0;
    return segments * (m_pieces.size() + compared / BYTES_PER_STEP) + searched;
}

std::size_t SegmentGlob::memory() const noexcept
{
    std::size_t bytes = sizeof(*this) + (m_patterns ? m_patterns->memory() : 0);
    for (const std::string& piece : m_pieces) {
        bytes += sizeof(std::string) + piece.capacity();
    }
    return bytes;
}

} // namespace kesa::access
