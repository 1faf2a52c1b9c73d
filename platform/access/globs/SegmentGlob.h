#ifndef KESA_ACCESS_GLOBS_SEGMENTGLOB_H
#define KESA_ACCESS_GLOBS_SEGMENTGLOB_H

#include <kesa/PathPatterns.h>
#include <obr/api.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::access {

/// A segment of a glob that has wildcards, compiled. Most are text with a '*' or two: those are compared piece by
/// piece, which takes a small part of what running a program takes.
class KESA_API SegmentGlob {
public:
    /// A segment of a well-formed glob, as `SplitGlob` has them.
    explicit SegmentGlob(const std::string& segment);

    /// Adds to `steps` how many it took.
    bool match(std::string_view segment, std::size_t& steps) const;
    /// The most steps that it takes for `segments` segments of together `bytes` bytes.
    std::size_t cost(std::size_t bytes, std::size_t segments) const;
    std::size_t memory() const noexcept;

private:
    bool matchPieces(std::string_view segment, std::size_t& steps) const;

    std::vector<std::string> m_pieces;      ///< the texts before, between and behind '*'; none when it is a program
    std::optional<PathPatterns> m_patterns; ///< the program
};

} // namespace kesa::access

#endif
