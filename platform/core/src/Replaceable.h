#ifndef KESA_CORE_REPLACEABLE_H
#define KESA_CORE_REPLACEABLE_H

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace kesa {

/// A process-wide function that can be replaced while others call it: a caller keeps the one it has got.
template <class Signature>
class Replaceable {
public:
    void set(std::function<Signature> function)
    {
        auto replaced = function ? std::make_shared<const std::function<Signature>>(std::move(function)) : nullptr;
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_function.swap(replaced); // the old one dies without the lock
    }

    /// Null when none is set.
    std::shared_ptr<const std::function<Signature>> get() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_function;
    }

private:
    mutable std::mutex m_mutex; ///< only around the pointer: a function that is running outlives its replacement
    std::shared_ptr<const std::function<Signature>> m_function;
};

} // namespace kesa

#endif
