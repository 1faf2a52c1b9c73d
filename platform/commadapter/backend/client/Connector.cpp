// A missing endpoint is watched, and nothing is tried until the watch fires. Where nothing can be watched, after all
// other failures, and beside the watch of a socket that nobody listens on, the pauses double from 1 ms to the longest
// of the transport. They begin anew when a useful connection has lasted as long as the longest: a peer that ends each
// at once is not asked again and again. One that is started again meanwhile is found by the watch, which begins them
// anew, too. A busy one is tried again within 1 to 5 ms, at random, so that many clients do not come back at the same
// moment.

#include "backend/client/Connector.h"

#include "backend/connection/channel.h"
#include "protocol/Machine.h"

#include <obr/Random.h>

#include <algorithm>
#include <utility>

namespace kesa::commadapter {

Connector::Connector(std::shared_ptr<IoLoop> loop, Destination destination, OpenLocal openLocal)
    : m_loop(std::move(loop)), m_destination(std::move(destination)), m_openLocal(std::move(openLocal))
{}

void Connector::start(Connected connected)
{
    m_loop->onLoop(__func__);
    if (m_state != State::eSTOPPED) {
        return;
    }
    m_connected = std::move(connected);
    m_pause = comm::MILLISECOND;
    attempt();
}

void Connector::stop()
{
    m_loop->onLoop(__func__);
    m_state = State::eSTOPPED;
    ++m_round;
    endWaiting();
}

void Connector::lost(const std::string& reason, bool hasHello)
{
    m_loop->onLoop(__func__);
    if (m_state == State::eSTOPPED) {
        return;
    }
    if (std::exchange(m_isUseful, false) && comm::now() - m_connectedSince >= m_destination.transport->longestPause()) {
        m_pause = comm::MILLISECOND;
        m_tracedReason.clear();
    }
    note(reason, 3);
    setLastReason(reason, hasHello);
    if (!m_isLocal) {
        watch();
    }
    pause(nextPause());
}

void Connector::useful()
{
    m_isUseful = true;
    setLastReason({});
    if (std::exchange(m_isAbsenceTraced, false)) {
        KESA_TRACE(CHANNEL, 3, "[connect] '%s' is connected now", m_destination.endpoint.toString().c_str());
    }
}

std::string Connector::lastReason() const
{
    const std::lock_guard lock(m_mutex);
    return m_lastReason;
}

std::string Connector::explainedReason() const
{
    const std::lock_guard lock(m_mutex);
    if (m_hadHello) {
        return m_lastReason;
    }
    const auto begins = [this](std::string_view text) { return m_lastReason.rfind(text, 0) == 0; };
    const char* const what = begins(protocol::NO_COMMON_VERSION) ? "of another version"
                             : begins(protocol::NO_HELLO)        ? "stopped or blocked"
                             : begins(Destination::ANOTHER_NAME) ? "another process"
                                                                 : "another program, or just ending";
    return "what listens as \"" + m_destination.endpoint.process + "\" is " + what + ": " + m_lastReason;
}

void Connector::setLastReason(const std::string& reason, bool hadHello)
{
    const std::lock_guard lock(m_mutex);
    m_lastReason = reason;
    m_hadHello = hadHello;
}

void Connector::attempt()
{
    m_state = State::eCONNECTING;
    m_hasAppeared = false;
    const std::uint64_t round = ++m_round;
    auto stream = m_openLocal(m_destination);
    m_isLocal = stream != nullptr;
    if (m_isLocal) {
        attempted({std::move(stream), transport::ITransport::Failure::eOTHER, {}});
        return;
    }
    m_destination.transport->connect(m_destination.endpoint, [weakSelf = weak_from_this(), loop = m_loop,
                                                              round](transport::ITransport::Connected result) {
        const IoLoop::Turn turn(*loop);
        const auto self = weakSelf.lock();
        if (self && self->m_round == round && self->m_state == State::eCONNECTING) {
            self->attempted(std::move(result));
        }
    });
}

void Connector::attempted(transport::ITransport::Connected result)
{
    if (result.stream && !m_isLocal) {
        // Whoever is found everywhere in the registry must not use up the descriptors for all others.
        result.reason = m_loop->accounts().whyNoMore(UserAccounts::Kind::eCONNECTIONS, result.stream->peer().uid, 1);
        if (!result.reason.empty()) {
            result.stream.reset();
        }
    }
    if (result.stream) {
        endWaiting();
        m_state = State::eCONNECTED;
        m_connectedSince = comm::now();
        m_connected(std::move(result.stream));
        return;
    }
    const bool isAbsent = result.failure == transport::ITransport::Failure::eMISSING ||
                          result.failure == transport::ITransport::Failure::eSILENT;
    note(result.reason, m_isAbsenceTraced && isAbsent ? 2 : 3);
    switch (result.failure) {
    case transport::ITransport::Failure::eMISSING:
        missing();
        break;
    case transport::ITransport::Failure::eSILENT:
        missing();
        if (m_state == State::eWAITING && m_timer == 0) {
            pause(nextPause());
        }
        break;
    case transport::ITransport::Failure::eBUSY:
        pause(comm::MILLISECOND + static_cast<comm::TimeNs>(obr::Random::current().below(4 * comm::MILLISECOND)));
        break;
    case transport::ITransport::Failure::eFORBIDDEN:
    case transport::ITransport::Failure::eOTHER:
        pause(nextPause());
        break;
    }
}

void Connector::watch()
{
    if (m_watch == 0) {
        m_watch = m_destination.transport->watchEndpoint(m_destination.endpoint,
                                                         [weakSelf = weak_from_this(), loop = m_loop] {
                                                             const IoLoop::Turn turn(*loop);
                                                             if (const auto self = weakSelf.lock()) {
                                                                 self->appeared();
                                                             }
                                                         });
    }
}

void Connector::missing()
{
    watch();
    if (m_watch == 0) {
        pause(nextPause());
    } else if (m_hasAppeared) {
        attempt();
    } else {
        m_state = State::eWAITING;
    }
}

void Connector::appeared()
{
    m_pause = comm::MILLISECOND; // another process's, which may be about to listen
    if (m_state == State::eCONNECTING) {
        m_hasAppeared = true;
    } else if (m_state == State::eWAITING) {
        pause(0); // outside of the transport's call: the attempt may end the watch
    }
}

void Connector::pause(comm::TimeNs duration)
{
    m_state = State::eWAITING;
    if (m_timer != 0) {
        m_loop->reactor()->cancelTimer(m_timer);
    }
    m_timer = m_loop->startTimer(comm::now() + duration, [weakSelf = weak_from_this()] {
        const auto self = weakSelf.lock();
        if (self && self->m_state == State::eWAITING) {
            self->m_timer = 0;
            self->attempt();
        }
    });
}

comm::TimeNs Connector::nextPause()
{
    const comm::TimeNs pause = m_pause;
    m_pause = std::min(2 * m_pause, m_destination.transport->longestPause());
    return pause;
}

void Connector::endWaiting()
{
    if (m_timer != 0) {
        m_loop->reactor()->cancelTimer(m_timer);
        m_timer = 0;
    }
    if (m_watch != 0) {
        m_destination.transport->unwatchEndpoint(m_watch);
        m_watch = 0;
    }
}

void Connector::note(const std::string& reason, int severity)
{
    setLastReason(reason);
    if (reason != m_tracedReason) {
        m_tracedReason = reason;
        m_isAbsenceTraced = m_isAbsenceTraced || severity >= 3;
        KESA_TRACE(CHANNEL, severity, "[connect] '%s' is not connected: %s", m_destination.endpoint.toString().c_str(),
                   reason.c_str());
    }
}

} // namespace kesa::commadapter
