#ifndef KESA_EASE_GET_H
#define KESA_EASE_GET_H

#include <comm/Clock.h>
#include <kesa/IKesaApi.h>

#include <optional>
#include <string>

namespace kesa {

/// What a blocking call came to: an answer, or why there is none.
struct GetResult {
    std::optional<Response> response;
    unsigned short status = 0; ///< of the error; 0 when it is not the service's
    std::string error;

    explicit operator bool() const noexcept { return response.has_value(); }
};

/// Sends `request` and waits for its first answer, `timeout` at most; whatever the service would say further is
/// cancelled. A request that ends without an answer and without an error has succeeded: its answer is an empty one of
/// status 200.
///
///     const kesa::GetResult cpu = kesa::get(*api, kesa::Request("retrieve", "/cpu"), 2 * comm::SECOND);
///     if (!cpu) { std::cerr << cpu.error << '\n'; }
///
/// Not on the runtime's threads, which deliver the answer: on an executor, an updater or an I/O loop it fails at once.
/// `api` stays alive during the call.
[[nodiscard]] KESA_API GetResult get(IKesaApi& api, const Request& request, comm::TimeNs timeout);

} // namespace kesa

#endif
