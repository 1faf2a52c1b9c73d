#ifndef KESA_TESTS_SYSTEM_ACTOR_TICKS_H
#define KESA_TESTS_SYSTEM_ACTOR_TICKS_H

#include "actor/Service.h"
#include "actor/Streams.h"

#include <comm/Clock.h>
#include <comm/Scheduler.h>

#include <memory>
#include <string>
#include <utility>

/// Feeds a thousand times a second; what was late is caught up.
class Ticks {
public:
    Ticks(kesa::actor::Service& service, kesa::actor::Say say) : m_service(service), m_say(std::move(say)) {}

    void start()
    {
        m_loop = comm::Scheduler::current().makeReactor("actor.ticks");
        m_loop->post([this] { tick(comm::now()); });
    }
    void stop()
    {
        m_loop->stop();
        m_say("ticked " + std::to_string(m_last));
    }

private:
    void tick(comm::TimeNs when)
    {
        static_cast<void>(m_service.feed(0));
        ++m_last;
        m_loop->startTimer(when + comm::MILLISECOND, [this, when] { tick(when + comm::MILLISECOND); });
    }

    kesa::actor::Service& m_service;
    const kesa::actor::Say m_say;
    std::shared_ptr<comm::Reactor> m_loop;
    std::size_t m_last = 0;
};

#endif
