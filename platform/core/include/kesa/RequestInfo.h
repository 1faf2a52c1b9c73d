#ifndef KESA_REQUESTINFO_H
#define KESA_REQUESTINFO_H

#include <kesa/Request.h>

#include <string>

namespace kesa {

/// What an answer repeats of its request; outlives the request.
class KESA_API RequestInfo {
public:
    explicit RequestInfo(const Request& request);

    const std::string& getCommand() const noexcept { return m_command; }
    const std::string& getPath() const noexcept { return m_path; }
    const std::string& getServicePath() const noexcept { return m_servicePath; }

private:
    std::string m_command;
    std::string m_path;
    std::string m_servicePath;
};

} // namespace kesa

#endif
