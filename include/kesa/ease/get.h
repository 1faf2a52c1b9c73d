#ifndef KESA_EASE_GET_H
#define KESA_EASE_GET_H

#include <kesa/Duration.h>
#include <kesa/IKesaApi.h>
#include <kesa/ease/body.h>

#include <optional>
#include <string>

namespace kesa {

/// What a blocking call came to: an answer, or why there is none.
struct GetResult {
    std::optional<Response> response;
    unsigned short status = 0; ///< of the error: the service's, or 504 when the time is over; 0 when it has none
    std::string error;         ///< begins with the status, if there is one: "409: there is nothing to play"
    std::optional<Response> errorResponse{}; ///< the error that came, for its headers and body; absent when none did

    explicit operator bool() const noexcept { return response.has_value(); }
};

/// Sends `request` and waits for its first answer, `timeout` at most; whatever the service would say further is
/// cancelled. The service is told how long the caller waits, in whole milliseconds, rounded up: see
/// `RequestContext::deadline`. What is as long as nanoseconds can say,
/// 292 years, is for ever, as `std::chrono::hours::max()`. A request that ends without an answer and
/// without an error has succeeded: its answer is an empty one of status 200.
///
///     const kesa::GetResult cpu = kesa::get(*api, kesa::Request("retrieve", "/cpu"), std::chrono::seconds(2));
///     if (!cpu) { std::cerr << cpu.error << '\n'; }
///     else { std::cout << kesa::body<double>(*cpu.response) << '\n'; }
///
/// SIGINT and SIGTERM end the wait, with "interrupted by SIGINT" and no status, where there is a `kesa::Runtime`: see
/// there.
///
/// A resource begins with '/': another text fails at once, with 400. An empty one is the service itself, as "/" is.
///
/// Not on the runtime's threads, which deliver the answer: on an executor, an updater or an I/O loop it fails at once.
/// So it does on a loop, for a service of this process that is served on the same loop (`kesa::provide` of what
/// `kesa::on` has returned), where it would wait for itself. A ring over several loops is not seen: it ends with 504.
/// `api` stays alive during the call, and it is connected: `get` waits for the answer, not for the connection. One that
/// `kesa::use` has just made is not yet; `kesa::connect` and the `get` that is given a path wait for it.
[[nodiscard]] KESA_API GetResult get(IKesaApi& api, Request request, Duration timeout);

} // namespace kesa

#endif
