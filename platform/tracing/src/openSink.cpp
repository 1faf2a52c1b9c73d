// The one unit that knows spdlog. Its sinks are held directly and its registry is never touched, so that an
// application's own use of spdlog is left alone.
#include "openSink.h"
#include "LineOutput.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tracing {
namespace {

/// One sink of spdlog over `LineOutput`; it gets lines of which nothing is left to format when they are bare.
class DescriptorSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    DescriptorSink(int descriptor, LineOutput::Ownership ownership)
        : base_sink(std::make_unique<spdlog::pattern_formatter>("%Y-%m-%dT%H:%M:%S.%fZ %-7l %P/%t [%n] %v",
                                                                spdlog::pattern_time_type::utc)),
          m_output(descriptor, ownership)
    {}

    void writeBare(std::string_view prefix, std::string_view text)
    {
        const std::lock_guard lock(mutex_);
        m_line.clear();
        m_line.append(prefix.data(), prefix.data() + prefix.size());
        m_line.append(text.data(), text.data() + text.size());
        m_line.push_back('\n');
        m_output.write({m_line.data(), m_line.size()});
    }

private:
    void sink_it_(const spdlog::details::log_msg& message) override
    {
        m_line.clear();
        formatter_->format(message, m_line);
        m_output.write({m_line.data(), m_line.size()});
    }
    void flush_() override {}

    LineOutput m_output;
    spdlog::memory_buf_t m_line;
};

spdlog::level::level_enum levelOf(int severity)
{
    switch (severity) {
    case 1:
        return spdlog::level::debug;
    case 2:
        return spdlog::level::info;
    case 3:
        return spdlog::level::warn;
    default:
        return spdlog::level::err;
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

class SpdlogSink final : public ISink {
public:
    SpdlogSink(int descriptor, LineOutput::Ownership ownership, bool isJournal)
        : m_isJournal(isJournal), m_sink(descriptor, ownership)
    {}

    void write(const Line& line) override
    {
        if (std::any_of(line.text.begin(), line.text.end(), mayBeControl)) {
            const std::string escaped = escapeControls(line.text);
            writePrintable({line.channel, line.severity, escaped, line.facility});
        } else {
            writePrintable(line);
        }
    }

private:
    static constexpr int EVENT_LOG = 7;

    void writePrintable(const Line& line)
    {
        const std::string_view prefix = m_isJournal ? journalPrefixOf(line.severity) : std::string_view();
        if (line.facility == EVENT_LOG) {
            m_sink.writeBare(prefix, line.text);
            return;
        }
        const spdlog::string_view_t channel(line.channel.data(), line.channel.size());
        const spdlog::string_view_t text(line.text.data(), line.text.size());
        const spdlog::details::log_msg message(channel, levelOf(line.severity), text);
        if (m_isJournal) {
            // The journal knows the time and the process itself.
            m_sink.writeBare(prefix, fmt::format("{} [{}] {}", message.thread_id, line.channel, line.text));
        } else {
            m_sink.log(message);
        }
    }

    const bool m_isJournal;
    DescriptorSink m_sink;
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

} // namespace

std::shared_ptr<ISink> openSink(const std::string& description, std::string& reason)
{
    constexpr std::string_view FILE_PREFIX = "file:";
    if (description == "stderr") {
        return std::make_shared<SpdlogSink>(STDERR_FILENO, LineOutput::Ownership::eBORROWED, isStderrJournal());
    }
    if (description.compare(0, FILE_PREFIX.size(), FILE_PREFIX) != 0 || description.size() == FILE_PREFIX.size()) {
        reason = "'" + description + "' is no trace sink: use stderr or file:PATH";
        return nullptr;
    }
    const std::string path = description.substr(FILE_PREFIX.size());
    const int descriptor =
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0640);
    if (descriptor < 0) {
        reason = "cannot open trace file '" + path + "': " + std::system_category().message(errno);
        return nullptr;
    }
    return std::make_shared<SpdlogSink>(descriptor, LineOutput::Ownership::eOWNED, false);
}

} // namespace tracing
