#ifndef KESA_DISPOSABLE_H
#define KESA_DISPOSABLE_H

#include <obr/api.h>

#include <functional>
#include <memory>

namespace kesa {

/// The end of a subscription, kept for later. Copies share one action: the first `dispose` of any of them runs it,
/// every other one does nothing. Destroying a `Disposable` does not dispose; one that is dropped can never be
/// disposed. See `ScopedDisposable`.
///
/// Any thread. It may outlive the runtime that made it: disposing is then without effect.
class [[nodiscard]] [[gnu::visibility("default")]] Disposable
{
public:
    /// Disposing it does nothing.
    Disposable() noexcept;
    explicit Disposable(std::function<void()> action);

    void dispose();

private:
    struct Action;
    std::shared_ptr<Action> m_action;
};

} // namespace kesa

#endif
