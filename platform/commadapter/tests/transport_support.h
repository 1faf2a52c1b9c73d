#ifndef KESA_COMMADAPTER_TESTS_TRANSPORT_SUPPORT_H
#define KESA_COMMADAPTER_TESTS_TRANSPORT_SUPPORT_H

#include "transport/ITransport.h"

#include <comm/Clock.h>
#include <comm/Condition.h>
#include <comm/Reactor.h>

#include <array>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace kesa::commadapter::transport::test {

/// What loops change and the test waits for.
class Board {
public:
    void change(const std::function<void()>& what)
    {
        const std::lock_guard lock(m_mutex);
        what();
        m_changed.notifyAll();
    }
    bool waitUntil(const std::function<bool()>& holds)
    {
        std::unique_lock lock(m_mutex);
        return comm::waitFor(m_changed, lock, holds, comm::now() + 30 * comm::SECOND);
    }
    template <class T>
    T read(const T& value)
    {
        const std::lock_guard lock(m_mutex);
        return value;
    }
    /// Runs `work` on the loop and waits for it.
    void run(comm::Reactor& loop, std::function<void()> work)
    {
        bool isDone = false;
        loop.post([this, &work, &isDone] {
            work();
            change([&isDone] { isDone = true; });
        });
        waitUntil([&isDone] { return isDone; });
    }

private:
    std::mutex m_mutex;
    comm::Condition m_changed;
};

/// One end of a stream: sends as fast as the stream takes it, keeps what arrives, closes at the end.
class Peer final : public IStreamListener {
public:
    Peer(Board& board, comm::Reactor& loop) : m_board(board), m_loop(loop) {}

    /// On the loop.
    void start(std::unique_ptr<IStream> stream)
    {
        m_stream = std::move(stream);
        m_stream->start(*this);
        m_board.change([this] { isConnected = true; });
    }
    /// Any thread.
    void send(const std::string& bytes)
    {
        const std::lock_guard lock(m_output);
        m_toSend += bytes;
        pump();
    }
    /// On the loop.
    void close()
    {
        const std::lock_guard lock(m_output);
        if (m_stream) {
            m_stream->close();
        }
    }

    void onReadable() override
    {
        std::array<unsigned char, 512> buffer;
        std::size_t size = 0;
        const IStream::Result result = m_stream->read(buffer, size);
        m_board.change([&] {
            received.append(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(size));
            identity = m_stream->peer();
            isEnded = isEnded || result == IStream::Result::eENDED;
        });
        if (result == IStream::Result::eENDED) {
            close();
        }
    }
    void onWritable() override
    {
        m_board.change([this] { ++writables; });
        const std::lock_guard lock(m_output);
        pump();
    }
    void onPeerExited() override
    {
        m_board.change([this] {
            hasPeerExited = true;
            receivedAtExit = received;
        });
    }

    // Under the board's lock.
    bool isConnected = false;
    std::string received;
    bool isEnded = false;
    bool hasPeerExited = false;
    std::string receivedAtExit;
    PeerIdentity identity;
    int writables = 0;

private:
    void pump()
    {
        while (m_stream && !m_toSend.empty()) {
            const iovec part{m_toSend.data(), m_toSend.size()};
            std::size_t size = 0;
            const IStream::Result result = m_stream->write({&part, 1}, size);
            m_toSend.erase(0, result == IStream::Result::eENDED ? std::string::npos : size);
            if (result == IStream::Result::eWOULD_BLOCK) {
                m_loop.post([this] { m_stream->wantWrite(); });
                return;
            }
        }
    }

    Board& m_board;
    comm::Reactor& m_loop;
    std::unique_ptr<IStream> m_stream;
    std::mutex m_output;
    std::string m_toSend; ///< under `m_output`
};

inline std::string pattern(std::size_t size, unsigned seed)
{
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i) {
        bytes.push_back(static_cast<char>('!' + (i * 7 + i / 90 + seed) % 90));
    }
    return bytes;
}

} // namespace kesa::commadapter::transport::test

#endif
