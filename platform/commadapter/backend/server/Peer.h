#ifndef KESA_COMMADAPTER_BACKEND_SERVER_PEER_H
#define KESA_COMMADAPTER_BACKEND_SERVER_PEER_H

#include "backend/server/ServerConnection.h"

#include <kesa/IPeer.h>

#include <memory>
#include <string>

namespace kesa::commadapter {

/// What a service keeps of a client: leads to its connection for as long as there is one.
class Peer final : public IPeer {
public:
    Peer(std::shared_ptr<IoLoop> loop, std::weak_ptr<ServerConnection> connection);

    void proveAlive(comm::TimeNs within, std::function<void(bool isAlive)> answer) override;
    void isProcessAlive(comm::TimeNs within, std::function<void(bool isAlive)> answer) override;
    void whenDrained(std::function<void()> task) override;
    void disconnect(const char* reason) override;
    std::string endReason() const override;
    Name proveName() override;

private:
    using Question = void (Liveness::*)(comm::TimeNs within, std::function<void(bool isAlive)> answer);
    void ask(Question question, comm::TimeNs within, std::function<void(bool isAlive)>&& answer);

    const std::shared_ptr<IoLoop> m_loop;
    const std::weak_ptr<ServerConnection> m_connection;
};

} // namespace kesa::commadapter

#endif
