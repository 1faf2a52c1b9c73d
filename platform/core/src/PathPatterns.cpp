#include <kesa/PathPatterns.h>

#include "src/GlobProgram.h"

#include <obr/utf8.h>

#include <utility>

namespace kesa {

namespace {

constexpr std::size_t MAX_GLOB_SIZE = 4096;

/// Without a leading and a trailing '/'; "/" becomes empty.
std::string_view segmentsOf(std::string_view path) noexcept
{
    if (!path.empty() && path.front() == '/') {
        path.remove_prefix(1);
    }
    if (!path.empty() && path.back() == '/') {
        path.remove_suffix(1);
    }
    return path;
}

} // namespace

/// Most globs are a path, or a path and all below it: those are compared, not run.
class PathPatterns::Compiled {
public:
    [[nodiscard]] bool compile(const std::string& glob)
    {
        if (glob.size() > MAX_GLOB_SIZE) {
            return failMalformedGlob(glob.substr(0, 32) + "...", MAX_GLOB_SIZE + 1, "a glob has at most 4096 bytes");
        }
        std::string_view segments = segmentsOf(glob);
        if (glob.empty() || segments == "**") {
            m_kind = Kind::eALL;
            return false;
        }
        m_kind = Kind::ePATH;
        if (segments.ends_with("/**")) {
            m_kind = Kind::eSUBTREE;
            segments.remove_suffix(3);
        }
        const bool isPlain = segments.find_first_of("*?[{\\") == std::string_view::npos && obr::isUtf8(segments) &&
                             segments.find("//") == std::string_view::npos && !segments.starts_with('/') &&
                             !segments.ends_with('/');
        if (isPlain && (m_kind == Kind::ePATH || !segments.empty())) {
            m_path = segments;
            return false;
        }
        m_kind = Kind::ePROGRAM;
        return m_program.compile(glob);
    }

    bool match(std::string_view path, std::size_t& steps) const
    {
        const std::string_view segments = segmentsOf(path);
        ++steps;
        switch (m_kind) {
        case Kind::eALL:
            return true;
        case Kind::ePATH:
            return segments == m_path;
        case Kind::eSUBTREE:
            return segments.starts_with(m_path) && (segments.size() == m_path.size() || segments[m_path.size()] == '/');
        case Kind::ePROGRAM:
            break;
        }
        return m_program.match(segments, steps);
    }

    std::size_t cost(std::size_t bytes, std::size_t paths) const
    {
        return paths + (m_kind == Kind::ePROGRAM ? m_program.cost(bytes, paths) : 0);
    }

    std::size_t memory() const noexcept { return sizeof(*this) + m_path.capacity() + m_program.memory(); }

private:
    enum class Kind { eALL, ePATH, eSUBTREE, ePROGRAM };
    Kind m_kind = Kind::eALL;
    std::string m_path;
    GlobProgram m_program;
};

std::optional<PathPatterns> PathPatterns::createFromGlob(const std::string& glob)
{
    auto compiled = std::make_shared<Compiled>();
    if (compiled->compile(glob)) {
        return std::nullopt;
    }
    return PathPatterns(std::move(compiled));
}

bool PathPatterns::match(const std::string& path) const
{
    std::size_t steps = 0;
    return m_compiled->match(path, steps);
}

bool PathPatterns::match(std::string_view path, std::size_t& steps) const
{
    return m_compiled->match(path, steps);
}

std::size_t PathPatterns::cost(std::size_t bytes, std::size_t paths) const
{
    return m_compiled->cost(bytes, paths);
}

std::size_t PathPatterns::memory() const noexcept
{
    return m_compiled->memory();
}

} // namespace kesa
