#ifndef KESA_COMMADAPTER_PROTOCOL_OUTPUT_H
#define KESA_COMMADAPTER_PROTOCOL_OUTPUT_H

#include "protocol/Head.h"
#include "protocol/Machine.h"
#include "protocol/SendQueue.h"
#include "protocol/Shared.h"

#include <string>

namespace kesa::commadapter::protocol {

/// Encodes messages into the queue, and watches the deadlines.
class Machine::Output {
public:
    Output(Role role, const Hello& own, const Limits& limits, Shared& shared, comm::TimeNs now);

    Sent attach(std::uint32_t target, std::string_view path);
    [[nodiscard]] Sent request(std::uint32_t stream, std::uint32_t target, const Request& request);
    [[nodiscard]] Sent answer(Kind kind, std::uint32_t stream, const Response& response, bool isPersistent = false);
    [[nodiscard]] Sent tryAnswer(const Response& response);
    const std::string& refusal() const noexcept { return m_refusal; }
    void error(std::uint32_t stream, const Response& response);
    [[nodiscard]] Cancelled cancel(std::uint32_t stream);
    void pong();
    SendQueue& queue() noexcept { return m_queue; }
    const SendQueue& queue() const noexcept { return m_queue; }

    void sent(std::size_t size, comm::TimeNs now);
    void probe(comm::TimeNs now);
    comm::TimeNs nextDeadline() const noexcept;
    bool expired(comm::TimeNs now, std::string& why) const;
    void restartDeadlines(comm::TimeNs now);

private:
    [[nodiscard]] Sent finish(Kind kind, std::uint32_t stream, std::uint32_t target, HeadWriter& head,
                              const Payload& body, bool isPersistent = false);
    /// Completes the head, and judges the message by both sides' limits.
    [[nodiscard]] Sent close(HeadWriter& head, const Payload& body);
    const char* whoseLimit() const;
    bool isProbing() const noexcept;

    const Role m_role;
    const Limits m_limits;
    Shared& m_shared;
    SendQueue m_queue;
    std::string m_refusal; ///< of the last message that was not queued
    comm::TimeNs m_helloDeadline;
    comm::TimeNs m_probeDeadline = comm::NEVER;
    std::uint64_t m_receivedAtProbe = 0; ///< `receivedCount` then: it has grown when the peer showed that it lives
};

} // namespace kesa::commadapter::protocol

#endif
