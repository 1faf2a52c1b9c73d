#include <kesa/IKesaApi.h>
#include <kesa/Response.h>
#include <kesa/serviceregistry/IServiceRegistry.h>

namespace kesa::serviceregistry {

IServiceRegistry::~IServiceRegistry() = default;

void* IServiceRegistry::explain(std::unique_ptr<IResponseHandler<GenericObject>>&& handler, const Path&,
                                const std::string&)
{
    handler->onError(Response::createErrorResponse(400, "this registry does not explain"));
    return IKesaApi::UNDEFINED_REQUEST_HANDLE;
}

} // namespace kesa::serviceregistry
