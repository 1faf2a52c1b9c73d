// system-watch [EVENTS_FILE]: shows the services that its configuration document names as a live table. It connects to
// each as soon as it is there, asks it once, follows its stream, and begins again when it was lost. Ends on SIGINT and
// SIGTERM.

#include "Board.h"

#include <comm/Scheduler.h>
#include <kesa/FuncCallEvent.h>
#include <kesa/ease/get.h>
#include <kesa/ease/handler.h>
#include <kesa/headers.h>
#include <kesa/responsesemantics.h>
#include <kesa/runtime/v02/KesaRuntime.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <unistd.h>
#include <vector>

namespace {

using kesa::runtime::v02::KesaRuntime;
using Client = std::shared_ptr<kesa::IKesaApi>;
using Resolved = kesa::optional<kesa::runtime::v02::ResolveResult<Client>>;

constexpr comm::TimeNs FRAME = 250 * comm::MILLISECOND;

/// Asks once, blocking, with a limit of two seconds: on a loop of the watcher's own, since the runtime's must not
/// block.
void askOnce(const std::string& path, kesa::IKesaApi& client, examples::Board& board)
{
    const comm::TimeNs begin = comm::now();
    const kesa::GetResult result = kesa::get(client, kesa::Request("retrieve", "/"), 2 * comm::SECOND);
    if (result) {
        board.answered(path, comm::now() - begin, std::string(result.response->getPayload().text()));
    }
}

/// Follows until the connection is lost; then the stream ends with 503, and the next connection begins it anew.
void follow(const std::string& path, kesa::IKesaApi& client, examples::Board& board)
{
    kesa::Request request("retrieve", "/");
    kesa::headers::appendResponseSemantic(request, kesa::responsesemantics::PERSISTENT_STREAM);
    client.request(request, kesa::handler<kesa::Response>(
                                [path, &board](const kesa::Response& response) {
                                    board.streamed(path, std::string(response.getPayload().text()));
                                },
                                [](const kesa::Response&) {}));
}

kesa::Disposable watch(const std::string& path, comm::ActiveObject& worker, examples::Board& board)
{
    board.expect(path);
    return KesaRuntime::getInstance()->trackAndResolveService(
        path, kesa::handler<Resolved>(
                  [path, &worker, &board](const Resolved& resolved) {
                      if (!resolved) {
                          board.lost(path);
                          return;
                      }
                      board.connected(path);
                      follow(path, *resolved->api, board);
                      kesa::post(worker, [path, client = resolved->api, &board] { askOnce(path, *client, board); });
                  },
                  [path, &board](const kesa::Response& error) {
                      board.failed(path, kesa::Response::getErrorMessageWithCode(error));
                  }));
}

/// On a terminal each frame is drawn over the last.
void drawForEver(comm::Reactor& loop, const examples::Board& board, comm::TimeNs when)
{
    loop.startTimer(when, [&loop, &board, when] {
        std::printf("%s%s\n", isatty(STDOUT_FILENO) == 1 ? "\x1b[H\x1b[2J" : "", board.table().c_str());
        std::fflush(stdout);
        drawForEver(loop, board, when + FRAME);
    });
}

} // namespace

int main(int argc, char** argv)
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);

    std::FILE* const events = argc > 1 ? std::fopen(argv[1], "a") : nullptr;
    if (argc > 1 && events == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    if (KesaRuntime::initInstance("system-watch")) {
        std::fputs("system-watch: the runtime did not start\n", stderr);
        return 1;
    }
    const auto& services = KesaRuntime::getInstance()->getConfigAccessor().getServices();
    if (services.empty()) {
        std::fputs("system-watch: the configuration document names no services; set KESA_CONFIG to one that does\n",
                   stderr);
    }
    examples::Board board(events);
    comm::ActiveObject worker("system-watch.worker");
    std::vector<kesa::Disposable> subscriptions;
    for (const auto& service : services) {
        subscriptions.push_back(watch(service.path.toString(), worker, board));
    }
    const auto screen = comm::Scheduler::current().makeReactor("system-watch.screen");
    screen->post([&] { drawForEver(*screen, board, comm::now() + FRAME); });

    int signal = 0;
    sigwait(&ends, &signal);

    screen->stop();
    worker.stop();
    KesaRuntime::shutdown();
    return 0;
}
