// What services ask of the peer itself: whether it lives, and to be told when it has taken what was sent to it.
//
// Proof of life: a ping asks, a pong answers. Whoever asks while one is under way waits for the next one.

#include "backend/server/ServerConnection.h"

#include <algorithm>

namespace kesa::commadapter {

namespace {

/// Into how many parts the time of a question is divided, to see whether the loop itself slept in one of them.
constexpr comm::TimeNs PARTS_OF_WAIT = 4;
/// How late a part may end without that.
constexpr comm::TimeNs LATE = 50 * comm::MILLISECOND;

} // namespace

/// What comes next may have been on its way when the process stopped or died; only the answer to a question proves that
/// it lived when it was asked.
void ServerConnection::proveAlive(comm::TimeNs within, std::function<void(bool isAlive)> answer)
{
    readAll();
    if (!isOpen()) {
        answer(false);
        return;
    }
    m_lifeQuestions.push_back({++m_lastLifeQuestion, within, comm::now(), std::move(answer), false});
    awaitSign(m_lifeQuestions.back());
    if (m_lifeQuestions.size() == 1) {
        askNext();
    }
}

void ServerConnection::askNext()
{
    for (LifeQuestion& question : m_lifeQuestions) {
        question.isAsked = true;
    }
    const Lock lock(m_lock);
    machine().output.ping();
    pushOut();
}

/// Whoever still hears something from the client waits on.
void ServerConnection::onSign(bool isPong)
{
    std::vector<LifeQuestion> answered;
    std::vector<LifeQuestion> waiting;
    for (LifeQuestion& question : m_lifeQuestions) {
        question.begun = comm::now();
        (isPong && question.isAsked ? answered : waiting).push_back(std::move(question));
    }
    m_lifeQuestions = std::move(waiting);
    if (!answered.empty() && !m_lifeQuestions.empty()) {
        askNext();
    }
    for (const LifeQuestion& question : answered) {
        question.answer(true);
    }
}

void ServerConnection::awaitSign(const LifeQuestion& question)
{
    const comm::TimeNs part = question.within / PARTS_OF_WAIT;
    const comm::TimeNs due = std::min(comm::now() + part, question.begun + question.within);
    loop().startTimer(due, [weak = weak_from_this(), number = question.number, latest = due + part + LATE] {
        if (const auto self = weak.lock()) {
            static_cast<ServerConnection&>(*self).judge(number, comm::now() > latest);
        }
    });
}

/// A client that takes what stands before the ping in the queue is given the time anew, too.
void ServerConnection::judge(std::uint64_t number, bool hasSlept)
{
    const auto question = findLifeQuestion(number);
    if (question == m_lifeQuestions.end()) {
        return;
    }
    const comm::TimeNs now = comm::now();
    const comm::TimeNs within = question->within;
    {
        const Lock lock(m_lock);
        if (hasSlept || (machine().output.queuedBytes() > 0 && lastProgress() > question->begun)) {
            question->begun = now;
        }
    }
    if (now - question->begun < within) {
        awaitSign(*question);
        return;
    }
    readBatch();
    const auto left = findLifeQuestion(number);
    if (!isOpen() || left == m_lifeQuestions.end()) {
        return;
    }
    if (now - left->begun < within) { // something has come
        awaitSign(*left);
        return;
    }
    cutOff("silent for " + std::to_string(within / comm::MILLISECOND) + " ms after a ping");
}

std::vector<ServerConnection::LifeQuestion>::iterator ServerConnection::findLifeQuestion(std::uint64_t number)
{
    return std::find_if(m_lifeQuestions.begin(), m_lifeQuestions.end(),
                        [number](const LifeQuestion& a) { return a.number == number; });
}

void ServerConnection::whenDrained(std::function<void()> task)
{
    const Lock lock(m_lock);
    if (isOpen()) {
        m_drained.push_back(std::move(task));
        postDrained();
    }
}

/// With the lock held.
void ServerConnection::postDrained()
{
    if (machine().output.queuedBytes() == 0 && !m_drained.empty() && !std::exchange(m_isDrainedPosted, true)) {
        loop().post([self = std::static_pointer_cast<ServerConnection>(shared_from_this())] { self->runDrained(); });
    }
}

/// Runs one task. What it writes has to leave before the next one's turn.
void ServerConnection::runDrained()
{
    Lock lock(m_lock);
    m_isDrainedPosted = false;
    if (!isOpen() || m_drained.empty() || machine().output.queuedBytes() > 0) {
        return;
    }
    auto task = std::move(m_drained.front());
    m_drained.pop_front();
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
    if (isOpen()) {
        postDrained();
    }
}

std::string ServerConnection::endReason() const
{
    const Lock lock(m_lock);
    return m_endReason;
}

} // namespace kesa::commadapter
