#ifndef KESA_COMMADAPTER_PROTOCOL_STREAMWINDOWS_H
#define KESA_COMMADAPTER_PROTOCOL_STREAMWINDOWS_H

#include "protocol/TurnQueue.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <unordered_map>

namespace kesa::commadapter::protocol {

/// What of its window each persistent stream has used, and its values that wait for the receiver to give some back, in
/// their order; an end waits behind them. A value may leave while the window is not used up, however large it is.
class StreamWindows {
public:
    using Message = TurnQueue::Message;

    /// Of each stream.
    void setSize(std::size_t bytes) noexcept { m_size = bytes; }

    /// Whether a further value of `stream` has to wait here.
    bool isShut(std::uint32_t stream) const
    {
        const Window* const window = find(stream);
        return window != nullptr && (window->waiting != nullptr || window->used >= m_size);
    }
    /// Whether its end has to.
    bool isWaiting(std::uint32_t stream) const
    {
        const Window* const window = find(stream);
        return window != nullptr && window->waiting != nullptr;
    }
    /// A value leaves.
    void use(std::uint32_t stream, std::size_t bytes) { m_windows[stream].used += bytes; }
    void wait(std::uint32_t stream, Message&& message);
    /// Its end leaves.
    void end(std::uint32_t stream)
    {
        if (!m_windows.empty()) {
            m_windows.erase(stream);
        }
    }

    enum class Given {
        eTAKEN,
        eUNKNOWN,  ///< of a stream that has used nothing, or has ended
        eTOO_MUCH, ///< more than it has used
    };
    /// The receiver gives some back: then `takeNext` until there is none.
    Given giveBack(std::uint32_t stream, std::size_t bytes);
    /// What may leave next of what waits.
    std::optional<Message> takeNext(std::uint32_t stream);
    /// Drops the values that wait. Answers whether there were any; an end may then be taken.
    bool drop(std::uint32_t stream);

    /// What waits, as it will leave.
    std::size_t bytes() const noexcept { return m_waiting; }

private:
    struct Window {
        std::size_t used = 0;
        std::unique_ptr<std::deque<Message>> waiting; ///< null: nothing does
    };
    const Window* find(std::uint32_t stream) const
    {
        if (m_windows.empty()) {
            return nullptr;
        }
        const auto found = m_windows.find(stream);
        return found == m_windows.end() ? nullptr : &found->second;
    }

    std::unordered_map<std::uint32_t, Window> m_windows; ///< of streams that have used something
    std::size_t m_size = SIZE_MAX;
    std::size_t m_waiting = 0;
};

} // namespace kesa::commadapter::protocol

#endif
