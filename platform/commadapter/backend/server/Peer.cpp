#include "backend/server/Peer.h"

namespace kesa::commadapter {

Peer::Peer(std::shared_ptr<IoLoop> loop, std::weak_ptr<ServerConnection> connection)
    : m_loop(std::move(loop)), m_connection(std::move(connection))
{}

void Peer::proveAlive(comm::TimeNs within, std::function<void(bool isAlive)> answer)
{
    ask(&Liveness::prove, within, std::move(answer));
}

void Peer::isProcessAlive(comm::TimeNs within, std::function<void(bool isAlive)> answer)
{
    ask(&Liveness::askKernel, within, std::move(answer));
}

void Peer::ask(Question question, comm::TimeNs within, std::function<void(bool isAlive)>&& answer)
{
    m_loop->post([weak = m_connection, question, within, answer = std::move(answer)]() mutable {
        if (const auto connection = weak.lock()) {
            (connection->liveness().*question)(within, std::move(answer));
        } else {
            answer(false);
        }
    });
}

void Peer::whenDrained(std::function<void()> task)
{
    m_loop->post([weak = m_connection, task = std::move(task)]() mutable {
        if (const auto connection = weak.lock()) {
            connection->drainedTasks().add(std::move(task));
        }
    });
}

void Peer::disconnect(const char* reason)
{
    m_loop->post([weak = m_connection, text = std::string(reason)]() mutable {
        if (const auto connection = weak.lock()) {
            connection->cutOff(std::move(text));
        }
    });
}

IPeer::Name Peer::proveName()
{
    Name name;
    m_loop->runAndWait("the proof of a name", [this, &name] {
        if (const auto connection = m_connection.lock()) {
            name = connection->proveName();
        }
    });
    return name;
}

std::string Peer::endReason() const
{
    const auto connection = m_connection.lock();
    return connection ? connection->endReason() : "the connection has ended";
}

} // namespace kesa::commadapter
