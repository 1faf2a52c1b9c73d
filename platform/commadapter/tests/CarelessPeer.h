#ifndef KESA_COMMADAPTER_TESTS_CARELESSPEER_H
#define KESA_COMMADAPTER_TESTS_CARELESSPEER_H

#include "backend_support.h"
#include "protocol_support.h"

#include <memory>
#include <string>
#include <vector>

namespace kesa::commadapter::test {

/// A process (group 9) that says on a connection what its machine is told, without judging it.
class CarelessPeer final : public transport::IStreamListener {
public:
    CarelessPeer(transport::MemoryNetwork& network, protocol::Role role)
        : m_transport(network.makeTransport(m_loop, 9)),
          m_machine(role, protocol::testing::helloOf("careless"), {}, m_heard, 0)
    {}
    ~CarelessPeer() override { m_loop->stop(); }
    CarelessPeer(const CarelessPeer&) = delete;
    CarelessPeer& operator=(const CarelessPeer&) = delete;

    void connect(const std::string& locator)
    {
        m_loop->post([this, endpoint = *m_transport->parse(url(locator))] {
            m_transport->connect(endpoint, [this](auto connected) { use(std::move(connected.stream)); });
        });
    }
    /// Takes one client.
    void listen(const std::string& process)
    {
        std::string why;
        EXPECT_FALSE(m_transport->listen(
            process, [this](auto stream) { use(std::move(stream)); }, why))
            << why;
    }
    /// Its hello is queued.
    protocol::Machine& machine() noexcept { return m_machine; }
    /// Writes what the machine has queued, which the stream has to have room for.
    void send() { send(protocol::testing::takeAll(m_machine)); }
    void send(protocol::testing::Bytes toSend)
    {
        m_loop->post([this, bytes = std::move(toSend)]() mutable {
            const iovec part{bytes.data(), bytes.size()};
            std::size_t size = 0;
            EXPECT_EQ(m_stream->write({&part, 1}, size), transport::IStream::Result::eDONE);
            EXPECT_EQ(size, bytes.size());
        });
    }
    /// The requests that it has heard of are handled.
    void giveRequestCredit()
    {
        m_machine.output.requestCredit(std::exchange(m_heard.requestsTaken, 0));
        send();
    }
    void setReading(bool isOn)
    {
        m_loop->post([this, isOn] { m_stream->setReading(isOn); });
    }
    const std::vector<std::string>& heard() const noexcept { return m_heard.lines; }

private:
    void use(std::unique_ptr<transport::IStream> stream)
    {
        if (!m_stream) {
            m_stream = std::move(stream);
            m_stream->start(*this);
        }
    }
    void onReadable() override
    {
        std::size_t size = 0;
        const auto result = m_stream->read(m_machine.input.buffer(), size);
        if (result == transport::IStream::Result::eDONE) {
            EXPECT_FALSE(m_machine.input.received(size, comm::now()));
        } else if (result == transport::IStream::Result::eENDED) {
            m_stream->setReading(false);
        }
    }
    void onWritable() override {}
    void onPeerExited() override {}

    const std::shared_ptr<comm::Reactor> m_loop = comm::Scheduler::current().makeReactor("careless");
    const std::unique_ptr<transport::ITransport> m_transport;
    std::unique_ptr<transport::IStream> m_stream;
    protocol::testing::Recorder m_heard;
    protocol::Machine m_machine;
};

} // namespace kesa::commadapter::test

#endif
