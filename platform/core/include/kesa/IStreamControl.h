#ifndef KESA_ISTREAMCONTROL_H
#define KESA_ISTREAMCONTROL_H

#include <obr/api.h>

namespace kesa {

/// What becomes of a value for a client that does not take its values as fast as they come, once more is queued for
/// it than the bound.
enum class QueuePolicy {
    eCUT_STREAM,     ///< the value is refused, and the stream ends with 503
    eKEEP_LATEST,    ///< the value waits in place of the one that waited before it
    eCUT_CONNECTION, ///< the value is queued all the same; a client that takes nothing at all is cut off
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
