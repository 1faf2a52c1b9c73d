#include "src/GlobProgram.h"

#include <kesa/errors.h>
#include <obr/ErrorOutput.h>
#include <obr/utf8.h>

#include <algorithm>
#include <array>
#include <bit>
#include <unordered_map>
#include <utility>

namespace kesa {

namespace {

/// To compare a character with so many ranges of a set takes as long as to look at a state.
constexpr std::size_t RANGES_PER_STEP = 4;

} // namespace

bool failMalformedGlob(std::string_view glob, std::size_t position, std::string_view what)
{
    return obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, errors::MALFORMED_GLOB, glob,
                                                      std::to_string(position), what);
}

// --- Compiling -------------------------------------------------------------------------------------------------------

class GlobProgram::Compiler {
public:
    Compiler(GlobProgram& program, std::string_view glob) : m_program(program), m_glob(glob) {}

    bool run()
    {
        if (decode() || readSequence(0)) {
            return true;
        }
        add(Op::eMATCH, m_next);
        return checkWholeSegments();
    }

private:
    bool fail(std::size_t index, std::string_view what) const { return failMalformedGlob(m_glob, index + 1, what); }

    bool decode()
    {
        for (std::string_view rest = m_glob; !rest.empty();) {
            m_text.push_back(obr::takeCharacter(rest));
            if (m_text.back() == obr::INVALID_CHARACTER) {
                return fail(m_text.size() - 1, "it is not UTF-8");
            }
            if (m_text.size() > MAX_CHARACTERS) {
                return fail(MAX_CHARACTERS, "a glob with wildcards has at most 1024 characters");
            }
        }
        return false;
    }

    bool atEnd() const noexcept { return m_next == m_text.size(); }

    Step& add(Op op, std::size_t position)
    {
        m_program.m_steps.push_back(Step{op});
        m_program.m_steps.back().position = static_cast<std::uint16_t>(position);
        return m_program.m_steps.back();
    }
    std::size_t here() const noexcept { return m_program.m_steps.size(); }
    void aim(std::size_t step) { m_program.m_steps[step].target = static_cast<std::uint16_t>(here()); }

    /// Up to the end, or up to the ',' or '}' that ends an alternative.
    bool readSequence(int depth)
    {
        while (!atEnd()) {
            const char32_t character = m_text[m_next];
            if (depth > 0 && (character == ',' || character == '}')) {
                return false;
            }
            if (readItem(character, depth)) {
                return true;
            }
        }
        return false;
    }

    bool readItem(char32_t character, int depth)
    {
        const std::size_t begin = m_next++;
        switch (character) {
        case '/':
            add(Op::eSLASH, begin);
            return false;
        case '?':
            add(Op::eANY, begin);
            return false;
        case '*':
            if (!atEnd() && m_text[m_next] == '*') {
                ++m_next;
                add(Op::eSEGMENTS, begin);
            } else {
                add(Op::eSTAR, begin);
            }
            return false;
        case '[':
            return readSet(begin);
        case '{':
            return readAlternatives(begin, depth + 1);
        case '\\':
            if (atEnd()) {
                return fail(begin, "'\\' has no character after it");
            }
            return addCharacter(m_text[m_next++], begin);
        default:
            return addCharacter(character, begin);
        }
    }

    bool addCharacter(char32_t character, std::size_t position)
    {
        if (character == '/') {
            add(Op::eSLASH, position);
        } else {
            add(Op::eCHARACTER, position).character = character;
        }
        return false;
    }

    /// FORK to the second alternative; the first; JUMP to the end; FORK to the third; the second; ...
    bool readAlternatives(std::size_t begin, int depth)
    {
        if (depth > MAX_DEPTH) {
            return fail(begin, "alternatives nest at most 32 deep");
        }
        std::vector<std::size_t> jumps;
        while (true) {
            const std::size_t fork = here();
            add(Op::eFORK, begin);
            if (readSequence(depth)) {
                return true;
            }
            if (atEnd()) {
                return fail(begin, "'{' has no '}'");
            }
            if (m_text[m_next++] == '}') {
                m_program.m_steps[fork].op = Op::eJUMP; // the last alternative has no other
                m_program.m_steps[fork].target = static_cast<std::uint16_t>(fork + 1);
                break;
            }
            jumps.push_back(here());
            add(Op::eJUMP, begin);
            aim(fork);
        }
        for (const std::size_t jump : jumps) {
            aim(jump);
        }
        return false;
    }

    bool readSet(std::size_t begin)
    {
        Step set{Op::eSET};
        set.position = static_cast<std::uint16_t>(begin);
        set.rangeBegin = static_cast<std::uint16_t>(m_program.m_ranges.size());
        if (!atEnd() && m_text[m_next] == '!') {
            set.isNegated = true;
            ++m_next;
        }
        for (bool isFirst = true;; isFirst = false) {
            if (atEnd()) {
                return fail(begin, "'[' has no ']'");
            }
            if (m_text[m_next] == ']' && !isFirst) {
                ++m_next;
                break;
            }
            if (readRange(begin)) {
                return true;
            }
        }
        set.rangeEnd = static_cast<std::uint16_t>(m_program.m_ranges.size());
        m_program.m_steps.push_back(set);
        return false;
    }

