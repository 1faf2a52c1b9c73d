#include "backend/client/Deadlines.h"

#include <obr/GlobalErrorHandler.h>

#include <algorithm>

namespace kesa::commadapter {

namespace {

constexpr std::size_t KEPT_ENDED = 64;

bool isLater(const Deadlines::Deadline& a, const Deadlines::Deadline& b) noexcept
{
    return a.when > b.when;
}

void check(bool holds, const char* condition, int line, const char* function)
{
    if (!holds) {
        obr::GlobalErrorHandler::doAssert(false, condition, __FILE__, line, function,
                                          "who ended a request's limit did not say so, or said it twice");
    }
}

} // namespace

Deadlines::Deadlines(IsLimited isLimited) : m_isLimited(std::move(isLimited)) {}

void Deadlines::add(const Deadline& deadline)
{
    if (m_ended >= KEPT_ENDED && m_ended * 2 > m_heap.size()) {
        std::erase_if(m_heap, [this](const Deadline& d) { return !m_isLimited(d.handle); });
        std::make_heap(m_heap.begin(), m_heap.end(), isLater);
        m_ended = 0;
    }
    m_heap.push_back(deadline);
    std::push_heap(m_heap.begin(), m_heap.end(), isLater);
}

void Deadlines::ended() noexcept
{
    ++m_ended;
    check(m_ended <= m_heap.size(), "m_ended <= m_heap.size()", __LINE__, __func__);
}

comm::TimeNs Deadlines::next()
{
    while (!m_heap.empty() && !m_isLimited(m_heap.front().handle)) {
        check(m_ended > 0, "m_ended > 0", __LINE__, __func__);
        pop();
        --m_ended;
    }
    return m_heap.empty() ? comm::NEVER : m_heap.front().when;
}

std::optional<Deadlines::Deadline> Deadlines::takeDue(comm::TimeNs now)
{
    if (next() > now || m_heap.empty()) {
        return std::nullopt;
    }
    const Deadline due = m_heap.front();
    pop();
    return due;
}

void Deadlines::pop()
{
    std::pop_heap(m_heap.begin(), m_heap.end(), isLater);
    m_heap.pop_back();
}

} // namespace kesa::commadapter
