#include "protocol/SendQueue.h"

#include <obr/GlobalErrorHandler.h>

#include <algorithm>

namespace kesa::commadapter::protocol {

namespace {

constexpr std::size_t GATHERED_BYTES = 512U << 10U; ///< of frames in one `gather`: more fits into no socket

} // namespace

// ---- writing a message ----------------------------------------------------------------------------------------

inline void SendQueue::pushEncoded(Kind kind, std::uint32_t stream, std::uint32_t target, const Payload& body,
                                   bool isPersistent)
{
    if (m_frames.head().size() + body.size() <= FRAME_BYTES && !m_turns.has(stream)) {
        m_frames.push(kind, stream, target, body, isPersistent);
    } else {
        pushLarge(kind, stream, target, body, isPersistent);
    }
}

void SendQueue::push(Kind kind, std::uint32_t stream, std::uint32_t target)
{
    begin();
    push(kind, stream, target, Payload::getEmpty());
}

void SendQueue::push(Kind kind, std::uint32_t stream, std::uint32_t target, const Payload& body, bool isPersistent)
{
    if (kind == Kind::eREQUEST) {
        pushRequest(stream, target, body);
        return;
    }
    if (waitsForCredit(kind, stream, isPersistent)) {
        const auto head = m_frames.head();
        m_windows.wait(stream, {kind, target, {head.begin(), head.end()}, body, isPersistent});
        m_frames.abandon();
        return;
    }
    if (isPersistent) {
        m_windows.use(stream, chargeOf(m_frames.head().size() + body.size()));
    }
    pushEncoded(kind, stream, target, body, isPersistent);
}

void SendQueue::pushRequest(std::uint32_t stream, std::uint32_t target, const Payload& body)
{
    const auto head = m_frames.head();
    if (m_requests.isShut()) {
        m_requests.wait(stream, {Kind::eREQUEST, target, {head.begin(), head.end()}, body});
        m_frames.abandon();
        return;
    }
    m_requests.use(head.size() + body.size());
    pushEncoded(Kind::eREQUEST, stream, target, body, false);
}

bool SendQueue::waitsForCredit(Kind kind, std::uint32_t stream, bool isPersistent)
{
    if (kind != Kind::eERROR && kind != Kind::eCOMPLETED) {
        return isPersistent && m_windows.isShut(stream);
    }
    if (m_windows.isWaiting(stream)) {
        return true;
    }
    m_windows.end(stream);
    return false;
}

void SendQueue::pushLarge(Kind kind, std::uint32_t stream, std::uint32_t target, const Payload& body, bool isPersistent)
{
    const auto head = m_frames.head();
    TurnQueue::Message message{kind, target, {head.begin(), head.end()}, body, isPersistent};
    m_frames.abandon();
    if (m_turns.push(stream, std::move(message))) {
        m_frames.pushPlace(stream);
    }
}

// ---- credit ---------------------------------------------------------------------------------------------------

StreamWindows::Given SendQueue::takeCredit(std::uint32_t stream, std::size_t bytes)
{
    const auto given = m_windows.giveBack(stream, bytes);
    if (given == StreamWindows::Given::eTAKEN) {
        queueWaiting(stream);
    }
    return given;
}

void SendQueue::queueWaiting(std::uint32_t stream)
{
    while (const auto message = m_windows.takeNext(stream)) {
        queue(stream, *message);
    }
}

void SendQueue::queue(std::uint32_t stream, const TurnQueue::Message& message)
{
    begin().append(message.head.data(), message.head.size());
    pushEncoded(message.kind, stream, message.target, message.body, message.isPersistent);
}

bool SendQueue::takeRequestCredit(std::size_t bytes)
{
    if (m_requests.giveBack(bytes, unsentRequests())) {
        return true;
    }
    queueWaitingRequests();
    return false;
}

void SendQueue::queueWaitingRequests()
{
    while (const auto next = m_requests.takeNext()) {
        queue(next->stream, next->message);
    }
}

void SendQueue::dropWaiting(std::uint32_t stream)
{
    if (m_windows.drop(stream)) {
        queueWaiting(stream);
    }
}

// ---- taking back ----------------------------------------------------------------------------------------------

bool SendQueue::drop(std::uint32_t stream, Kind kind)
{
    if (bytes() == 0) {
        return false;
    }
    const bool droppedFrames = m_frames.drop(stream, kind);
    const auto dropped = m_turns.drop(stream, kind);
    if (dropped == TurnQueue::Dropped::eUNJOINED) {
        m_frames.dropPlace(stream);
    }
    if (dropped == TurnQueue::Dropped::eFIRST || dropped == TurnQueue::Dropped::eUNJOINED) {
        moveUp(stream);
    }
    return droppedFrames || dropped != TurnQueue::Dropped::eNOTHING;
}

bool SendQueue::dropRequest(std::uint32_t stream)
{
    if (m_requests.drop(stream)) {
        return true;
    }
    const std::size_t before = unsentRequests();
    if (!drop(stream, Kind::eREQUEST)) {
        return false;
    }
    m_requests.takeBack(before - unsentRequests());
    queueWaitingRequests();
    return true;
}

/// What waited behind a large message that has left or was dropped.
void SendQueue::moveUp(std::uint32_t stream)
{
    while (const auto message = m_turns.takeFollower(stream)) {
        begin().append(message->head.data(), message->head.size());
        m_frames.push(message->kind, stream, message->target, message->body, message->isPersistent);
    }
    if (m_turns.has(stream)) {
        m_frames.pushPlace(stream);
    }
}

/// What is taken back makes the end come earlier, so fewer bytes than `endThen` say nothing yet. Nothing is queued
/// behind a message of the same stream and kind, so none waits behind a large one.
bool SendQueue::search(std::uint32_t stream, Kind kind, std::uint64_t endThen)
{
    if (m_turns.has(stream)) {
        return m_turns.isNext(stream, kind);
    }
    if (kind == Kind::eREQUEST && m_requests.isWaiting(stream)) {
        return true;
    }
    return m_sent < endThen && m_frames.contains(stream, kind);
}

// ---- leaving --------------------------------------------------------------------------------------------------

std::size_t SendQueue::gather(std::span<iovec> out)
{
    m_steps.clear();
    if (bytes() == 0) {
        return 0;
    }
    while (const auto stream = m_frames.takePlace()) {
        m_turns.join(*stream);
    }
    Gathering gathering{.out = out};
    FrameQueue::Cursor cursor = m_frames.front();
    if (m_turns.isIdle()) {
        gatherFrames(gathering, cursor, GATHERED_BYTES);
        return gathering.count;
    }
    if (!m_turns.isInsideFragment()) {
        gatherFrames(gathering, cursor, m_credit);
    }
    for (std::size_t i = 0; i < TurnQueue::GATHERED_FRAGMENTS && !gathering.isFull; ++i) {
        const auto fragment = m_turns.gather(gathering, i);
        m_steps.push_back({true, fragment.bytes});
        if (fragment.isLast) {
            break;
        }
        gatherFrames(gathering, cursor, FRAME_BYTES);
    }
    return gathering.count;
}

void SendQueue::gatherFrames(Gathering& gathering, FrameQueue::Cursor& cursor, std::size_t limit)
{
    if (const std::size_t bytes = m_frames.gather(gathering, cursor, limit); bytes > 0) {
        m_steps.push_back({false, bytes});
    }
}

void SendQueue::sent(std::size_t size)
{
    m_sent += size;
    for (const Step& step : m_steps) {
        const std::size_t taken = std::min(size, step.bytes);
        if (taken == 0) {
            break;
        }
        size -= taken;
        step.isFragment ? sentFragment(taken) : sentFrames(taken);
    }
    m_steps.clear();
    if (size > 0) {
        obr::GlobalErrorHandler::doAssert(false, "size <= gathered", __FILE__, __LINE__, __func__,
                                          "more bytes were sent than the last gather gave out");
    }
}

void SendQueue::sentFrames(std::size_t size)
{
    if (!m_turns.isIdle()) {
        m_credit -= std::min(m_credit, size);
    }
    m_frames.sent(size);
}

void SendQueue::sentFragment(std::size_t size)
{
    const auto finished = m_turns.sent(size);
    if (finished.isFragment) {
        m_credit = FRAME_BYTES;
    }
    if (finished.stream) {
        moveUp(*finished.stream);
    }
}

} // namespace kesa::commadapter::protocol
