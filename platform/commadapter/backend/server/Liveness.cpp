#include "backend/server/Liveness.h"

#include "backend/server/ServerConnection.h"

#include <algorithm>
#include <utility>

namespace kesa::commadapter {

namespace {

/// Into how many parts the time of a question is divided, to see whether the loop itself slept in one of them.
constexpr comm::TimeNs PARTS_OF_WAIT = 4;
/// How late a part may end without that.
constexpr comm::TimeNs LATE = 50 * comm::MILLISECOND;

} // namespace

/// What has come may have been on its way when the process stopped or died; only the answer to a question proves that
/// it lived when it was asked. It is asked once that has been handled: an earlier pong may be among it, or the end.
void Liveness::prove(comm::TimeNs within, std::function<void(bool isAlive)> answer)
{
    if (!m_connection.isOpen()) {
        answer(false);
        return;
    }
    m_questions.push_back({++m_lastNumber, within, comm::now(), std::move(answer), false});
    await(m_questions.back());
    if (m_questions.size() == 1) {
        m_connection.readAll([this] { ask(); });
    }
}

/// What has come may change what was asked for: a cancel, or the end of the connection of a process that lives on.
void Liveness::askKernel(comm::TimeNs within, std::function<void(bool isAlive)> answer)
{
    if (!m_connection.isOpen()) {
        answer(false);
        return;
    }
    m_wishes.push_back({++m_lastNumber, within, std::move(answer)});
    m_connection.readAll([this, number = m_lastNumber] { hearKernel(number); });
}

void Liveness::hearKernel(std::uint64_t number)
{
    const auto process = m_connection.peerProcess();
    if (process == transport::IStream::Process::eENDED) {
        m_connection.endAfterInput(ServerConnection::PROCESS_ENDED); // which answers
        return;
    }
    const auto found =
        std::find_if(m_wishes.begin(), m_wishes.end(), [number](const Wish& wish) { return wish.number == number; });
    Wish wish = std::move(*found);
    m_wishes.erase(found);
    if (process == transport::IStream::Process::eLIVES) {
        wish.answer(true);
    } else {
        prove(wish.within, std::move(wish.answer));
    }
}

void Liveness::ask()
{
    for (Question& question : m_questions) {
        question.isAsked = true;
    }
    const auto lock = m_connection.lock();
    m_connection.output().ping();
    m_connection.pushOut();
}

/// Whoever still hears something from the client waits on.
void Liveness::heard(bool isPong)
{
    std::vector<Question> answered;
    std::vector<Question> waiting;
    for (Question& question : m_questions) {
        question.begun = comm::now();
        (isPong && question.isAsked ? answered : waiting).push_back(std::move(question));
    }
    m_questions = std::move(waiting);
    if (!answered.empty() && !m_questions.empty()) {
        ask();
    }
    for (const Question& question : answered) {
        question.answer(true);
    }
}

void Liveness::end()
{
    const auto wishes = std::exchange(m_wishes, {});
    for (const Question& question : std::exchange(m_questions, {})) {
        question.answer(false);
    }
    for (const Wish& wish : wishes) {
        wish.answer(false);
    }
}

void Liveness::await(const Question& question)
{
    const comm::TimeNs part = question.within / PARTS_OF_WAIT;
    const comm::TimeNs due = std::min(comm::now() + part, question.begun + question.within);
    m_connection.loop().startTimer(due, [weak = std::weak_ptr<Liveness>(m_connection.share(*this)),
                                         number = question.number, latest = due + part + LATE] {
        if (const auto self = weak.lock()) {
            self->judge(number, comm::now() > latest);
        }
    });
}

void Liveness::judge(std::uint64_t number, bool hasSlept)
{
    const auto question = find(number);
    if (question == m_questions.end()) {
        return;
    }
    const comm::TimeNs now = comm::now();
    const comm::TimeNs within = question->within;
    if (isTakingSince(question->begun) || hasSlept) {
        question->begun = now;
    }
    if (now - question->begun < within) {
        await(*question);
        return;
    }
    m_connection.readBatch();
    const auto left = find(number);
    if (!m_connection.isOpen() || left == m_questions.end()) {
        return;
    }
    if (m_connection.isReadingOn()) {
        left->begun = now; // what it said may be among what is not handled yet
    }
    if (now - left->begun < within) { // something has come
        await(*left);
        return;
    }
    m_connection.cutOff("silent for " + std::to_string(within / comm::MILLISECOND) + " ms after a ping");
}

/// Whether the client takes what stands before the ping in the queue.
bool Liveness::isTakingSince(comm::TimeNs begun)
{
    const auto lock = m_connection.lock();
    return m_connection.output().queuedBytes() > 0 && m_connection.lastProgress() > begun;
}

std::vector<Liveness::Question>::iterator Liveness::find(std::uint64_t number)
{
    return std::find_if(m_questions.begin(), m_questions.end(),
                        [number](const Question& question) { return question.number == number; });
}

} // namespace kesa::commadapter
