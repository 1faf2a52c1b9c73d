#include <kesa/ease/handler.h>
#include <kesa/reasonOf.h>
#include <obr/visible.h>
#include <tracing/Channel.h>

namespace kesa::detail {

void TraceError::operator()(const Response& error) const
{
    static const ::tracing::Channel channel("KESA_EASE");
    KESA_TRACE(channel, 3, "[handler] stream ended with %s", obr::glimpse(reasonOf(error)).c_str());
}

} // namespace kesa::detail
