#ifndef KESA_ISTREAMCONTROL_H
#define KESA_ISTREAMCONTROL_H

#include <obr/api.h>

namespace kesa {

/// What becomes of a value of a persistent stream ("$response-semantic") for a client that does not take such values as
/// fast as they come, once more of them are queued for it than the bound. Answers of other requests are queued whatever
/// there is: such a client's further requests are not read. Only when more than the process may have queued is of one
/// of them alone does this decide about it, too; the connection is then cut off at once.
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
