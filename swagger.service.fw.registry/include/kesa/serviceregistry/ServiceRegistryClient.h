#ifndef KESA_SERVICEREGISTRY_SERVICEREGISTRYCLIENT_H
#define KESA_SERVICEREGISTRY_SERVICEREGISTRYCLIENT_H

#include <kesa/IKesaApi.h>
#include <kesa/responsesemantics.h>
#include <kesa/serviceregistry/IServiceRegistry.h>

#include <string>
#include <string_view>

namespace kesa::serviceregistry {

/// A registry in another process, as requests through a client object of its service. Any thread; answers come on the
/// client object's loop. An answer that cannot be read is dropped and leaves its stream open.
class KESA_API ServiceRegistryClient final : public IServiceRegistry {
public:
    /// `api` outlives this object. Bodies are written in `mimeType`, in which answers are wanted too.
    ServiceRegistryClient(IKesaApi* api, std::string mimeType);

    void* queryRegistry(std::unique_ptr<IResponseHandler<std::vector<RegistryUpdate>>>&& handler,
                        const Query& query) override;
    void* registerService(std::unique_ptr<IResponseHandler<ServiceDef>>&& handler, const Path& path,
                          const ServiceDef& serviceDef) override;
    void* trackService(std::unique_ptr<IResponseHandler<RegistryUpdate>>&& handler, const Path& path,
                       const optional<bool>& includeMetaInfo) override;
    void cancelRequest(void* handle) override;
    void* explain(std::unique_ptr<IResponseHandler<GenericObject>>&& handler, const Path& path,
                  const std::string& process) override;

private:
    template <class Answer, class Body>
    void* send(std::string_view command, const std::string& path, const Body& body, const char* answerName,
               std::unique_ptr<IResponseHandler<Answer>>&& handler,
               std::string_view semantic = responsesemantics::PERSISTENT_STREAM);

    IKesaApi* m_api;
    std::string m_mimeType;
};

} // namespace kesa::serviceregistry

#endif
