#ifndef KESA_EASE_HANDLER_H
#define KESA_EASE_HANDLER_H

#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>
#include <kesa/responsehandlers/CallableResponseHandler.h>

#include <memory>
#include <utility>

namespace kesa {

namespace detail {

/// What `handler` does with an error nobody asked for: one line of severity 3 on the channel "KESA_EASE".
struct TraceError {
    KESA_API void operator()(const Response& error) const;
};

struct IgnoreEnd {
    void operator()() const {}
};

} // namespace detail

/// A response handler out of functions, which may own what cannot be copied:
///
///     runtime.trackService("/media/player", kesa::handler<Update>([](const Update& update) { ... }));
///
/// `onNext` returns nothing, or true when it did not accept the value. Without an `onError`, an error is traced.
/// The functions run where the stream is delivered, one at a time; an exception out of them ends the process.
template <class T, class Next, class Error = detail::TraceError, class Completed = detail::IgnoreEnd>
[[nodiscard]] std::unique_ptr<IResponseHandler<T>> handler(Next onNext, Error onError = {}, Completed onCompleted = {})
{
    return std::make_unique<responsehandlers::CallableResponseHandler<T, Next, Error, Completed>>(
        std::move(onNext), std::move(onError), std::move(onCompleted));
}

} // namespace kesa

#endif
