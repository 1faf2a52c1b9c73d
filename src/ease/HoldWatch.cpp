// Looked at from time to time, and only after a call has begun: a process that has nothing to do is not woken, and one
// that is busy is woken every two seconds. None of the loops that are watched can do that, nor the one that takes the
// end signals: a trace may hang, too, and the second signal has to help then.
#include "HoldWatch.h"
#include "ServedLoops.h"

#include <comm/Scheduler.h>
#include <tracing/Channel.h>

#include <fmt/format.h>
#include <unistd.h>

#include <utility>

namespace kesa::detail {

namespace {

constexpr comm::TimeNs PAUSE = 2 * comm::SECOND;
constexpr comm::TimeNs LONG_HOLD = comm::SECOND;
constexpr comm::TimeNs BETWEEN_LINES = 10 * comm::SECOND;

const ::tracing::Channel& watchChannel()
{
    static const ::tracing::Channel instance("KESA_EASE");
    return instance;
}

} // namespace

HoldWatch::HoldWatch(std::shared_ptr<const runtime::v02::IReasons> reasons)
    : m_reasons(std::move(reasons)), m_loop(comm::Scheduler::current().makeReactor("kesa-watch"))
{
    for (const auto& hold : m_reasons->holds()) {
        m_watched.push_back({hold});
    }
    m_loop->post([this] {
        tellHeld();
        sleepOrLookLater();
    });
    OwnLoop::watchAll(
        [this](const std::shared_ptr<const OwnLoop>& own) { m_loop->post([this, own] { addOwn(own); }); });
}

HoldWatch::~HoldWatch()
{
    OwnLoop::watchAll({});
    m_loop->stop();
    for (const Watched& watched : m_watched) {
        watched.hold->isCalling({});
    }
}

void HoldWatch::addOwn(const std::shared_ptr<const OwnLoop>& own)
{
    std::erase_if(m_watched, [](const Watched& watched) { return watched.own && watched.own->hasEnded(); });
    m_watched.push_back({std::shared_ptr<const comm::LoopHold>(own, &own->hold()), own});
    sleepOrLookLater();
}

void HoldWatch::sleepOrLookLater()
{
    for (const Watched& watched : m_watched) {
        const auto wake = [this, weak = std::weak_ptr<comm::Reactor>(m_loop)] {
            if (const auto loop = weak.lock()) { // after its stop nothing is posted
                loop->post([this] { lookLater(); });
            }
        };
        if (watched.held || watched.hold->isCalling(wake)) { // whose end is to be told, too
            lookLater();
        }
    }
}

void HoldWatch::lookLater()
{
    if (!std::exchange(m_isLookingLater, true)) {
        m_loop->startTimer(comm::now() + PAUSE, [this] { look(); });
    }
}

void HoldWatch::look()
{
    m_isLookingLater = false;
    bool isOther = false;
    for (Watched& watched : m_watched) {
        isOther = lookAt(watched) || isOther;
    }
    if (isOther) {
        tellHeld();
    }
    sleepOrLookLater();
}

/// True when another call holds the loop than before, or none does any more.
bool HoldWatch::lookAt(Watched& watched) const
{
    const comm::TimeNs held = watched.hold->heldFor();
    if (held <= LONG_HOLD) {
        return std::exchange(watched.held, std::nullopt).has_value();
    }
    const comm::TimeNs now = comm::now();
    // As old as it was at the last look: what its thread waits for a processor makes it look younger than it is.
    const bool isSame = now - held < std::exchange(watched.seen, now);
    const auto waiting = watched.own ? std::optional(watched.own->waiting()) : std::nullopt;
    const bool isOther = !isSame || !watched.held || watched.held->waiting != waiting;
    if (isOther) {
        watched.held = HeldLoop{watched.hold->loop(), watched.hold->holder(), now - held, waiting,
                                watched.own ? servedOn(*watched.own) : std::vector<std::string>()};
    }
    if (watched.own) {
        tellOfOwn(watched, held, isSame);
    } else {
        tell(watched, held, isSame);
    }
    return isOther;
}

void HoldWatch::tellHeld() const
{
    std::vector<HeldLoop> all;
    for (const Watched& watched : m_watched) {
        if (watched.held) {
            all.push_back(*watched.held);
        }
    }
    m_reasons->tellHeld(all);
}

void HoldWatch::tell(Watched& watched, comm::TimeNs held, bool isSame) const
{
    const comm::TimeNs now = comm::now();
    const bool isEnding = m_isEnding;
    if (isSame && watched.isToldOfEnd == isEnding && (!isEnding || now - watched.told < BETWEEN_LINES)) {
        return;
    }
    watched.told = now;
    watched.isToldOfEnd = isEnding;
    const std::string holder = watched.hold->holder();
    const comm::TimeNs seconds = held / comm::SECOND;
    KESA_TRACE_TEXT(watchChannel(), 3,
                    isEnding ? fmt::format("[end] this process waits for its {}, which {} has held for {} s; a second "
                                           "SIGINT or SIGTERM ends it at once, as kill -9 {} does",
                                           watched.hold->loop(), holder, seconds, ::getpid())
                             : fmt::format("[loop] {} has held the {} of this process for {} s and still does, so it "
                                           "hears of nothing: leave what takes long or waits to a thread of your own, "
                                           "as kesa::on does",
                                           holder, watched.hold->loop(), seconds));
}

void HoldWatch::tellOfOwn(Watched& watched, comm::TimeNs held, bool isSame)
{
    watched.isTold = watched.isTold && isSame;
    const comm::TimeNs now = comm::now();
    const bool isLong = held >= BETWEEN_LINES; // less may be the turn of one request after the other
    if (watched.isTold || !isLong || watched.held->waiting == 0U || now - watched.told < BETWEEN_LINES) {
        return;
    }
    watched.isTold = true;
    watched.told = now;
    KESA_TRACE_TEXT(watchChannel(), 3,
                    fmt::format("[on] {} has held the loop '{}' for {} s and still does, and {} requests wait for it: "
                                "each loop given to kesa::on serves one after the other, so give what takes long one "
                                "of its own",
                                watched.held->holder, watched.held->loop, held / comm::SECOND, *watched.held->waiting));
}

} // namespace kesa::detail
