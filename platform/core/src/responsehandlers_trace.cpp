#include <kesa/responsehandlers/trace.h>
#include <tracing/Channel.h>

namespace kesa::responsehandlers {

namespace {

const ::tracing::Channel& channel()
{
    static const ::tracing::Channel channel("KESA_RESPONSEHANDLERS");
    return channel;
}

} // namespace

void traceSetTerminated(const char* operation)
{
    KESA_TRACE(channel(), 1, "[%s] stream terminated", operation);
}

void traceAlreadyTerminated(const char* operation, bool isOnNext)
{
    KESA_TRACE(channel(), isOnNext ? 3 : 2, "[%s] stream is already terminated%s", operation,
               isOnNext ? ", the value is dropped" : "");
}

} // namespace kesa::responsehandlers
