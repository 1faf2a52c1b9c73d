// system-watch [EVENTS_FILE]: shows every service below /system as a live table, whoever provides it. It connects to
// each as soon as it is there, asks it once, follows its stream, and begins again when it was lost. Ends on SIGINT and
// SIGTERM.

#include "Board.h"

#include <comm/ActiveObject.h>
#include <kesa/FuncCallEvent.h>
#include <kesa/ease/Runtime.h>
#include <kesa/ease/announceCrashes.h>
#include <kesa/ease/found.h>
#include <kesa/ease/get.h>
#include <kesa/ease/handler.h>
#include <kesa/headers.h>
#include <kesa/reasonOf.h>
#include <kesa/responsesemantics.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <unistd.h>

namespace {

using Client = std::shared_ptr<kesa::IKesaApi>;

/// Asks once, blocking, with a limit of two seconds: on a loop of the watcher's own, since the runtime's must not
/// block.
void askOnce(const std::string& path, kesa::IKesaApi& client, examples::Board& board)
{
    const comm::TimeNs begin = comm::now();
    const kesa::GetResult result = kesa::get(client, kesa::Request("retrieve", "/"), std::chrono::seconds(2));
    if (result) {
        board.answered(path, comm::now() - begin, std::string(result.response->getPayload().text()));
    }
}

/// Where a request was made, and its handle there.
struct Stream {
    Client client;
    void* handle = nullptr;
};

/// Follows until the connection is lost; the next connection begins it anew.
Stream follow(const std::string& path, const Client& client, examples::Board& board)
{
    kesa::Request request("retrieve", "/");
    kesa::headers::appendResponseSemantic(request, kesa::responsesemantics::PERSISTENT_STREAM);
    void* const handle =
        client->request(request, kesa::handler<kesa::Response>(
                                     [path, &board](const kesa::Response& response) {
                                         board.streamed(path, std::string(response.getPayload().text()));
                                     },
                                     [](const kesa::Response&) {}));
    return {client, handle};
}

kesa::Disposable watch(kesa::runtime::v02::IRuntimeRegistry& runtime, comm::ActiveObject& worker,
                       examples::Board& board)
{
    return runtime.trackAndResolveServices(
        kesa::serviceregistry::Query("/system/**"),
        kesa::handler<kesa::FoundByQuery>(
            [&worker, &board, streams = std::map<std::string, Stream>()](const kesa::FoundByQuery& resolved) mutable {
                const std::string path = resolved.serviceDef.path.toString();
                if (!resolved.api) {
                    // It has mostly ended with the connection; but the next one may be there before this is told.
                    if (const auto lost = streams.extract(path)) {
                        lost.mapped().client->cancel(lost.mapped().handle);
                    }
                    board.lost(path);
                    return;
                }
                board.connected(path, resolved.serviceDef);
                streams[path] = follow(path, *resolved.api, board);
                kesa::post(worker, [path, client = *resolved.api, &board] { askOnce(path, *client, board); });
            },
            [](const kesa::Response& error) {
                std::fprintf(stderr, "system-watch: %s\n", kesa::reasonOf(error).c_str());
            }));
}

/// On a terminal each frame is drawn over the last.
void draw(const examples::Board& board)
{
    std::printf("%s%s\n", isatty(STDOUT_FILENO) == 1 ? "\x1b[H\x1b[2J" : "", board.table().c_str());
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    kesa::announceCrashes();
    std::FILE* const events = argc > 1 ? std::fopen(argv[1], "a") : nullptr;
    if (argc > 1 && events == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    examples::Board board(events);
    comm::ActiveObject worker("system-watch.worker"); // before the runtime: its handlers use it to the end
    kesa::Runtime runtime = kesa::startOrExit("system-watch");
    const kesa::Disposable subscription = watch(*runtime, worker, board);

    runtime.runUntilSignal(std::chrono::milliseconds(250), [&board] { draw(board); });

    worker.stop();
    return 0;
}
