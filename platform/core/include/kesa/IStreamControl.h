#ifndef KESA_ISTREAMCONTROL_H
#define KESA_ISTREAMCONTROL_H

#include <obr/api.h>

namespace kesa {

/// What becomes of a value of a persistent stream ("$response-semantic") for a client that does not take such values as
/// fast as they come, once more of them are queued for it than the bound. The first value of any other request is
/// queued whatever there is: such a client's further requests are not read. This decides about a further one only while
/// one of the same request waits and such answers have more queued for the client than the process may have queued
/// (than the connection may, once the process is over its bound); with `eCUT_CONNECTION` the client is then cut off at
/// once.
enum class QueuePolicy {
    eCUT_STREAM,     ///< the value is refused, and the stream ends with 503
    eKEEP_LATEST,    ///< the value waits in place of the one that waited before it
    eCUT_CONNECTION, ///< the value is queued all the same; a client whose socket takes nothing at all is cut off
};

/// What a service may set for one stream of answers: `RequestContext::current()->stream`, while it is given the
/// request.
class KESA_API IStreamControl {
public:
    virtual ~IStreamControl() = default;
    /// `QueuePolicy::eCUT_STREAM` unless set. Before the first value; any thread.
    virtual void setQueuePolicy(QueuePolicy policy) = 0;
};

} // namespace kesa

#endif
