#ifndef KESA_SERVICEREGISTRY_PROTOCOL_ANSWERWRITER_H
#define KESA_SERVICEREGISTRY_PROTOCOL_ANSWERWRITER_H

#include <kesa/IResponseHandler.h>
#include <kesa/Request.h>
#include <kesa/RequestInfo.h>
#include <kesa/Response.h>
#include <kesa/core/PayloadConversion.h>
#include <kesa/headers.h>
#include <kesa/runtime/mimetype.h>
#include <kesa/serviceregistry/WriteOnce.h>

#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace kesa::serviceregistry {

/// Writes what the registry answers to one request, in the format that request asked for, with one serializer for the
/// whole stream. It lives with the registry until the stream ends. One thread at a time.
template <class T>
class AnswerWriter : public IResponseHandler<T> {
public:
    /// `operation` is a literal, for error reports.
    AnswerWriter(std::unique_ptr<IResponseHandler<Response>>&& downstream, const Request& request,
                 const char* operation)
        : m_downstream(std::move(downstream)), m_mimeType(runtime::getMimeType(request.getMimeTypeHeader())),
          m_info(request), m_serializer(serializer::createSerializerFor(m_mimeType)), m_operation(operation)
    {}

    bool onNext(const T& value) override
    {
        if (!m_serializer) {
            return obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 16, m_mimeType);
        }
        auto payload = write(value);
        if (!payload) {
            return obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 13, m_operation, "serialization error");
        }
        Response response(200, std::move(*payload));
        headers::appendRequestInfo(response, m_info);
        return m_downstream->onNext(response);
    }
    void onError(const Response& error) override
    {
        Response response = error;
        headers::appendRequestInfo(response, m_info);
        m_downstream->onError(response);
    }
    void onCompleted() override { m_downstream->onCompleted(); }

private:
    using Form = WriteOnce::Form;

    optional<Payload> write(const T& value)
    {
        if constexpr (std::is_same_v<T, ServiceDef>) {
            const WriteOnce* const once = WriteOnce::current();
            const Payload* const written = once != nullptr ? once->find(value, m_mimeType) : nullptr;
            return written != nullptr ? *written : writeAnew(value);
        } else if constexpr (std::is_same_v<T, RegistryUpdate>) {
            return writeOnce(value, value, Form::eALONE);
        } else if constexpr (std::is_same_v<T, std::vector<RegistryUpdate>>) {
            return value.size() == 1 ? writeOnce(value, value.front(), Form::eLIST) : writeAnew(value);
        } else {
            return writeAnew(value);
        }
    }
    optional<Payload> writeOnce(const T& value, const RegistryUpdate& update, Form form)
    {
        WriteOnce* const once = WriteOnce::current();
        const Payload* const written = once != nullptr ? once->find(update, form, m_mimeType) : nullptr;
        if (written != nullptr) {
            return *written;
        }
        auto payload = writeAnew(value);
        if (payload && once != nullptr) {
            once->keep(update, form, *payload);
        }
        return payload;
    }
    optional<Payload> writeAnew(const T& value) { return serializer::toPayload(*m_serializer, value, m_mimeType); }

    std::unique_ptr<IResponseHandler<Response>> m_downstream;
    std::string m_mimeType;
    RequestInfo m_info;
    std::unique_ptr<serializer::IStructuredSerializer> m_serializer;
    const char* m_operation;
};

class TrackServiceResponseHandler final : public AnswerWriter<RegistryUpdate> {
public:
    TrackServiceResponseHandler(std::unique_ptr<IResponseHandler<Response>>&& downstream, const Request& request)
        : AnswerWriter(std::move(downstream), request, "operation trackService")
    {}
};

class QueryRegistryResponseHandler final : public AnswerWriter<std::vector<RegistryUpdate>> {
public:
    QueryRegistryResponseHandler(std::unique_ptr<IResponseHandler<Response>>&& downstream, const Request& request)
        : AnswerWriter(std::move(downstream), request, "operation queryRegistry")
    {}
};

class RegisterServiceResponseHandler final : public AnswerWriter<ServiceDef> {
public:
    RegisterServiceResponseHandler(std::unique_ptr<IResponseHandler<Response>>&& downstream, const Request& request)
        : AnswerWriter(std::move(downstream), request, "operation registerService")
    {}
};

class ExplainResponseHandler final : public AnswerWriter<GenericObject> {
public:
    ExplainResponseHandler(std::unique_ptr<IResponseHandler<Response>>&& downstream, const Request& request)
        : AnswerWriter(std::move(downstream), request, "operation explain")
    {}
};

} // namespace kesa::serviceregistry

#endif
