#include "sim/Feed.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace kesa::sim {

namespace {

std::string textOf(std::size_t number, std::size_t bytes)
{
    std::string text = std::to_string(number) + ' ';
    text.resize(std::max(text.size(), bytes), static_cast<char>('a' + number % 26));
    return text;
}

} // namespace

void Feed::check(bool holds, const char* rule, const std::string& what)
{
    if (!holds) {
        m_verdict.fail(rule, m_name + (what.empty() ? "" : ": ") + what);
    }
}

// ---- the service --------------------------------------------------------------------------------------------------

std::string Feed::next(std::size_t bytes)
{
    std::string text = textOf(m_given.size(), bytes);
    m_given.push_back({text.size(), m_heardBytes});
    m_givenBytes += text.size();
    return text;
}

void Feed::accepted()
{
    check(!m_isRefused, "a stream takes nothing behind a value that it refused");
}

void Feed::refused(std::size_t mostUnderWay)
{
    if (!std::exchange(m_isRefused, true)) {
        m_underWayThen = mostUnderWay;
    }
    m_givenBytes -= m_given.back().bytes;
    m_given.pop_back();
}

// ---- the asker ----------------------------------------------------------------------------------------------------

void Feed::value(std::string_view text)
{
    const std::size_t number = std::strtoul(std::string(text.substr(0, text.find(' '))).c_str(), nullptr, 10);
    const bool isGiven = number < m_given.size() && (isLatest() ? number >= m_heard : number == m_heard);
    check(isGiven, "values come in order, and none is lost",
          std::to_string(number) + " where " + std::to_string(m_heard) + " was expected");
    if (isGiven) {
        check(text == textOf(number, m_given[number].bytes), "a value arrives as it was given", std::to_string(number));
        const std::size_t ahead = m_heardBytes - m_given[number].heardThen;
        const bool isBounded = m_bounds.queue > 0 && m_policy != QueuePolicy::eCUT_CONNECTION;
        check(!isBounded || ahead <= m_bounds.queue + m_bounds.beyond, "what waits of a stream is bounded",
              std::to_string(ahead) + " bytes");
    }
    m_heard = number + 1;
    m_heardBytes += text.size();
    if (m_isSlow) {
        m_receipts.push_back(Receipt::take());
    }
}

void Feed::ended()
{
    check(m_heard == m_given.size(), "the end of a stream comes behind all values", difference());
}

void Feed::tooSlow()
{
    if (m_bounds.queue > 0) { // else it may come before the service knows
        check(m_isRefused && m_policy == QueuePolicy::eCUT_STREAM, "a stream is cut whose service was refused a value");
        check(m_underWayThen >= m_bounds.queue / 2, "a stream is cut for what waits",
              std::to_string(m_underWayThen) + " bytes");
    }
}

void Feed::handle(std::size_t most, std::deque<Receipt>& handled)
{
    for (; most > 0 && !m_receipts.empty(); --most) {
        handled.push_back(std::move(m_receipts.front()));
        m_receipts.pop_front();
    }
}

std::string Feed::difference() const
{
    return m_heard == m_given.size()
               ? ""
               : std::to_string(m_given.size()) + " values were given, " + std::to_string(m_heard) + " heard";
}

// ---- the queue is empty -------------------------------------------------------------------------------------------

std::shared_ptr<void> DrainedTasks::add(const std::shared_ptr<IPeer>& peer)
{
    const auto isThere = std::make_shared<int>();
    m_tasks.push_back({peer, isThere});
    return isThere;
}

void DrainedTasks::runs(const std::shared_ptr<void>& task, const std::function<std::size_t(const IPeer&)>& underWayTo,
                        std::size_t bound)
{
    const auto self =
        std::find_if(m_tasks.begin(), m_tasks.end(), [&task](const Task& each) { return each.isThere.lock() == task; });
    const bool isFirst = std::none_of(m_tasks.begin(), self, [&self](const Task& each) {
        return each.peer == self->peer && !each.hasRun && !each.isThere.expired();
    });
    if (self->hasRun || !isFirst) {
        m_verdict.fail("what waits for the queue runs once, in its turn", "");
    }
    if (const std::size_t underWay = underWayTo(*self->peer); bound > 0 && underWay > bound) {
        m_verdict.fail("what waits for the queue runs when it is empty", std::to_string(underWay) + " bytes");
    }
    self->hasRun = true;
}

bool DrainedTasks::isForgotten() const
{
    return std::any_of(m_tasks.begin(), m_tasks.end(), [](const Task& task) {
        return !task.hasRun && (!task.isThere.expired() || task.peer->endReason().empty());
    });
}

} // namespace kesa::sim
