#include "backend/connection/FairTurns.h"

#include "backend/connection/Connection.h"
#include "backend/connection/IoLoop.h"

#include <algorithm>
#include <utility>

namespace kesa::commadapter {

namespace {

constexpr comm::TimeNs WINDOW = 2 * FairTurns::ROUND;
constexpr comm::TimeNs SHORTEST_TURN = comm::MILLISECOND / 20;
constexpr std::size_t MOST_TAKEN = 64;
constexpr std::size_t MOST_SPARE = 4;

} // namespace

void FairTurns::ready(Connection& connection)
{
    if (connection.m_isInLine) {
        return;
    }
    const comm::TimeNs now = comm::now();
    const bool isIdle = isIdleEnough(now);
    if (m_lines.empty() && (isIdle || m_loop.reactor()->isLastReady())) {
        serve(connection, now, ROUND);
        const bool hasWritten = connection.m_batchWritten > now; // with which batches end
        m_spent += (hasWritten ? connection.m_batchWritten : comm::now()) - now;
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
    connection.readBatch(begin, slice);
}

std::weak_ptr<Connection> FairTurns::Waiting::takeFirst()
{
    auto first = std::move(m_connections[m_first]);
    ++m_first;
    if (m_first == m_connections.size() || m_first >= MOST_TAKEN) {
        m_connections.erase(m_connections.begin(), m_connections.begin() + static_cast<std::ptrdiff_t>(m_first));
        m_first = 0;
    }
    return first;
}

FairTurns::Line& FairTurns::lineOf(std::int64_t uid)
{
    const auto line = std::find_if(m_lines.begin(), m_lines.end(), [uid](const Line& each) { return each.uid == uid; });
    if (line != m_lines.end()) {
        return *line;
    }
    if (m_spare.empty()) {
        m_spare.emplace_back();
    }
    m_lines.push_back(std::move(m_spare.back()));
    m_spare.pop_back();
    m_lines.back().uid = uid;
    return m_lines.back();
}

void FairTurns::lineUp(Connection& connection)
{
    Line& line = lineOf(connection.m_isOpen ? connection.peer().uid : -1);
    (connection.m_wasCutShort ? line.busy : line.quick).add(connection.weak_from_this());
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
    const auto connection = (line.quick.size() == 0 ? line.busy : line.quick).takeFirst().lock();
    if (line.size() == 0) {
        if (m_spare.size() < MOST_SPARE) {
            m_spare.push_back(std::move(line));
        }
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
