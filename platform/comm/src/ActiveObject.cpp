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

bool ActiveObject::isCurrentThread() const noexcept
{
    return m_loop->isCurrent();
}

} // namespace comm
