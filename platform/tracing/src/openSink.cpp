#include "openSink.h"
#include "LineOutput.h"

#include <fmt/format.h>
#include <obr/explainError.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace tracing {
namespace {

constexpr int SEVERITY_OF_LOSS = 4;

std::string_view levelOf(int severity)
{
    switch (severity) {
    case 1:
        return "debug";
    case 2:
        return "info";
    case 3:
        return "warning";
    default:
        return "error";
    }
}

/// The priority as the service manager reads it at the start of a line.
std::string_view journalPrefixOf(int severity)
{
    switch (severity) {
    case 1:
        return "<7>";
    case 2:
        return "<6>";
    case 3:
        return "<4>";
    default:
        return "<3>";
    }
}

struct Caller {
    pid_t process = 0;
    pid_t thread = 0;
};

/// A thread's number is asked for once, and again in a child, where it has another.
Caller currentCaller()
{
    thread_local Caller caller;
    if (const pid_t process = ::getpid(); process != caller.process) {
        caller = {process, ::gettid()};
    }
    return caller;
}

/// Terminals act on these, too, when they are sent to them as one byte or as UTF-8.
bool isHighControl(unsigned char byte)
{
    return byte >= 0x80 && byte < 0xa0;
}

bool mayBeControl(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f || isHighControl(byte);
}

bool hasControls(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), mayBeControl);
}

/// The length of the character at the beginning, as its first byte says; 1 for one that does not go on as UTF-8 would.
std::size_t characterLength(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t length = first < 0xc2 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 1;
    const auto goesOn = [](char c) { return (static_cast<unsigned char>(c) & 0xc0U) == 0x80; };
    return length <= text.size() && std::all_of(text.begin() + 1, text.begin() + length, goesOn) ? length : 1;
}

/// A text may hold what a peer sent: it must not be able to begin a line of its own, nor to command a terminal.
std::string escapeControls(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const std::string_view character = text.substr(0, characterLength(text));
        text.remove_prefix(character.size());
        const auto last = static_cast<unsigned char>(character.back());
        if (character == "\n") {
            result += "\\n";
        } else if (character.size() == 1 && mayBeControl(character.front())) {
            fmt::format_to(std::back_inserter(result), "\\x{:02x}", last);
        } else if (character.size() == 2 && character.front() == '\xc2' && isHighControl(last)) {
            fmt::format_to(std::back_inserter(result), "\\u{:04x}", last);
        } else {
            result += character;
        }
    }
    return result;
}

std::mutex& nextOutputLock()
{
    static std::atomic<std::size_t> made{0}; // counts only
    return outputLocks()[made.fetch_add(1, std::memory_order_relaxed) % OUTPUT_LOCKS];
}

std::shared_ptr<ISink> stderrSink();

/// Where lines of `path` are lost is said where somebody may read it.
void tellUnwritable(const std::string& path, int error)
{
    stderrSink()->write(
        {"KESA_TRACING", SEVERITY_OF_LOSS,
         fmt::format("cannot write to '{}': {}; lines are lost until that works", path, obr::explainError(error))});
}

class DescriptorSink final : public ISink {
public:
    /// `path`: empty for a standard descriptor.
    DescriptorSink(int descriptor, std::string path, bool isJournal)
        : m_path(std::move(path)), m_isJournal(isJournal),
          m_output(descriptor, m_path.empty() ? LineOutput::Ownership::eBORROWED : LineOutput::Ownership::eOWNED)
    {}

    void write(const Line& line) override
    {
        int failure = 0;
        if (hasControls(line.text) || hasControls(line.channel)) {
            const std::string channel = escapeControls(line.channel);
            const std::string text = escapeControls(line.text);
            failure = writePrintable({channel, line.severity, text, line.facility});
        } else {
            failure = writePrintable(line);
        }
        if (failure != 0 && !m_path.empty()) {
            tellUnwritable(m_path, failure);
        }
    }
    void flush() override
    {
        // Whoever ends the process may have been interrupted while it wrote.
        if (const std::unique_lock lock(m_lock, std::try_to_lock); lock.owns_lock()) {
            m_output.flush();
        }
    }

private:
    static constexpr int EVENT_LOG = 7; ///< its lines stand for themselves

