#ifndef KESA_RESPONSEHANDLERS_FILTERINGRESPONSEHANDLER_H
#define KESA_RESPONSEHANDLERS_FILTERINGRESPONSEHANDLER_H

#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>
#include <kesa/responsehandlers/Termination.h>

#include <functional>
#include <memory>
#include <utility>

namespace kesa::responsehandlers {

/// Passes the values that satisfy a predicate on to a handler it owns; the others count as accepted. One thread at a
/// time.
template <class T>
class FilteringResponseHandler : public IResponseHandler<T> {
public:
    FilteringResponseHandler(std::unique_ptr<IResponseHandler<T>>&& downstream, std::function<bool(const T&)> predicate)
        : m_downstream(std::move(downstream)), m_predicate(std::move(predicate))
    {}

    bool onNext(const T& value) override
    {
        if (m_termination.refusesValue(__FILE__, __LINE__)) {
            return true;
        }
        return m_predicate(value) && m_downstream->onNext(value);
    }
    void onError(const Response& error) override
    {
        if (!m_termination.refusesEnd("onError")) {
            m_downstream->onError(error);
        }
    }
    void onCompleted() override
    {
        if (!m_termination.refusesEnd("onCompleted")) {
            m_downstream->onCompleted();
        }
    }

private:
    std::unique_ptr<IResponseHandler<T>> m_downstream;
    std::function<bool(const T&)> m_predicate;
    Termination m_termination;
};

} // namespace kesa::responsehandlers

#endif
