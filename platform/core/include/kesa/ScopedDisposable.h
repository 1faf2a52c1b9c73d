#ifndef KESA_SCOPEDDISPOSABLE_H
#define KESA_SCOPEDDISPOSABLE_H

#include <kesa/Disposable.h>

#include <utility>

namespace kesa {

/// A subscription that ends with its scope:
///
///     kesa::ScopedDisposable tracking(runtime.trackService("/media/player", kesa::handler(...)));
///
/// Not for registrations that may be refused: disposing one acts on the path, whoever holds it by then.
class [[nodiscard]] ScopedDisposable {
public:
    ScopedDisposable() noexcept = default;
    explicit ScopedDisposable(Disposable disposable) noexcept : m_disposable(std::move(disposable)) {}
    ScopedDisposable(ScopedDisposable&& other) noexcept : m_disposable(std::exchange(other.m_disposable, Disposable()))
    {}
    ScopedDisposable& operator=(ScopedDisposable&& other) noexcept
    {
        if (this != &other) {
            m_disposable.dispose();
            m_disposable = std::exchange(other.m_disposable, Disposable());
        }
        return *this;
    }
    ~ScopedDisposable() { m_disposable.dispose(); }

    /// Ends it now.
    void dispose() { m_disposable.dispose(); }
    /// Hands the duty to dispose back to the caller.
    Disposable release() noexcept { return std::exchange(m_disposable, Disposable()); }

private:
    Disposable m_disposable;
};

} // namespace kesa

#endif
