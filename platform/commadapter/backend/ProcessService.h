#ifndef KESA_COMMADAPTER_BACKEND_PROCESSSERVICE_H
#define KESA_COMMADAPTER_BACKEND_PROCESSSERVICE_H

#include <kesa/IKesaApi.h>
#include <util/config/Value.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kesa::commadapter {

/// The service that the backend of each process has of its own, under a path that no process need provide:
/// docs/protocol.md, "What a process says of itself". It is registered nowhere, and makes way for a service that the
/// process provides there. Everything is looked up when it is asked for.
class ProcessService final : public IKesaApi {
public:
    static constexpr std::string_view PATH = "/.well-known/process";

    static constexpr std::string_view MAY = "/may"; ///< the resource that says who may ask what

    /// What makes the answers; called on the I/O loop.
    ProcessService(std::function<std::string()> describe,
                   std::function<Response(const util::config::Value& question)> explainAccess);

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override;
    void cancel(void* /*handle*/) override {} // every request has ended inside `request`

private:
    Response answer(const Request& request) const;

    const std::function<std::string()> m_describe;
    const std::function<Response(const util::config::Value& question)> m_explainAccess;
};

} // namespace kesa::commadapter

#endif
