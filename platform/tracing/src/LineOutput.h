#ifndef TRACING_LINEOUTPUT_H
#define TRACING_LINEOUTPUT_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <sys/types.h>

namespace tracing {

/// Writes whole lines to a descriptor: with one system call each (a line that exceeds what a pipe takes at once: in
/// pieces), never blocking for long, never raising SIGPIPE. Not thread-safe.
class LineOutput {
public:
    enum class Ownership { eBORROWED, eOWNED };

    LineOutput(int descriptor, Ownership ownership) noexcept;
    /// With `flush`.
    ~LineOutput();
    LineOutput(const LineOutput&) = delete;
    LineOutput& operator=(const LineOutput&) = delete;

    void write(std::string_view line) noexcept;

    /// The `errno` of why the last line could not be written to a file; 0 when it was, or is lost by its reader.
    int error() const noexcept { return m_error; }

    /// Says how many lines have been lost, if any and if the reader takes that within 100 ms: nothing may be written
    /// afterwards that would say it.
    void flush() noexcept;

private:
    enum class Kind { eFILE, ePIPE, eSOCKET, eTERMINAL };

    Kind kind() noexcept;
    void openTerminal(dev_t device) noexcept;
    bool isReady(Kind kind, int timeoutMs) const noexcept;
    std::size_t writeSome(Kind kind, std::string_view rest) noexcept;
    bool writeWhole(Kind kind, std::string_view line) noexcept;
    bool tellLost(Kind kind) noexcept;

    const int m_descriptor;
    const Ownership m_ownership;
    int m_terminal = -1;        ///< opened anew, so that it does not block; -1: the descriptor is none, or may not be
    dev_t m_terminalDevice = 0; ///< the last one that was tried
    bool m_isClogged = false;   // the reader did not keep up: do not wait for it again
    bool m_isCut = false;       // the last line was written in part
    int m_error = 0;
    std::uint64_t m_lostLines = 0;
    pid_t m_loser = 0; ///< the process that has lost them: a child does not tell of its parent's
};

} // namespace tracing

#endif
