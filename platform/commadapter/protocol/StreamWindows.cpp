#include "protocol/StreamWindows.h"

#include <utility>

namespace kesa::commadapter::protocol {

void StreamWindows::wait(std::uint32_t stream, Message&& message)
{
    Window& window = m_windows[stream];
    if (window.waiting == nullptr) {
        window.waiting = std::make_unique<std::deque<Message>>();
    }
    m_waiting += message.wireBytes();
    window.waiting->push_back(std::move(message));
}

StreamWindows::Given StreamWindows::giveBack(std::uint32_t stream, std::size_t bytes)
{
    const auto found = m_windows.find(stream);
    if (found == m_windows.end()) {
        return Given::eUNKNOWN;
    }
    Window& window = found->second;
    if (bytes > window.used) {
        return Given::eTOO_MUCH;
    }
    window.used -= bytes;
    if (window.used == 0 && window.waiting == nullptr) {
        m_windows.erase(found);
    }
    return Given::eTAKEN;
}

std::optional<StreamWindows::Message> StreamWindows::takeNext(std::uint32_t stream)
{
    const auto found = m_windows.find(stream);
    if (found == m_windows.end() || found->second.waiting == nullptr) {
        return std::nullopt;
    }
    Window& window = found->second;
    const bool isValue = window.waiting->front().kind == Kind::eNEXT;
    if (isValue && window.used >= m_size) {
        return std::nullopt;
    }
    Message message = std::move(window.waiting->front());
    window.waiting->pop_front();
    m_waiting -= message.wireBytes();
    if (!isValue) {
        m_windows.erase(found);
        return message;
    }
    window.used += chargeOf(message.content());
    if (window.waiting->empty()) {
        window.waiting.reset();
    }
    return message;
}

bool StreamWindows::drop(std::uint32_t stream)
{
    const auto found = m_windows.find(stream);
    if (found == m_windows.end() || found->second.waiting == nullptr) {
        return false;
    }
    std::deque<Message>& waiting = *found->second.waiting;
    bool dropped = false;
    while (!waiting.empty() && waiting.front().kind == Kind::eNEXT) {
        m_waiting -= waiting.front().wireBytes();
        waiting.pop_front();
        dropped = true;
    }
    if (waiting.empty()) {
        found->second.waiting.reset();
    }
    return dropped;
}

} // namespace kesa::commadapter::protocol
