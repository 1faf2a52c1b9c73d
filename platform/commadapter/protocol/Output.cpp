#include "protocol/Output.h"

#include <fmt/format.h>

#include <algorithm>

namespace kesa::commadapter::protocol {

namespace {

comm::TimeNs after(comm::TimeNs now, comm::TimeNs pause) noexcept
{
    return pause > comm::NEVER - now ? comm::NEVER : now + pause;
}

} // namespace

Output::Output(Role role, const Hello& own, const Limits& limits, Shared& shared, comm::TimeNs now)
    : m_role(role), m_limits(limits), m_shared(shared), m_helloDeadline(after(now, limits.helloTimeout))
{
    Hello hello = own;
    hello.maxMessageBytes = limits.maxMessageBytes;
    hello.streamWindow = limits.streamWindow;
    HeadWriter head(m_queue.begin());
    head.hello(hello);
    head.close();
    m_queue.push(Kind::eHELLO, 0, 0, Payload::getEmpty());
}

Sent Output::attach(std::uint32_t target, std::string_view path)
{
    if (path.empty() || path.size() > MAX_PATH_BYTES) {
        return Sent::eTOO_LARGE;
    }
    HeadWriter head(m_queue.begin());
    head.attach(path);
    return finish(Kind::eATTACH, 0, target, head, Payload::getEmpty());
}

Sent Output::request(std::uint32_t stream, std::uint32_t target, const Request& request)
{
    HeadWriter head(m_queue.begin());
    head.request(request);
    return finish(Kind::eREQUEST, stream, target, head, request.getPayload());
}

Sent Output::answer(Kind kind, std::uint32_t stream, const Response& response, bool isPersistent)
{
    HeadWriter head(m_queue.begin());
    head.response(response);
    return finish(kind, stream, response.getStatus(), head, response.getPayload(), isPersistent);
}

void Output::error(std::uint32_t stream, const Response& response)
{
    if (answer(Kind::eERROR, stream, response) != Sent::eQUEUED) {
        m_queue.push(Kind::eERROR, stream, response.getStatus());
    }
}

Sent Output::tryNext(const Response& response)
{
    HeadWriter head(m_queue.begin());
    head.response(response);
    const Sent verdict = close(head, response.getPayload());
    m_queue.abandon();
    return verdict;
}

Sent Output::finish(Kind kind, std::uint32_t stream, std::uint32_t target, HeadWriter& head, const Payload& body,
                    bool isPersistent)
{
    const Sent verdict = close(head, body);
    if (verdict == Sent::eQUEUED) {
        if (isPersistent) {
            m_queue.setStreamWindow(m_shared.peerStreamWindow.load(std::memory_order_relaxed));
        }
        m_queue.push(kind, stream, target, body, isPersistent);
    } else {
        m_queue.abandon();
    }
    return verdict;
}

Sent Output::close(HeadWriter& head, const Payload& body)
{
    const std::size_t limit = largestMessage();
    if (body.size() <= limit && head.size() + 1 + body.size() > FRAME_BYTES) {
        head.bodySize(body.size());
    }
    head.close();
    if (head.isInvalid()) {
        m_refusal = "has text that is not UTF-8, or a header without a form on the wire";
        return Sent::eINVALID;
    }
    const std::size_t maxHead = std::min<std::size_t>(MAX_HEAD_BYTES, m_limits.maxHeadBytes);
    if (head.size() > maxHead) {
        m_refusal = fmt::format("has {} bytes besides its body, which are path and headers, more than the {} that a "
                                "message may have of these",
                                head.size(), maxHead);
        return Sent::eTOO_LARGE;
    }
    if (body.size() > limit || head.size() + body.size() > limit) {
        m_refusal = fmt::format("has {} bytes, more than the {} of \"comm\", \"max_message_bytes\" in the "
                                "configuration of {}",
                                head.size() + body.size(), limit, whoseLimit());
        return Sent::eTOO_LARGE;
    }
    return Sent::eQUEUED;
}

/// In words that mean the same on both sides, as the other one may be told.
const char* Output::whoseLimit() const
{
    const std::size_t peers = m_shared.peerMaxMessageBytes.load(std::memory_order_relaxed);
    return m_limits.maxMessageBytes == peers                                 ? "both processes"
           : (m_limits.maxMessageBytes < peers) == (m_role == Role::eCLIENT) ? "the asking process"
                                                                             : "the serving process";
}

void Output::pushBytes(Kind kind, std::uint32_t stream, std::size_t bytes)
{
    while (bytes > 0) {
        const auto some = static_cast<std::uint32_t>(std::min<std::size_t>(bytes, UINT32_MAX));
        m_queue.push(kind, stream, some);
        bytes -= some;
    }
}

Cancelled Output::cancel(std::uint32_t stream)
{
    if (m_queue.dropRequest(stream)) {
        return Cancelled::eNEVER_SENT;
    }
    m_queue.push(Kind::eCANCEL, stream, 0);
    return Cancelled::eASKED;
}

void Output::goodbye(std::string_view reason)
{
    HeadWriter head(m_queue.begin());
    head.goodbye(reason);
    static_cast<void>(finish(Kind::eGOODBYE, 0, 0, head, Payload::getEmpty()));
}

void Output::pong()
{
    if (!m_queue.hasPong()) { // one answers all pings before it
        m_queue.push(Kind::ePONG, 0, 0);
    }
}

void Output::sent(std::size_t size, comm::TimeNs now)
{
    if (size == 0) {
        return;
    }
    m_queue.sent(size);
    if (m_queue.hasPing() && m_probeDeadline != comm::NEVER) {
        m_probeDeadline = after(now, m_limits.heartbeat); // the peer takes what stands before the ping
    }
}

// ---- deadlines ------------------------------------------------------------------------------------------------

bool Output::isProbing() const noexcept
{
    return m_probeDeadline != comm::NEVER &&
           m_shared.receivedCount.load(std::memory_order_relaxed) == m_receivedAtProbe;
}

void Output::probe(comm::TimeNs now)
{
    if (isProbing()) {
        return;
    }
    m_receivedAtProbe = m_shared.receivedCount.load(std::memory_order_relaxed);
    m_probeDeadline = after(now, m_limits.heartbeat);
    if (!m_queue.hasPing()) {
        m_queue.push(Kind::ePING, 0, 0);
    }
}

comm::TimeNs Output::nextDeadline() const noexcept
{
    const bool awaitsHello = !m_shared.hasHello.load(std::memory_order_relaxed);
    return std::min(awaitsHello ? m_helloDeadline : comm::NEVER, isProbing() ? m_probeDeadline : comm::NEVER);
}

bool Output::expired(comm::TimeNs now, std::string& why) const
{
    if (!m_shared.hasHello.load(std::memory_order_relaxed) && now >= m_helloDeadline) {
        why = fmt::format("{} {} ms", NO_HELLO, m_limits.helloTimeout / comm::MILLISECOND);
        return true;
    }
    if (isProbing() && now >= m_probeDeadline) {
        why = fmt::format("silent for {} ms after a ping", m_limits.heartbeat / comm::MILLISECOND);
        return true;
    }
    return false;
}

void Output::restartDeadlines(comm::TimeNs now)
{
    m_helloDeadline = after(now, m_limits.helloTimeout);
    if (m_probeDeadline != comm::NEVER) {
        m_probeDeadline = after(now, m_limits.heartbeat);
    }
}

} // namespace kesa::commadapter::protocol
