#include <comm/ActiveObject.h>

#include <comm/Scheduler.h>

#include <utility>

namespace comm {

ActiveObjectEvent::~ActiveObjectEvent() = default;

IRunLoop::~IRunLoop() = default;

ActiveObject::ActiveObject(const std::string& name) : m_name(name), m_loop(Scheduler::current().makeRunLoop(name)) {}

ActiveObject::~ActiveObject() = default;

void ActiveObject::enque(util::SharedPtr<ActiveObjectEvent> event)
{
    m_loop->enque(std::move(event));
}

void ActiveObject::stop()
{
    m_loop->stop();
}

void ActiveObject::watch(util::UniqueFunction<void(TimeNs)> tell)
{
    m_loop->watch(std::move(tell));
}

TimeNs ActiveObject::lap()
{
    return m_loop->lap();
}

TimeNs ActiveObject::heldFor() const noexcept
{
    return m_loop->heldFor();
}

bool ActiveObject::isCurrentThread() const noexcept
{
    return m_loop->isCurrent();
}

} // namespace comm
