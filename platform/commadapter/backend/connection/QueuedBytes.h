#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_QUEUEDBYTES_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_QUEUEDBYTES_H

#include <atomic>
#include <cstddef>

namespace kesa::commadapter {

/// How much is queued on several connections, as of a moment ago: bounds that are looked at so need no order. Any
/// thread.
class QueuedBytes {
public:
    struct Amount {
        std::size_t all = 0;
        std::size_t persistent = 0; ///< values of persistent streams among them
    };
    Amount now() const noexcept
    {
        return {m_all.load(std::memory_order_relaxed), m_persistent.load(std::memory_order_relaxed)};
    }
    /// Of one connection.
    void change(const Amount& before, const Amount& after) noexcept
    {
        if (before.all != after.all) {
            m_all.fetch_add(after.all - before.all, std::memory_order_relaxed);
        }
        if (before.persistent != after.persistent) {
            m_persistent.fetch_add(after.persistent - before.persistent, std::memory_order_relaxed);
        }
    }

private:
    std::atomic<std::size_t> m_all{0};
    std::atomic<std::size_t> m_persistent{0};
};

} // namespace kesa::commadapter

#endif
