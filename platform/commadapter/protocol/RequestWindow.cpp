#include "protocol/RequestWindow.h"

#include <utility>

namespace kesa::commadapter::protocol {

void RequestWindow::wait(std::uint32_t stream, TurnQueue::Message&& message)
{
    m_bytes += message.wireBytes();
    m_waiting[stream] = m_order.insert(m_order.end(), {stream, std::move(message)});
}

bool RequestWindow::drop(std::uint32_t stream)
{
    const auto found = m_order.empty() ? m_waiting.end() : m_waiting.find(stream);
    if (found == m_waiting.end()) {
        return false;
    }
    m_bytes -= found->second->message.wireBytes();
    m_order.erase(found->second);
    m_waiting.erase(found);
    return true;
}

bool RequestWindow::giveBack(std::size_t bytes, std::size_t unsent) noexcept
{
    if (bytes + unsent > m_used) {
        return true;
    }
    m_used -= bytes;
    return false;
}

std::optional<RequestWindow::Waiting> RequestWindow::takeNext()
{
    if (m_order.empty() || m_used >= REQUEST_WINDOW) {
        return std::nullopt;
    }
    Waiting next = std::move(m_order.front());
    m_order.pop_front();
    m_waiting.erase(next.stream);
    m_bytes -= next.message.wireBytes();
    use(next.message.content());
    return next;
}

} // namespace kesa::commadapter::protocol
