#include <kesa/Disposable.h>

#include <atomic>
#include <utility>

namespace kesa {

struct Disposable::Action {
    explicit Action(std::function<void()> f) : function(std::move(f)) {}
    std::atomic<bool> isTaken{false};
    std::function<void()> function; // only for whoever has set isTaken
};

Disposable::Disposable() noexcept = default;

Disposable::Disposable(std::function<void()> action)
    : m_action(action ? std::make_shared<Action>(std::move(action)) : nullptr)
{}

void Disposable::dispose()
{
    if (!m_action || m_action->isTaken.exchange(true, std::memory_order_acq_rel)) {
        return;
    }
    // On the stack, since the function may destroy this object and every copy of it. It dies after it ran: what it
    // captured is not kept for as long as somebody keeps a copy.
    const std::function<void()> function = std::exchange(m_action->function, nullptr);
    function();
}

} // namespace kesa
