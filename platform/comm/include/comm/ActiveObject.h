#ifndef COMM_ACTIVEOBJECT_H
#define COMM_ACTIVEOBJECT_H

#include <comm/ActiveObjectEvent.h>
#include <comm/Clock.h>
#include <util/SharedPtr.h>
#include <util/UniqueFunction.h>

#include <memory>
#include <string>

namespace comm {

class IRunLoop;

/// A named run loop with a queue of events: first in, first out, one at a time, never inside `enque`. It runs from
/// construction on. The loop is made by `comm::Scheduler`, a thread of its own unless a test replaced that.
class KESA_API ActiveObject {
public:
    /// `name` stands whole in traces; the kernel's thread name is "kesa-" and what follows the last '.', without
    /// "m_", in 15 characters. The thread blocks all signals.
    explicit ActiveObject(const std::string& name);
    ActiveObject(const ActiveObject&) = delete;
    ActiveObject& operator=(const ActiveObject&) = delete;
    /// Stops.
    ~ActiveObject();

    /// Any thread, the own one included. What happened before `enque` is visible to the event. After `stop` the
    /// event is destroyed here, with no lock held.
    void enque(util::SharedPtr<ActiveObjectEvent> event);

    /// Runs what was enqueued before it, then ends the loop; traced (3) on "KESA_COMM" when that takes a second. Twice
    /// is harmless. From its own loop it is a failed assertion and does nothing.
    void stop();

    /// True inside an event of this object.
    bool isCurrentThread() const noexcept;

    /// For a loop whose events should be short. `tell` is called on it after each event that kept it from others for
    /// more than `Reactor::LONG_CALLBACK`, with the time that no `lap` has told, counted as there. To be called once,
    /// before the first event.
    void watch(util::UniqueFunction<void(TimeNs)> tell);
    /// `Reactor::lap` for the event under way. On the loop itself, which is watched.
    TimeNs lap();
    /// How long the event under way has held the loop, since it began or since its last lap; exact to some
    /// milliseconds. 0 when none is under way, or when the loop is not watched. Any thread.
    TimeNs heldFor() const noexcept;

    const std::string& name() const noexcept { return m_name; }

private:
    std::string m_name;
    std::unique_ptr<IRunLoop> m_loop;
};

} // namespace comm

#endif
