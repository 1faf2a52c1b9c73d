#ifndef COMM_IRUNLOOP_H
#define COMM_IRUNLOOP_H

#include <comm/ActiveObjectEvent.h>
#include <comm/Clock.h>
#include <util/SharedPtr.h>
#include <util/UniqueFunction.h>

namespace comm {

/// What an `ActiveObject` runs on; made by `comm::Scheduler`. Contract: that of `ActiveObject`.
class KESA_API IRunLoop {
public:
    virtual ~IRunLoop();
    virtual void enque(util::SharedPtr<ActiveObjectEvent> event) = 0;
    virtual void stop() = 0;
    virtual bool isCurrent() const noexcept = 0;
    virtual void watch(util::UniqueFunction<void(TimeNs)> tell) = 0;
    virtual TimeNs lap() = 0;
    virtual TimeNs heldFor() const noexcept = 0;
};

} // namespace comm

#endif
