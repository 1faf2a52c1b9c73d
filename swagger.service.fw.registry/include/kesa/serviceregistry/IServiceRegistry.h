#ifndef KESA_SERVICEREGISTRY_ISERVICEREGISTRY_H
#define KESA_SERVICEREGISTRY_ISERVICEREGISTRY_H

#include <kesa/GenericObject.h>
#include <kesa/IResponseHandler.h>
#include <kesa/Path.h>
#include <kesa/optional.h>
#include <kesa/serviceregistry/Query.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <kesa/serviceregistry/ServiceDef.h>

#include <memory>
#include <string>
#include <vector>

namespace kesa::serviceregistry {

/// A registry of services: one in another process through its client, or one in this process.
///
/// Each operation opens a stream of answers that lasts until it is cancelled, and returns a handle for that. It takes
/// the handler; one that it cannot use (the request could not be written) is told `onError` inside the call and stays
/// the caller's, and `IKesaApi::UNDEFINED_REQUEST_HANDLE` is returned. Handlers are called on whatever thread the
/// answers come on and must only post. A registry never completes a stream.
///
/// There is one order of all changes, and all streams of one connection keep to it among each other: none tells of a
/// change after another one has told of a later change, and a first answer says how it is when it is given. The runtime
/// relies on that wherever several streams tell of one path: a removal that comes late would take away a service that
/// is there. Only the trackers of a path whose tracking has answered are safe from it: no query speaks for them.
///
/// A registry may leave the metainfo out of the records for those who do not ask for it. Ours sends records whole,
/// whatever `Query::includeMetadata` and `includeMetaInfo` say.
///
/// Statuses: 400 a malformed pattern or record, 409 the path is another living process's, 503 the registry is out of
/// reach for now.
class KESA_API IServiceRegistry {
public:
    /// The path of the registry's own root inside its service.
    static constexpr const char* PATH = "/";
    /// The command of `explain`, on the path of the service.
    static constexpr const char* EXPLAIN = "explain";
    static constexpr const char* EXPLAIN_FOR = "for"; ///< the member of its body that names a process

    virtual ~IServiceRegistry();

    /// Every service that matches: lists of `ADDED`, the first answer ending with an empty list, then every change.
    /// Changes of what has been listed may come before the first answer is complete.
    virtual void* queryRegistry(std::unique_ptr<IResponseHandler<std::vector<RegistryUpdate>>>&& handler,
                                const Query& query) = 0;
    /// Registers a service for as long as the request lasts; the answer is the record as it was registered.
    virtual void* registerService(std::unique_ptr<IResponseHandler<ServiceDef>>&& handler, const Path& path,
                                  const ServiceDef& serviceDef) = 0;
    /// One path: `ADDED` at once if it is there (else no first answer), then every change.
    virtual void* trackService(std::unique_ptr<IResponseHandler<RegistryUpdate>>&& handler, const Path& path,
                               const optional<bool>& includeMetaInfo) = 0;
    /// Ends a request; no answer comes after it returns, unless it is called from inside one. Handles of requests that
    /// have ended, null and `UNDEFINED_REQUEST_HANDLE` are ignored.
    virtual void cancelRequest(void* handle) = 0;
    /// What the registry knows of a path for those who ask why a service is not there: one answer, then the end, unlike
    /// the streams above. `process`, when not empty: also whether the processes of that name ask for the path, and are
    /// told of it. A registry that does not know how answers 400, as this one does. docs/protocol_registry.md has the
    /// members.
    virtual void* explain(std::unique_ptr<IResponseHandler<GenericObject>>&& handler, const Path& path,
                          const std::string& process);
};

} // namespace kesa::serviceregistry

#endif