    bool readRange(std::size_t begin)
    {
        const std::size_t position = m_next;
        Range range{};
        if (readSetCharacter(begin, range.first)) {
            return true;
        }
        range.last = range.first;
        const bool isRange = m_next + 1 < m_text.size() && m_text[m_next] == '-' && m_text[m_next + 1] != ']';
        if (isRange) {
            ++m_next;
            if (readSetCharacter(begin, range.last)) {
                return true;
            }
        }
        if (range.last < range.first) {
            return fail(position, "the range runs backwards");
        }
        m_program.m_ranges.push_back(range);
        return false;
    }

    bool readSetCharacter(std::size_t begin, char32_t& character)
    {
        if (m_text[m_next] == '\\') {
            ++m_next;
        }
        if (atEnd()) {
            return fail(begin, "'[' has no ']'");
        }
        if (m_text[m_next] == '/') {
            return fail(m_next, "a set stands for one character of a segment and can not hold '/'");
        }
        character = m_text[m_next++];
        return false;
    }

    /// Follows all ways through the steps, which only lead forward, and sees what can stand before each "**" and after.
    bool checkWholeSegments() const
    {
        enum Before : unsigned { eSEGMENT_BEGINS = 1, eCHARACTERS = 2, eALL_SEGMENTS = 4 };
        std::vector<unsigned> before(m_program.m_steps.size() + 1);
        before[0] = eSEGMENT_BEGINS;
        for (std::size_t index = 0; index < m_program.m_steps.size(); ++index) {
            const Step& step = m_program.m_steps[index];
            switch (step.op) {
            case Op::eSLASH:
                before[index + 1] |= eSEGMENT_BEGINS;
                break;
            case Op::eFORK:
                before[index + 1] |= before[index];
                [[fallthrough]];
            case Op::eJUMP:
                before[step.target] |= before[index];
                break;
            case Op::eSEGMENTS:
                if (before[index] != eSEGMENT_BEGINS) {
                    return fail(step.position, WHOLE_SEGMENT);
                }
                before[index + 1] |= eALL_SEGMENTS;
                break;
            case Op::eMATCH:
                break;
            default:
                if ((before[index] & eALL_SEGMENTS) != 0) {
                    return fail(step.position, WHOLE_SEGMENT);
                }
                before[index + 1] |= eCHARACTERS;
                break;
            }
        }
        return false;
    }

    static constexpr std::string_view WHOLE_SEGMENT = "'**' stands alone between two '/'; within a segment, write '*'";

    GlobProgram& m_program;
    std::string_view m_glob;
    std::u32string m_text;
    std::size_t m_next = 0;
};

bool GlobProgram::compile(const std::string& glob)
{
    return Compiler(*this, glob).run();
}

// --- Matching --------------------------------------------------------------------------------------------------------

/// A set of states: bit 2n is step n, bit 2n + 1 is step n pending.
class GlobProgram::States {
public:
    // A '{' is one step, a ',' two, every other character at most one.
    static constexpr std::size_t WORDS = (2 * (2 * MAX_CHARACTERS + 1) + 63) / 64;

    explicit States(std::size_t steps) noexcept : m_words((2 * steps + 63) / 64) { clear(); }

    void clear() noexcept
    {
        for (std::size_t word = 0; word < m_words; ++word) {
            m_bits[word] = 0;
        }
    }
    void add(std::size_t step, bool isPending) noexcept
    {
        const std::size_t bit = 2 * step + (isPending ? 1 : 0);
        m_bits[bit / 64] |= std::uint64_t{1} << (bit % 64);
    }
    bool isEmpty() const noexcept
    {
        return std::all_of(m_bits.begin(), m_bits.begin() + m_words, [](std::uint64_t word) { return word == 0; });
    }
    bool contains(std::size_t step) const noexcept { return (m_bits[step / 32] >> (2 * (step % 32)) & 3) != 0; }

    /// Calls `visit(step, isPending)` for all in ascending order, also for those that `visit` adds further on.
    template <class F>
    void forEach(F&& visit) const
    {
        for (std::size_t word = 0; word < m_words; ++word) {
            std::uint64_t visited = 0;
            while (const std::uint64_t left = m_bits[word] & ~visited) {
                const auto bit = static_cast<std::size_t>(std::countr_zero(left));
                visited |= std::uint64_t{1} << bit;
                visit(word * 32 + bit / 2, bit % 2 != 0);
            }
        }
    }

private:
    std::array<std::uint64_t, WORDS> m_bits; // only the first m_words are used
    std::size_t m_words;
};

/// The others have handed their pending '/' on in `follow`.
bool GlobProgram::meetsCharacters(Op op) noexcept
{
    return op == Op::eCHARACTER || op == Op::eANY || op == Op::eSET || op == Op::eSTAR || op == Op::eSEGMENTS;
}

