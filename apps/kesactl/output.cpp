#include "output.h"

#include "Failure.h"

#include <comm/Scheduler.h>
#include <obr/ErrorStorage.h>
#include <util/config/JSONParser.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace kesactl {
namespace {

/// What has a reader that can go. A terminal that goes sends its signal.
bool isPipeOrSocket(int descriptor)
{
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

} // namespace

void print(const std::string& text)
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
