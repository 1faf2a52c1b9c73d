#include "openSink.h"
#include "LineOutput.h"

#include <fmt/format.h>
#include <obr/explainError.h>
#include <obr/visible.h>

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

/// Nothing in it needs to be made visible.
bool isPlain(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
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
        if (isPlain(line.text) && isPlain(line.channel)) {
            failure = writePrintable(line);
        } else {
            // A text may hold what a peer sent: it must not be able to begin a line of its own, to command a terminal
            // or to look like something else.
            const std::string channel = obr::visible(line.channel);
            const std::string text = obr::visible(line.text);
            failure = writePrintable({channel, line.severity, text, line.facility});
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

/// -1, with the reason, for what somebody else may have put there so that his file gets the lines, or another loses its
/// content: a link of neither root's nor this user's, and a file that has another name.
int openTraceFile(const std::string& path, std::string& reason)
{
    constexpr int FLAGS = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    struct stat status {};
    int descriptor = ::open(path.c_str(), FLAGS | O_NOFOLLOW, 0640);
    if (descriptor < 0 && ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
        if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
            reason = "the trace file '" + path + "' is a symbolic link of another user; name what it leads to";
            return -1;
        }
        descriptor = ::open(path.c_str(), FLAGS, 0640);
    }
    if (descriptor < 0) {
        reason = "cannot open trace file '" + path + "': " + obr::explainError(errno);
    } else if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink > 1) {
        reason = "the trace file '" + path + "' has another name, as a hard link; remove it, or name another one";
        ::close(std::exchange(descriptor, -1));
    }
    return descriptor;
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
    const int descriptor = openTraceFile(path, reason);
    if (descriptor < 0) {
        return nullptr;
    }
    return std::make_shared<DescriptorSink>(descriptor, path, false);
}

} // namespace tracing
