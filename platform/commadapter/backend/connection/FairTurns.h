#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_FAIRTURNS_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_FAIRTURNS_H

#include <comm/Clock.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace kesa::commadapter {

class Connection;
class IoLoop;

/// In which order the connections that have something to read are served, and for how long.
///
/// While the loop has time, or nothing else is ready, each is served as soon as it is readable. Otherwise, once the
/// connections take more than half of its time, they stand in line: users take turns, whatever number of connections
/// each has, and within a user's line those that sent little the last time come before those that had more than their
/// turn sufficed for. So a peer that asks now and then waits for one turn of those that ask without a pause, not for
/// all of them. Loop only.
class FairTurns {
public:
    /// A turn lasts no longer than this, message by message; between two rounds of this length the loop looks for what
    /// else has come.
    static constexpr comm::TimeNs ROUND = comm::MILLISECOND / 2;

    explicit FairTurns(IoLoop& loop) noexcept : m_loop(loop) {}

    /// There is something to read: reads a batch, inside the call or later.
    void ready(Connection& connection);
    /// Its batch was ended early by time: the next one comes later.
    void again(Connection& connection);

private:
    /// First in, first out. An empty one keeps its memory: where all are busy each batch goes through one.
    class Waiting {
    public:
        std::size_t size() const noexcept { return m_connections.size() - m_first; }
        void add(std::weak_ptr<Connection> connection) { m_connections.push_back(std::move(connection)); }
        std::weak_ptr<Connection> takeFirst();

    private:
        std::vector<std::weak_ptr<Connection>> m_connections; ///< those before `m_first` are taken
        std::size_t m_first = 0;
    };
    /// Of one user.
    struct Line {
        std::int64_t uid;
        Waiting quick; ///< their last turn sufficed
        Waiting busy;

        std::size_t size() const noexcept { return quick.size() + busy.size(); }
    };

    bool isIdleEnough(comm::TimeNs now) noexcept;
    void serve(Connection& connection, comm::TimeNs begin, comm::TimeNs slice);
    Line& lineOf(std::int64_t uid);
    void lineUp(Connection& connection);
    void expectRound();
    void serveRound();
    void serveNext(comm::TimeNs now);

    IoLoop& m_loop;
    std::vector<Line> m_lines; ///< none is empty
    std::vector<Line> m_spare; ///< empty ones, for their memory
    std::size_t m_next = 0;    ///< whose turn it is
    bool m_isRoundDue = false;
    comm::TimeNs m_windowEnd = 0;
    comm::TimeNs m_spent = 0; ///< on batches at once, in the window
};

} // namespace kesa::commadapter

#endif
