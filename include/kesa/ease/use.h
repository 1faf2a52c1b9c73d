#ifndef KESA_EASE_USE_H
#define KESA_EASE_USE_H

#include <kesa/ease/Client.h>
#include <kesa/ease/get.h>

#include <memory>
#include <string>

namespace kesa {

/// Follows the service at `path` through the runtime of this process. Never null: without a runtime, or while it ends,
/// `reason` says that there is none, as do `connect` and `get` (503).
[[nodiscard]] KESA_API std::shared_ptr<Client> use(const std::string& path);
/// The same through `runtime`, which outlives no call to the client's operations.
[[nodiscard]] KESA_API std::shared_ptr<Client> use(runtime::v02::IRuntimeRegistry& runtime, const std::string& path);

/// What `connect` came to: a client that is connected, or why there is none, and what `Client::reason` says.
struct ConnectResult {
    std::shared_ptr<Client> client;
    unsigned short status = 0; ///< of the error: 504 when the time is over; 0 when it has none, as an interrupted wait
    std::string error;         ///< begins with the status, if there is one: "504: not connected within 2000 ms: ..."

    explicit operator bool() const noexcept { return client != nullptr; }
};

/// `use`, and waits until it is connected, `timeout` at most. Nothing is left behind when it fails.
///
///     const kesa::ConnectResult player = kesa::connect("/media/player", std::chrono::seconds(2));
///     if (!player) { std::cerr << player.error << '\n'; }
///
/// Not on the runtime's threads: on an executor, an updater or an I/O loop it fails at once.
[[nodiscard]] KESA_API ConnectResult connect(const std::string& path, Duration timeout);
[[nodiscard]] KESA_API ConnectResult connect(runtime::v02::IRuntimeRegistry& runtime, const std::string& path,
                                             Duration timeout);

/// One question to the service at `path`: connects, asks and waits, all within `timeout`. Whoever asks often keeps
/// the client of `connect` or `use`.
///
///     const kesa::GetResult title = kesa::get("/media/player", kesa::Request("retrieve", "/title"),
///     std::chrono::seconds(2));
///
/// Where, and what about the timeout, as for the other `get`.
[[nodiscard]] KESA_API GetResult get(const std::string& path, Request request, Duration timeout);
[[nodiscard]] KESA_API GetResult get(runtime::v02::IRuntimeRegistry& runtime, const std::string& path, Request request,
                                     Duration timeout);

} // namespace kesa

#endif
