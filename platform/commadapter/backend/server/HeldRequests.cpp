#include "backend/server/HeldRequests.h"

#include "backend/server/ServerConnection.h"

#include <utility>

namespace kesa::commadapter {

void HeldRequests::take(std::uint32_t stream, std::uint32_t target, Request&& request, bool isPersistent,
                        std::size_t cost)
{
    if (m_used >= protocol::REQUEST_WINDOW) {
        m_connection.cutOff("it sends more requests than it has credit for");
        return;
    }
    if (m_waiting.empty() && !m_connection.isServedNoMore()) {
        m_used += cost;
        m_connection.serve(stream, target, request, isPersistent, m_connection.lastReceived());
        handled(cost);
        return;
    }
    if (isWaiting(stream)) {
        m_connection.cutOff("request number in use");
        return;
    }
    m_used += cost;
    m_places[stream] = m_first + m_waiting.size();
    m_waiting.push_back({stream, target, std::move(request), isPersistent, false, cost, m_connection.lastReceived()});
}

void HeldRequests::serve(comm::TimeNs until)
{
    while (!m_waiting.empty() && !m_connection.isServedNoMore()) {
        const Held held = std::move(m_waiting.front());
        m_waiting.pop_front();
        ++m_first;
        if (!held.isCancelled) {
            m_places.erase(held.stream);
            m_connection.serve(held.stream, held.target, held.request, held.isPersistent, held.came);
        }
        handled(held.cost);
        if (comm::now() >= until) {
            return;
        }
    }
}

bool HeldRequests::cancel(std::uint32_t stream)
{
    const auto place = m_places.find(stream);
    if (place == m_places.end()) {
        return false;
    }
    cancel(m_waiting[place->second - m_first]);
    return true;
}

void HeldRequests::cancelAll(std::uint32_t target)
{
    for (Held& held : m_waiting) {
        if (held.target == target && !held.isCancelled) {
            cancel(held);
        }
    }
}

void HeldRequests::cancel(Held& held)
{
    held.isCancelled = true;
    held.request = Request();
    m_places.erase(held.stream);
    m_connection.sayCancelled(held.stream);
}

void HeldRequests::end()
{
    m_waiting.clear();
    m_places.clear();
}

/// Half a window at a time: few frames, and the client does not stand still meanwhile.
void HeldRequests::handled(std::size_t cost)
{
    m_handled += cost;
    if (m_handled >= protocol::REQUEST_WINDOW / 2) {
        m_used -= m_handled;
        m_connection.giveRequestCredit(std::exchange(m_handled, 0));
    }
}

} // namespace kesa::commadapter
