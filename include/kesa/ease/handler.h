#ifndef KESA_EASE_HANDLER_H
#define KESA_EASE_HANDLER_H

#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>
#include <kesa/responsehandlers/CallableResponseHandler.h>

#include <memory>
#include <type_traits>
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

template <class T, class Next>
constexpr bool takesValues()
{
    if constexpr (std::is_invocable_v<Next&, const T&>) {
        using Result = std::invoke_result_t<Next&, const T&>;
        return std::is_void_v<Result> || std::is_convertible_v<Result, bool>;
    } else {
        return false;
    }
}

} // namespace detail

/// A response handler out of functions, which may own what cannot be copied:
///
///     runtime.trackService("/media/player", kesa::handler<Update>([](const Update& update) { ... }));
///
/// `onNext` returns nothing, or true when it did not accept the value. Without an `onError`, an error is traced.
/// The functions run where the stream is delivered, one at a time; an exception out of them ends the process, after
/// a line in its log that names them by the service.
template <class T, class Next, class Error = detail::TraceError, class Completed = detail::IgnoreEnd>
[[nodiscard]] std::unique_ptr<IResponseHandler<T>> handler(Next onNext, Error onError = {}, Completed onCompleted = {})
{
    constexpr bool TAKES_VALUES = detail::takesValues<T, Next>();
    constexpr bool TAKES_ERRORS = std::is_invocable_v<Error&, const Response&>;
    constexpr bool TAKES_THE_END = std::is_invocable_v<Completed&>;
    static_assert(TAKES_VALUES, "the first function of kesa::handler<T> takes (const T&), and returns nothing, or true "
                                "when it did not accept the value");
    static_assert(TAKES_ERRORS, "the second function of kesa::handler<T> takes (const kesa::Response&), the error");
    static_assert(TAKES_THE_END, "the third function of kesa::handler<T> takes nothing: the stream is complete");
    if constexpr (TAKES_VALUES && TAKES_ERRORS && TAKES_THE_END) {
        return std::make_unique<responsehandlers::CallableResponseHandler<T, Next, Error, Completed>>(
            std::move(onNext), std::move(onError), std::move(onCompleted));
    } else {
        return nullptr;
    }
}

} // namespace kesa

#endif
