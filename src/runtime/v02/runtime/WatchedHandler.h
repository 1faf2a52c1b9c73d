#ifndef KESA_RUNTIME_V02_WATCHEDHANDLER_H
#define KESA_RUNTIME_V02_WATCHEDHANDLER_H

#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>
#include <runtime/v02/runtime/LoopWatch.h>

#include <memory>
#include <string>
#include <utility>

namespace kesa::runtime::v02 {

/// Puts a handler that others call under a watch. All calls are on its loop.
template <class T>
class WatchedHandler final : public IResponseHandler<T> {
public:
    /// As of `LoopWatch::tell`.
    WatchedHandler(std::unique_ptr<IResponseHandler<T>> handler, LoopWatch& watch, const char* operation,
                   std::string subject)
        : m_handler(std::move(handler)), m_watch(watch), m_operation(operation), m_subject(std::move(subject))
    {}

    bool onNext(const T& value) override
    {
        bool isRefused = false;
        m_watch.tell(m_operation, m_subject, [&] { isRefused = m_handler->onNext(value); });
        return isRefused;
    }
    void onError(const Response& error) override
    {
        m_watch.tell(m_operation, m_subject, [&] { m_handler->onError(error); });
    }
    void onCompleted() override
    {
        m_watch.tell(m_operation, m_subject, [&] { m_handler->onCompleted(); });
    }

private:
    const std::unique_ptr<IResponseHandler<T>> m_handler;
    LoopWatch& m_watch;
    const char* const m_operation;
    const std::string m_subject;
};

} // namespace kesa::runtime::v02

#endif
