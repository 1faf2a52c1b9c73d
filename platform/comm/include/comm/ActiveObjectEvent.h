#ifndef COMM_ACTIVEOBJECTEVENT_H
#define COMM_ACTIVEOBJECTEVENT_H

#include <comm/EventType.h>
#include <obr/api.h>

namespace comm {

/// One piece of work for an `ActiveObject`. It is destroyed on the active object's thread, before the next event
/// runs and with no lock held, or on the thread that called `enque` when the active object had stopped.
class KESA_API ActiveObjectEvent {
public:
    virtual ~ActiveObjectEvent();
    /// Runs once, on the active object's thread. 0 when done; the value is not looked at.
    virtual int execute() = 0;
    virtual bool isType(const EventType& type) const = 0;
};

} // namespace comm

#endif
