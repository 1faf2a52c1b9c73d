#ifndef KESA_RESPONSEHANDLERS_FUNCRESPONSEHANDLER_H
#define KESA_RESPONSEHANDLERS_FUNCRESPONSEHANDLER_H

#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>
#include <kesa/responsehandlers/Termination.h>

#include <functional>
#include <utility>

namespace kesa::responsehandlers {

/// A handler made of three functions, none of them empty. One thread at a time; an exception out of a function ends
/// the process.
template <class T>
class FuncResponseHandler : public IResponseHandler<T> {
public:
    FuncResponseHandler(std::function<bool(const T&)> next, std::function<void(const Response&)> error,
                        std::function<void()> completed)
        : m_next(std::move(next)), m_error(std::move(error)), m_completed(std::move(completed))
    {}

    bool onNext(const T& value) noexcept override
    {
        return m_termination.refusesValue(__FILE__, __LINE__) || m_next(value);
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
    std::function<bool(const T&)> m_next;
    std::function<void(const Response&)> m_error;
    std::function<void()> m_completed;
    Termination m_termination;
};

} // namespace kesa::responsehandlers

#endif
