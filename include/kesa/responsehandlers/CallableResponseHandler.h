#ifndef KESA_RESPONSEHANDLERS_CALLABLERESPONSEHANDLER_H
#define KESA_RESPONSEHANDLERS_CALLABLERESPONSEHANDLER_H

#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>
#include <kesa/responsehandlers/Termination.h>

#include <type_traits>
#include <utility>

namespace kesa::responsehandlers {

/// A handler made of three callables of any type, which may be move-only. One that takes a value answers true when it
/// did not accept it, or nothing. One thread at a time; an exception out of a callable ends the process.
template <class T, class Next, class Error, class Completed>
class CallableResponseHandler : public IResponseHandler<T> {
public:
    CallableResponseHandler(Next next, Error error, Completed completed)
        : m_next(std::move(next)), m_error(std::move(error)), m_completed(std::move(completed))
    {}

    bool onNext(const T& value) override
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
    void onError(const Response& error) override
    {
        if (!m_termination.refusesEnd("onError")) {
            m_error(error);
        }
    }
    void onCompleted() override
    {
        if (!m_termination.refusesEnd("onCompleted")) {
            m_completed();
        }
    }

private:
    Next m_next;
    Error m_error;
    Completed m_completed;
    Termination m_termination;
};

} // namespace kesa::responsehandlers

#endif
