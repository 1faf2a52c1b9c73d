#ifndef KESA_RESPONSEHANDLERS_MAPPINGRESPONSEHANDLER_H
#define KESA_RESPONSEHANDLERS_MAPPINGRESPONSEHANDLER_H

#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>
#include <kesa/responsehandlers/Termination.h>

#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace kesa::responsehandlers {

/// Converts each value and passes it on to a handler it owns. A value for which the function yields nothing is not
/// accepted and not passed on; the function records why. To pass on an empty `optional`, the function yields one
/// that holds it. One thread at a time.
template <class From, class To, class Handled = To>
class MappingResponseHandler : public IResponseHandler<From> {
public:
    using Mapping = std::function<std::optional<To>(const From&)>;

    MappingResponseHandler(std::unique_ptr<IResponseHandler<Handled>>&& downstream, Mapping mapping)
        : m_downstream(std::move(downstream)), m_mapping(std::move(mapping))
    {}

    bool onNext(const From& value) override
    {
        if (m_termination.refusesValue(__FILE__, __LINE__)) {
            return true;
        }
        const std::optional<To> mapped = m_mapping(value);
        return !mapped.has_value() || m_downstream->onNext(*mapped);
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
    std::unique_ptr<IResponseHandler<Handled>> m_downstream;
    Mapping m_mapping;
    Termination m_termination;
};

} // namespace kesa::responsehandlers

#endif
