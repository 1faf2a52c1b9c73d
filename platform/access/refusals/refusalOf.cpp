#include "refusals/refusalOf.h"

#include <kesa/headers.h>

namespace kesa::access {

Response refusalOf(const std::string& why)
{
    Response error = Response::createErrorResponse(403, "not allowed to ask this of the service");
    headers::appendReason(error, why);
    return error;
}

} // namespace kesa::access
