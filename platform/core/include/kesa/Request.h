#ifndef KESA_REQUEST_H
#define KESA_REQUEST_H

#include <kesa/GenericObject.h>
#include <kesa/IHeaderSource.h>
#include <kesa/Payload.h>
#include <kesa/commands.h>

#include <memory>
#include <string>
#include <string_view>

namespace kesa {

/// A request to a service: a command, mostly one of commands.h, the path of a resource inside the service, a body and
/// headers.
class KESA_API Request {
public:
    Request() = default;
    /// `headers` may be null; it is not shared with whoever changes it afterwards through another pointer.
    Request(std::string_view command, std::string path, Payload payload = Payload(),
            const std::shared_ptr<GenericObject>& headers = nullptr);
    /// A request that arrived: its headers are decoded at the first question for them.
    Request(std::string_view command, std::string path, Payload payload, std::shared_ptr<const IHeaderSource> headers);

    const std::string& getCommand() const noexcept { return m_command; }
    const std::string& getPath() const noexcept { return m_path; }
    const Payload& getPayload() const noexcept { return m_payload; }
    /// The headers; empty when there are none.
    const GenericObject& getHeaders() const;
    /// One header; undefined when absent. Of a request that arrived the others stay undecoded.
    util::config::Value getHeader(std::string_view name) const;
    /// Replaces a header of that name. Copies made before keep theirs.
    void setHeader(std::string_view name, util::config::Value value);
    /// Replaces all of them.
    void setHeaders(GenericObject headers);

    /// Names the format in which answers are wanted, the header "$accept".
    void setMimeType(const std::string& name);
    /// The value of "$accept", a string or an array of strings; undefined when absent.
    const util::config::Value& getMimeTypeHeader() const;

private:
    std::string m_command;
    std::string m_path;
    Payload m_payload;
    GenericObject m_headers;
    std::shared_ptr<const IHeaderSource> m_arrived; // the headers, while nobody has changed them
};

} // namespace kesa

#endif
