#include "backend/connection/FairTurns.h"

#include "backend/connection/Connection.h"
#include "backend/connection/IoLoop.h"

#include <algorithm>
#include <utility>

namespace kesa::commadapter {

namespace {

constexpr comm::TimeNs WINDOW = 2 * FairTurns::ROUND;
constexpr comm::TimeNs SHORTEST_TURN = comm::MILLISECOND / 20;

} // namespace

void FairTurns::ready(Connection& connection)
{
    if (connection.m_isInLine) {
        return;
    }
    const comm::TimeNs now = comm::now();
    if (m_lines.empty() && isIdleEnough(now)) {
        serve(connection, now, ROUND);
        m_spent += comm::now() - now;
        return;
    }
    lineUp(connection);
}

void FairTurns::again(Connection& connection)
{
    if (!connection.m_isInLine) {
        lineUp(connection);
    }
}

bool FairTurns::isIdleEnough(comm::TimeNs now) noexcept
{
    if (now >= m_windowEnd) {
        m_windowEnd = now + WINDOW;
        m_spent = 0;
    }
    return m_spent < ROUND;
}

void FairTurns::serve(Connection& connection, comm::TimeNs begin, comm::TimeNs slice)
{
    connection.m_isToReadOn = false;
    connection.readBatch(begin + slice);
}

void FairTurns::lineUp(Connection& connection)
{
    const std::int64_t uid = connection.m_isOpen ? connection.peer().uid : -1;
    auto line = std::find_if(m_lines.begin(), m_lines.end(), [uid](const Line& each) { return each.uid == uid; });
    if (line == m_lines.end()) {
        line = m_lines.insert(m_lines.end(), Line{uid, {}, {}});
    }
    (connection.m_wasCutShort ? line->busy : line->quick).push_back(connection.weak_from_this());
    connection.m_isInLine = true;
    expectRound();
}

/// Posted: by then all that is ready stands in line.
void FairTurns::expectRound()
{
    if (!std::exchange(m_isRoundDue, true)) {
        m_loop.reactor()->post([self = m_loop.shared_from_this(), this] { serveRound(); });
    }
}

void FairTurns::serveRound()
{
    m_isRoundDue = false;
    const comm::TimeNs begin = comm::now();
    comm::TimeNs now = begin;
    while (!m_lines.empty() && now - begin < ROUND) {
        serveNext(now);
        now = comm::now();
    }
    if (!m_lines.empty()) {
        expectRound();
    }
}

void FairTurns::serveNext(comm::TimeNs now)
{
    m_next = m_next < m_lines.size() ? m_next : 0;
    Line& line = m_lines[m_next];
    const comm::TimeNs slice = std::clamp(ROUND / static_cast<comm::TimeNs>(line.size()), SHORTEST_TURN, ROUND);
    auto& from = line.quick.empty() ? line.busy : line.quick;
    const auto connection = from.front().lock();
    from.pop_front();
    if (line.size() == 0) {
        m_lines.erase(m_lines.begin() + static_cast<std::ptrdiff_t>(m_next));
    } else {
        ++m_next;
    }
    if (connection) {
        const IoLoop::Turn turn(m_loop);
        connection->m_isInLine = false;
        serve(*connection, now, slice);
    }
}

} // namespace kesa::commadapter
