#ifndef KESA_RESPONSEHANDLERS_DOONEACHRESPONSEHANDLER_H
#define KESA_RESPONSEHANDLERS_DOONEACHRESPONSEHANDLER_H

#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>
#include <kesa/responsehandlers/Termination.h>

#include <memory>
#include <utility>

namespace kesa::responsehandlers {

/// Lets an observer see the stream before the main handler gets it; owns both. A value the observer does not accept
/// never reaches the main handler. One thread at a time.
template <class T>
class DoOnEachResponseHandler : public IResponseHandler<T> {
public:
    DoOnEachResponseHandler(std::unique_ptr<IResponseHandler<T>>&& observer,
                            std::unique_ptr<IResponseHandler<T>>&& downstream)
        : m_observer(std::move(observer)), m_downstream(std::move(downstream))
    {}

    bool onNext(const T& value) override
    {
        return m_termination.refusesValue(__FILE__, __LINE__) || m_observer->onNext(value) ||
               m_downstream->onNext(value);
    }
    void onError(const Response& error) override
    {
        if (!m_termination.refusesEnd("onError")) {
            m_observer->onError(error);
            m_downstream->onError(error);
        }
    }
    void onCompleted() override
    {
        if (!m_termination.refusesEnd("onCompleted")) {
            m_observer->onCompleted();
            m_downstream->onCompleted();
        }
    }

private:
    std::unique_ptr<IResponseHandler<T>> m_observer;
    std::unique_ptr<IResponseHandler<T>> m_downstream;
    Termination m_termination;
};

} // namespace kesa::responsehandlers

#endif
