#include "output.h"

#include "displayWidth.h"

#include <comm/Scheduler.h>
#include <obr/ErrorStorage.h>
#include <obr/visible.h>
#include <util/config/JSONParser.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace kesactl {

using obr::visible;
using obr::visibleLines;
namespace {

/// What has a reader that can go. A terminal that goes sends its signal.
bool isPipeOrSocket(int descriptor)
{
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

/// In cells; 0 when `output` is no terminal, or one that does not say.
std::size_t terminalWidth(int output)
{
    winsize size{};
    return ::isatty(output) != 0 && ::ioctl(output, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

/// Where a line goes on below itself: after "  -> ", after "1. ", or where its second column begins.
std::size_t indentOf(std::string_view line)
{
    constexpr std::size_t MOST = 24;
    const std::size_t begin = std::min(line.find_first_not_of(' '), line.size());
    const std::size_t space = line.find(' ', begin);
    const std::string_view first = line.substr(begin, space == std::string_view::npos ? 0 : space - begin);
    if (!first.empty() && (first == "->" || first.find_first_not_of("0123456789.") == std::string_view::npos)) {
        return space + 1;
    }
    const std::size_t gap = line.find("  ", begin);
    const std::size_t second = gap == std::string_view::npos ? gap : line.find_first_not_of(' ', gap);
    const std::size_t column = displayWidth(line.substr(0, second));
    return second != std::string_view::npos && column <= MOST ? column : begin == 0 ? 2 : begin;
}

std::string breakLine(std::string_view line, std::size_t width)
{
    const std::string margin(indentOf(line), ' ');
    std::string text;
    std::size_t used = 0; // of the last line
    std::size_t begin = 0;
    while (begin < line.size()) {
        const std::size_t wordBegin = std::min(line.find_first_not_of(' ', begin), line.size());
        const std::size_t end = std::min(line.find(' ', wordBegin), line.size());
        const std::size_t size = displayWidth(line.substr(begin, end - begin));
        if (used != 0 && used + size > width) {
            text.append("\n").append(margin).append(line.substr(wordBegin, end - wordBegin));
            used = margin.size() + displayWidth(line.substr(wordBegin, end - wordBegin));
        } else {
            text.append(line.substr(begin, end - begin));
            used += size;
        }
        begin = end;
    }
    return text;
}

/// `all`, made visible, with each line changed in the width of the terminal; unchanged when `output` is none.
template <class Change>
std::string changeLines(const std::string& all, int output, Change change)
{
    std::string text = visibleLines(all);
    const std::size_t width = terminalWidth(output);
    if (width == 0) {
        return text;
    }
    std::string whole;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        whole.append(change(std::string_view(text).substr(begin, end - begin), width));
        whole.append(end < text.size() ? "\n" : "");
        begin = end + 1;
    }
    return whole;
}

std::string cut(std::string_view line, std::size_t width)
{
    return displayWidth(line) > width ? std::string(beginning(line, width - 1)).append("…") : std::string(line);
}

/// With an ellipsis in the place of what is left out.
std::string withoutMiddle(std::string_view text, std::size_t width)
{
    const std::size_t size = displayWidth(text);
    if (size <= width) {
        return std::string(text);
    }
    const std::string_view first = beginning(text, (width - 1) / 2);
    const std::size_t leftOut = size - (width - 1 - displayWidth(first)); // before its end, with `first`
    return std::string(first).append("…").append(text.substr(beginning(text, leftOut).size()));
}

void write(std::string_view text)
{
    const bool isWritten = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (isWritten && std::fflush(stdout) == 0) {
        return;
    }
    if (errno == EPIPE) {
        ReaderWatch::fail();
    }
    throw Failure{ExitCode::eNOT_WRITTEN, "the output cannot be written: " + std::system_category().message(errno)};
}

} // namespace

void printFailure(const Failure& failure, bool isJson)
{
    if (failure.text.empty()) {
        return;
    }
    if (!isJson) {
        const std::string advice = failure.advice.empty() ? "" : "\n  -> " + visible(failure.advice);
        const std::string text = "kesactl: " + visible(failure.text) + advice;
        std::fprintf(stderr, "%s\n", changeLines(text, STDERR_FILENO, breakLine).c_str());
        return;
    }
    const std::string status = failure.status == 0 ? "" : fmt::format(R"(,"status":{})", failure.status);
    const std::string line = fmt::format(R"({{"error":{},"exitCode":{}{}{}}})", asJsonString(failure.sentence()),
                                         static_cast<int>(failure.exitCode), status, failure.members);
    std::fprintf(stderr, "%s\n", visibleLines(line).c_str());
}

std::string wrapped(const std::string& text)
{
    return changeLines(text, STDOUT_FILENO, breakLine);
}

bool fits(const std::string& text)
{
    return fitted(text) == visibleLines(text);
}

std::string fitted(const std::string& text)
{
    return changeLines(text, STDOUT_FILENO, cut);
}

std::string aligned(std::vector<std::vector<std::string>> rows)
{
    for (std::vector<std::string>& row : rows) {
        std::transform(row.begin(), row.end(), row.begin(), visible);
    }
    std::vector<std::size_t> widths(rows.front().size());
    for (const std::vector<std::string>& row : rows) {
        for (std::size_t column = 0; column + 1 < row.size(); ++column) {
            widths[column] = std::max(widths[column], displayWidth(row[column]));
        }
    }
    std::string text;
    for (const std::vector<std::string>& row : rows) {
        for (std::size_t column = 0; column + 1 < row.size(); ++column) {
            text += padded(row[column], widths[column]) + "  ";
        }
        text += row.back() + '\n';
    }
    return text;
}

std::string alignedToFit(std::vector<std::vector<std::string>> rows, std::size_t column)
{
    std::string whole = aligned(rows);
    if (fits(whole)) {
        return whole;
    }
    const std::size_t most = std::max<std::size_t>(terminalWidth(STDOUT_FILENO) / 2, 20); // less would say nothing
    for (std::vector<std::string>& row : rows) {
        row[column] = withoutMiddle(visible(row[column]), most);
    }
    return aligned(std::move(rows));
}

std::string firstOf(const std::vector<std::string>& all)
{
    constexpr std::size_t MOST = 3;
    std::string text;
    for (std::size_t i = 0; i < std::min(MOST, all.size()); ++i) {
        text.append(i == 0 ? "" : ", ").append(all[i]);
    }
    return all.size() > MOST ? fmt::format("{} and {} more", text, all.size() - MOST) : text;
}

std::string asJsonString(std::string_view text)
{
    const std::string list = util::config::Value(util::config::Value::Array{util::config::Value(text)}).toText();
    return list.substr(1, list.size() - 2);
}

void print(const std::string& text)
{
    write(visibleLines(text));
}

void printValue(const std::string& text)
{
    write(::isatty(STDOUT_FILENO) != 0 ? visibleLines(text) : text);
}

std::string asJsonLine(std::string_view json, const std::string& what)
{
    util::config::Value value;
    if (util::config::JSONParser().parseString(json, value)) {
        const std::string reason = obr::ErrorStorage::reason();
        obr::ErrorStorage::ack();
        throw Failure{ExitCode::eFAILED, what + ": " + reason};
    }
    std::string line(json); // line breaks stand between its parts only
    std::replace_if(
        line.begin(), line.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
    return line;
}

ReaderWatch::ReaderWatch(std::function<void()> gone) : m_loop(comm::Scheduler::current().makeReactor("kesactl.reader"))
{
    if (!isPipeOrSocket(STDOUT_FILENO)) {
        return;
    }
    m_loop->post([loop = m_loop.get(), gone = std::move(gone)] {
        const auto id = std::make_shared<comm::Reactor::Id>(0);
        *id = loop->watch(STDOUT_FILENO, comm::Reactor::eNONE, [loop, gone, id](unsigned) {
            loop->unwatch(*id);
            gone();
        });
    });
}

ReaderWatch::~ReaderWatch()
{
    m_loop->stop();
}

void ReaderWatch::fail()
{
    throw Failure{ExitCode::eNOT_WRITTEN, {}};
}

} // namespace kesactl
