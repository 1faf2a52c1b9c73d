#include <kesa/Request.h>
#include <kesa/RequestInfo.h>
#include <kesa/headers.h>

#include <utility>

namespace kesa {

Request::Request(std::string_view command, std::string path, Payload payload,
                 const std::shared_ptr<GenericObject>& headers)
    : m_command(command), m_path(std::move(path)), m_payload(std::move(payload)),
      m_headers(headers ? *headers : GenericObject())
{}

Request::Request(std::string_view command, std::string path, Payload payload,
                 std::shared_ptr<const IHeaderSource> headers)
    : m_command(command), m_path(std::move(path)), m_payload(std::move(payload)), m_arrived(std::move(headers))
{}

const GenericObject& Request::getHeaders() const
{
    return m_arrived ? m_arrived->headers() : m_headers;
}

util::config::Value Request::getHeader(std::string_view name) const
{
    return m_arrived ? m_arrived->find(name) : m_headers[name];
}

void Request::setHeader(std::string_view name, util::config::Value value)
{
    if (m_arrived) {
        m_headers = m_arrived->headers();
        m_arrived.reset();
    }
    m_headers.set(name, std::move(value));
}

void Request::setHeaders(GenericObject headers)
{
    m_headers = std::move(headers);
    m_arrived.reset();
}

void Request::setMimeType(const std::string& name)
{
    setHeader(headers::ACCEPT, name);
}

const util::config::Value& Request::getMimeTypeHeader() const
{
    return getHeaders()[headers::ACCEPT];
}

RequestInfo::RequestInfo(const Request& request)
    : m_command(request.getCommand()), m_path(request.getPath()),
      m_servicePath(request.getHeaders()[headers::SERVICE_PATH].stringView())
{}

} // namespace kesa
