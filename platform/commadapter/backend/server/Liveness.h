#ifndef KESA_COMMADAPTER_BACKEND_SERVER_LIVENESS_H
#define KESA_COMMADAPTER_BACKEND_SERVER_LIVENESS_H

#include <comm/Clock.h>

#include <cstdint>
#include <functional>
#include <vector>

namespace kesa::commadapter {

class ServerConnection;

/// Whether a client lives, for those who ask. Of its process the kernel is asked; it itself by a ping, and its pong
/// answers. Who asks while one is under way waits for the next one. That an owed answer fails to come is the
/// heartbeat's to find, for either side: see Connection_liveness.cpp. Loop only.
class Liveness {
public:
    explicit Liveness(ServerConnection& connection) : m_connection(connection) {}

    /// See `IPeer::proveAlive`.
    void prove(comm::TimeNs within, std::function<void(bool isAlive)> answer);
    /// See `IPeer::isProcessAlive`.
    void askKernel(comm::TimeNs within, std::function<void(bool isAlive)> answer);
    /// Bytes came from the client, and have been handled.
    void heard(bool isPong);
    /// The connection has ended: answers false to all.
    void end();

private:
    struct Question {
        std::uint64_t number;
        comm::TimeNs within;
        comm::TimeNs begun; ///< when `within` began, the last time
        std::function<void(bool isAlive)> answer;
        bool isAsked; ///< the ping under way is its question
    };

    /// To the kernel, once what the client had sent has been handled.
    struct Wish {
        std::uint64_t number;
        comm::TimeNs within;
        std::function<void(bool isAlive)> answer;
    };

    void hearKernel(std::uint64_t number);
    void ask();
    void await(const Question& question);
    void judge(std::uint64_t number, bool hasSlept);
    bool isTakingSince(comm::TimeNs begun);
    std::vector<Question>::iterator find(std::uint64_t number);

    ServerConnection& m_connection;
    std::vector<Question> m_questions; ///< who came after a ping had gone out waits for the next one
    std::vector<Wish> m_wishes;
    std::uint64_t m_lastNumber = 0;
};

} // namespace kesa::commadapter

#endif
