#ifndef KESA_FUNCCALLEVENT_H
#define KESA_FUNCCALLEVENT_H

#include <comm/ActiveObject.h>
#include <comm/ActiveObjectEvent.h>

#include <memory>
#include <type_traits>
#include <utility>

namespace kesa {

/// An event that owns one callable, which may be move-only, and runs it.
template <class F>
class FuncCallEvent final : public comm::ActiveObjectEvent {
public:
    explicit FuncCallEvent(F function) : m_function(std::move(function)) {}

    int execute() override
    {
        m_function();
        return 0;
    }
    bool isType(const comm::EventType& type) const override { return type == TYPE; }

    static inline const comm::EventType TYPE{};

private:
    F m_function;
};

/// Runs `function` on the loop of `activeObject`, never inside this call; dropped when that has stopped.
template <class F>
void post(comm::ActiveObject& activeObject, F&& function)
{
    activeObject.enque(std::make_shared<FuncCallEvent<std::decay_t<F>>>(std::forward<F>(function)));
}

} // namespace kesa

#endif
