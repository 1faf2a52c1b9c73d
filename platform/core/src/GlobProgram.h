#ifndef KESA_CORE_GLOBPROGRAM_H
#define KESA_CORE_GLOBPROGRAM_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kesa {

/// A glob compiled into the steps of a non-deterministic automaton over the characters of a path. All states the
/// automaton can be in are followed at once, so matching never backtracks.
///
/// A '/' of the glob is not a character to be met but makes the next step begin a segment: the step is *pending* until
/// the path's own '/' came. So what follows decides what becomes of it: "**" takes it along and the end of the glob
/// ignores it, whatever alternatives stand between. A state is a step and whether that is pending.
class GlobProgram {
public:
    static constexpr std::size_t MAX_CHARACTERS = 1024;
    static constexpr int MAX_DEPTH = 32;

    /// True, with a reason in `obr::ErrorStorage`, when `glob` is malformed or too large.
    [[nodiscard]] bool compile(const std::string& glob);

    /// `segments` is a path without its leading '/', or empty for "/". Adds to `steps` how many states were looked at.
    bool match(std::string_view segments, std::size_t& steps) const noexcept;
    /// How much `match` adds at most, for `paths` paths of together `bytes` bytes.
    std::size_t cost(std::size_t bytes, std::size_t paths) const;
    std::size_t memory() const noexcept;

private:
    enum class Op : std::uint8_t { eCHARACTER, eANY, eSET, eSTAR, eSEGMENTS, eSLASH, eFORK, eJUMP, eMATCH };
    struct Range {
        char32_t first;
        char32_t last;
    };
    struct Step {
        Op op;
        bool isNegated = false;       ///< eSET
        std::uint16_t target = 0;     ///< eFORK, eJUMP: also (or only) goes on there; always further on
        std::uint16_t rangeBegin = 0; ///< eSET
        std::uint16_t rangeEnd = 0;
        char32_t character = 0;     ///< eCHARACTER
        std::uint16_t position = 0; ///< in the glob, for errors
    };
    class Compiler;
    class States;

    static bool meetsCharacters(Op op) noexcept;
    bool accepts(const Step& step, char32_t character) const noexcept;
    std::size_t follow(States& states) const noexcept;
    std::size_t consume(const States& from, char32_t character, States& to) const noexcept;
    std::size_t mostStates() const;

    std::vector<Step> m_steps;
    std::vector<Range> m_ranges;
};

/// Records why `glob` is no glob; answers true.
bool failMalformedGlob(std::string_view glob, std::size_t position, std::string_view what);

} // namespace kesa

#endif
