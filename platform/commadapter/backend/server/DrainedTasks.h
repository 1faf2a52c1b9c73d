#ifndef KESA_COMMADAPTER_BACKEND_SERVER_DRAINEDTASKS_H
#define KESA_COMMADAPTER_BACKEND_SERVER_DRAINEDTASKS_H

#include <deque>
#include <functional>

namespace kesa::commadapter {

class ServerConnection;

/// What waits until a client has taken all that was sent to it.
class DrainedTasks {
public:
    explicit DrainedTasks(ServerConnection& connection) : m_connection(connection) {}

    // Loop only.
    /// See `IPeer::whenDrained`.
    void add(std::function<void()> task);
    /// The connection has ended: drops them.
    void end();

    /// The queue may be empty by now. With the connection's lock held, any thread.
    void look()
    {
        if (!m_tasks.empty()) {
            post();
        }
    }

private:
    bool hasAllLeft() const;
    void post();
    void runNext();

    ServerConnection& m_connection;
    // With the connection's lock held.
    std::deque<std::function<void()>> m_tasks;
    bool m_isPosted = false;
};

} // namespace kesa::commadapter

#endif