    /// The `errno` of the first line that fails after one that did not, else 0.
    int writePrintable(const Line& line)
    {
        const std::lock_guard lock(m_lock); // the times of lines go up
        m_line.clear();
        const auto end = std::back_inserter(m_line);
        if (m_isJournal) {
            fmt::format_to(end, "{}", journalPrefixOf(line.severity));
        }
        if (line.facility == EVENT_LOG) {
            fmt::format_to(end, "{}\n", line.text);
        } else if (m_isJournal) { // which knows the time and the process itself
            fmt::format_to(end, "{} [{}] {}\n", currentCaller().thread, line.channel, line.text);
        } else {
            appendTime();
            const Caller caller = currentCaller();
            fmt::format_to(end, " {:<7} {}/{} [{}] {}\n", levelOf(line.severity), caller.process, caller.thread,
                           line.channel, line.text);
        }
        const int before = m_output.error();
        m_output.write({m_line.data(), m_line.size()});
        return before == 0 ? m_output.error() : 0;
    }
    /// In UTC, to the microsecond.
    void appendTime()
    {
        using namespace std::chrono;
        const auto now = floor<microseconds>(system_clock::now());
        const auto second = floor<seconds>(now);
        const std::time_t time = system_clock::to_time_t(second);
        if (std::exchange(m_time, time) != time) {
            // Not by the C library, whose lock a child may find taken for ever.
            const auto day = floor<days>(second);
            const year_month_day date(day);
            const hh_mm_ss clock(second - day);
            m_timeText = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(date.year()),
                                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                                     clock.hours().count(), clock.minutes().count(), clock.seconds().count());
        }
        fmt::format_to(std::back_inserter(m_line), "{}.{:06}Z", m_timeText, (now - second).count());
    }

    const std::string m_path;
    const bool m_isJournal;
    std::mutex& m_lock = nextOutputLock();

    // Under `m_lock`.
    LineOutput m_output;
    fmt::memory_buffer m_line;
    std::time_t m_time = 0; ///< of `m_timeText`
    std::string m_timeText;
};

/// Whether stderr is the stream that the service manager reads: it names the stream's device and inode.
bool isStderrJournal()
{
    const char* const stream = ::secure_getenv("JOURNAL_STREAM");
    struct stat status {};
    if (stream == nullptr || ::fstat(STDERR_FILENO, &status) != 0) {
        return false;
    }
    return fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

std::shared_ptr<ISink> stderrSink()
{
    return std::make_shared<DescriptorSink>(STDERR_FILENO, "", isStderrJournal());
}

} // namespace

std::array<std::mutex, OUTPUT_LOCKS>& outputLocks()
{
    static auto& locks = *new std::array<std::mutex, OUTPUT_LOCKS>;
    return locks;
}

std::shared_ptr<ISink> openSink(const std::string& description, std::string& reason)
{
    constexpr std::string_view FILE_PREFIX = "file:";
    if (description == "stderr") {
        return stderrSink();
    }
    if (description.compare(0, FILE_PREFIX.size(), FILE_PREFIX) != 0 || description.size() == FILE_PREFIX.size()) {
        reason = "'" + description + "' is no trace sink: use stderr or file:PATH";
        return nullptr;
    }
    const std::string path = description.substr(FILE_PREFIX.size());
    if (path.find('\0') != std::string::npos) {
        reason = "the name of a trace file has a NUL inside; use file:PATH without one";
        return nullptr;
    }
    const int descriptor =
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0640);
    if (descriptor < 0) {
        reason = "cannot open trace file '" + path + "': " + obr::explainError(errno);
        return nullptr;
    }
    return std::make_shared<DescriptorSink>(descriptor, path, false);
}

} // namespace tracing