bool GlobProgram::accepts(const Step& step, char32_t character) const noexcept
{
    switch (step.op) {
    case Op::eCHARACTER:
        return step.character == character;
    case Op::eANY:
        return character != '/';
    case Op::eSET:
        break;
    default:
        return false;
    }
    if (character == '/') {
        return false;
    }
    for (std::size_t index = step.rangeBegin; index < step.rangeEnd; ++index) {
        if (m_ranges[index].first <= character && character <= m_ranges[index].last) {
            return !step.isNegated;
        }
    }
    return step.isNegated;
}

/// Adds what can be reached without a character. Answers how many states there are.
std::size_t GlobProgram::follow(States& states) const noexcept
{
    std::size_t looks = 0;
    states.forEach([&](std::size_t index, bool isPending) {
        ++looks;
        const Step& step = m_steps[index];
        switch (step.op) {
        case Op::eSLASH:
            states.add(index + 1, true);
            break;
        case Op::eFORK:
            states.add(index + 1, isPending);
            [[fallthrough]];
        case Op::eJUMP:
            states.add(step.target, isPending);
            break;
        case Op::eSTAR:
            if (!isPending) {
                states.add(index + 1, false);
            }
            break;
        case Op::eSEGMENTS:
            states.add(index + 1, false);
            break;
        default:
            break;
        }
    });
    return looks;
}

/// Answers how many states were looked at; that of a set counts more, by its ranges.
std::size_t GlobProgram::consume(const States& from, char32_t character, States& to) const noexcept
{
    std::size_t looks = 0;
    from.forEach([&](std::size_t index, bool isPending) {
        ++looks;
        const Step& step = m_steps[index];
        const bool isSlash = character == '/';
        if (isPending) {
            if (isSlash && meetsCharacters(step.op)) {
                to.add(index, false);
            }
        } else if (step.op == Op::eSEGMENTS || (step.op == Op::eSTAR && !isSlash)) {
            to.add(index, false);
        } else {
            looks += (step.rangeEnd - step.rangeBegin) / RANGES_PER_STEP;
            if (accepts(step, character)) {
                to.add(index + 1, false);
            }
        }
    });
    return looks;
}

bool GlobProgram::match(std::string_view segments, std::size_t& steps) const noexcept
{
    States sets[] = {States(m_steps.size()), States(m_steps.size())};
    States* states = &sets[0];
    States* next = &sets[1];
    states->add(0, true);
    steps += follow(*states);
    const auto take = [&](char32_t character) {
        next->clear();
        steps += 1 + consume(*states, character, *next);
        steps += follow(*next);
        std::swap(states, next);
    };
    if (!segments.empty()) {
        take('/');
    }
    while (!segments.empty() && !states->isEmpty()) {
        take(obr::takeCharacter(segments));
    }
    return states->contains(m_steps.size() - 1);
}

/// After a character there are: the steps behind those that take it, the wildcards that stay, what these lead to
/// without a character, and, where a '/' may be pending, each such step twice.
std::size_t GlobProgram::mostStates() const
{
    std::unordered_map<char32_t, std::size_t> takers;
    std::size_t most = 0;      // that take one character
    std::size_t takesMany = 0; // steps that take any of several
    std::size_t leads = 0;
    std::size_t slashes = 0;
    for (const Step& step : m_steps) {
        switch (step.op) {
        case Op::eCHARACTER:
            most = std::max(most, ++takers[step.character]);
            break;
        case Op::eANY:
        case Op::eSET:
            ++takesMany;
            break;
        case Op::eSTAR:
        case Op::eSEGMENTS:
        case Op::eFORK:
            leads += 2;
            break;
        case Op::eJUMP:
            ++leads;
            break;
        case Op::eSLASH:
            ++slashes;
            break;
        case Op::eMATCH:
            break;
        }
    }
    const std::size_t states = 1 + most + takesMany + leads;
    return slashes == 0 ? std::min(states, m_steps.size())
                        : std::min(states + 2 * (slashes + leads), 2 * m_steps.size());
}

std::size_t GlobProgram::cost(std::size_t bytes, std::size_t paths) const
{
    const bool isEndless = std::any_of(m_steps.begin(), m_steps.end(), [](const Step& step) {
        return step.op == Op::eSTAR || step.op == Op::eSEGMENTS;
    });
    // A '/' stands before each path. Without a wildcard that stays, each character leads on, until there are no more.
    const std::size_t characters = bytes + paths;
    const std::size_t looked = isEndless ? characters : std::min(characters, paths * (m_steps.size() + 1));
    return paths * 2 * m_steps.size() + looked * (1 + 2 * mostStates() + m_ranges.size() / RANGES_PER_STEP);
}

std::size_t GlobProgram::memory() const noexcept
{
    return m_steps.capacity() * sizeof(Step) + m_ranges.capacity() * sizeof(Range);
}

} // namespace kesa
