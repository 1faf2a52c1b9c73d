#ifndef KESA_EASE_HANDLER_H
#define KESA_EASE_HANDLER_H

#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>
#include <kesa/responsehandlers/Termination.h>

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

template <class T, class Next, class Error, class Completed>
class LambdaHandler final : public IResponseHandler<T> {
public:
    LambdaHandler(Next next, Error error, Completed completed)
        : m_next(std::move(next)), m_error(std::move(error)), m_completed(std::move(completed))
    {}

    bool onNext(const T& value) noexcept override
    {
        if (m_termination.refusesValue(__FILE__, __LINE__)) {
            return true;
        }
        if constexpr (std::is_void_v<std::invoke_result_t<Next&, const T&>>) {
            m_next(value);
            return false;
        } else {
            return m_next(value);
        }
    }
    void onError(const Response& error) noexcept override
    {
        if (!m_termination.refusesEnd("onError")) {
            m_error(error);
        }
    }
    void onCompleted() noexcept override
    {
        if (!m_termination.refusesEnd("onCompleted")) {
            m_completed();
        }
    }

private:
    Next m_next;
    Error m_error;
    Completed m_completed;
    responsehandlers::Termination m_termination;
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
    return std::make_unique<detail::LambdaHandler<T, Next, Error, Completed>>(std::move(onNext), std::move(onError),
                                                                              std::move(onCompleted));
}

} // namespace kesa

#endif
