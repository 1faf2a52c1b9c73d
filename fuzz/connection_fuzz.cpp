// A whole connection of either side under a peer of another user that says frames in any order, number and size, well
// formed or not, on as many connections as it likes: a server with such clients, and a client under such a provider.
// Whatever comes, others are served, and once the peer has gone nothing of it is left.
#include "require.h"

#include "backend/CommBackend.h"
#include "protocol/Machine.h"
#include "transport/MemoryNetwork.h"

#include <comm/SimulatedScheduler.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <kesa/responsesemantics.h>
#include <tracing/Sink.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace kesa;
using namespace kesa::commadapter;
using protocol::Role;

constexpr std::uint64_t VICTIM = 1;
constexpr std::uint64_t HONEST = 2;
constexpr std::uint64_t EVIL = 9;
constexpr std::size_t MOST_CONNECTIONS = 200;
constexpr std::size_t MOST_UNSENT = 8U << 20U;

using Bytes = std::vector<unsigned char>;

/// The other end of one connection of the victim's.
class RawPeer final : public transport::IStreamListener {
public:
    RawPeer(Role role, std::unique_ptr<transport::IStream> stream)
        : m_stream(std::move(stream)), machine(role, hello(), {}, m_nobody, comm::now())
    {
        m_stream->start(*this);
    }

    void say(const Bytes& bytes)
    {
        m_unsent.insert(m_unsent.end(), bytes.begin(), bytes.end());
        onWritable();
    }
    void sayQueued()
    {
        std::vector<iovec> parts(64);
        while (const std::size_t count = machine.output.gather(parts)) {
            Bytes bytes;
            for (std::size_t i = 0; i < count; ++i) {
                const auto* const from = static_cast<const unsigned char*>(parts[i].iov_base);
                bytes.insert(bytes.end(), from, from + parts[i].iov_len);
            }
            machine.output.sent(bytes.size(), comm::now());
            say(bytes);
        }
    }
    void setReading(bool isOn) { m_stream->setReading(isOn); }
    /// Nothing more reaches the victim now, or ever.
    bool isStuck() const noexcept { return m_isOver || m_unsent.size() > MOST_UNSENT; }

private:
    class Nobody final : public protocol::IMachineListener {
        void onHello(const protocol::Hello&) override {}
        Room onLarge(std::uint32_t, std::size_t) override { return Room::eTHERE; }
        void onAttach(std::uint32_t, std::string) override {}
        void onDetach(std::uint32_t) override {}
        void onRequest(std::uint32_t, std::uint32_t, Request, bool, std::size_t) override {}
        void onCancel(std::uint32_t) override {}
        void onAttached(std::uint32_t) override {}
        void onDetached(std::uint32_t) override {}
        void onCredit(std::uint32_t, std::uint32_t) override {}
        void onRequestCredit(std::uint32_t) override {}
        void onNext(std::uint32_t, Response, std::size_t) override {}
        void onError(std::uint32_t, Response) override {}
        void onCompleted(std::uint32_t) override {}
        void onGoodbye(std::string) override {}
    };

    static protocol::Hello hello()
    {
        protocol::Hello hello;
        hello.process = "evil";
        hello.instance = obr::UUID::generate();
        return hello;
    }
    void onReadable() override
    {
        Bytes bytes(65536);
        std::size_t size = 0;
        m_isOver = m_stream->read(bytes, size) == transport::IStream::Result::eENDED || m_isOver;
    }
    void onWritable() override
    {
        while (!m_isOver && m_written < m_unsent.size()) {
            const iovec part{m_unsent.data() + m_written, std::min<std::size_t>(m_unsent.size() - m_written, 65536)};
            std::size_t size = 0;
            const auto result = m_stream->write({&part, 1}, size);
            m_isOver = result == transport::IStream::Result::eENDED;
            m_written += size;
            if (result == transport::IStream::Result::eWOULD_BLOCK) {
                m_stream->wantWrite();
                return;
            }
        }
        m_unsent.clear();
        m_written = 0;
    }
    void onPeerExited() override {}

    Nobody m_nobody;
    const std::unique_ptr<transport::IStream> m_stream;
    Bytes m_unsent;
    std::size_t m_written = 0; ///< of it
    bool m_isOver = false;

public:
    protocol::Machine machine;
};

/// Answers with what it is sent; who asks for a stream gets values for ever, as far as it takes them.
class Service final : public IKesaApi {
public:
    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        if (request.getPath() == "/keep") {
            m_kept.push_back(std::move(handler));
            return m_kept.back().get();
        }
        handler->onNext(Response(200, request.getPayload()));
        handler->onCompleted();
        return UNDEFINED_REQUEST_HANDLE;
    }
    void cancel(void* handle) override
    {
        std::erase_if(m_kept, [handle](const auto& each) { return each.get() == handle; });
    }

private:
    std::vector<std::unique_ptr<IResponseHandler<Response>>> m_kept;
};

class Listener final : public IClientConnectionListener {
    void clientConnected() override {}
    void clientDisconnected() override {}
    void clientError(unsigned short /*code*/, const std::string& /*message*/) override {}
};

class NoTraces final : public ::tracing::ISink {
    void write(const ::tracing::Line& /*line*/) override {}
};

class Answer final : public IResponseHandler<Response> {
public:
    explicit Answer(int& values) : m_values(values) {}
    bool onNext(const Response&) override
    {
        ++m_values;
        return false;
    }
    void onError(const Response&) override {}
    void onCompleted() override {}

private:
    int& m_values;
};

class World {
public:
    explicit World(FuzzedDataProvider& data) : m_data(data), m_scheduler(data.ConsumeIntegral<std::uint8_t>())
    {
        comm::Scheduler::install(&m_scheduler);
        m_network = std::make_unique<transport::MemoryNetwork>();
        m_network->setUser(EVIL, 1001);
        m_evilLoop = comm::Scheduler::current().makeReactor("evil");
        m_evil = m_network->makeTransport(m_evilLoop, EVIL);
        m_victim = makeBackend("victim", VICTIM);
        m_honest = makeBackend("honest", HONEST);
    }
    ~World()
    {
        m_victim->stop();
        m_honest->stop();
        m_evilLoop->stop();
        m_evil.reset();
        m_victim.reset();
        m_honest.reset();
        m_network.reset();
        comm::Scheduler::install(nullptr);
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    void attackServer()
    {
        require(!m_victim->provideOnLocator(url("ipc://victim/service"), &m_service));
        Client honest(*m_honest, "ipc://victim/service");
        const auto open = [this] {
            m_evilLoop->post([this] {
                m_evil->connect(*m_evil->parse(url("ipc://victim/service")), [this](auto connected) {
                    if (connected.stream) {
                        add(Role::eCLIENT, std::move(connected.stream));
                    }
                });
            });
        };
        attack(open);
        require(honest.asks(m_scheduler));
        leave();
        require(honest.asks(m_scheduler));
        require(m_network->openStreams() == 2);
    }

    void attackClient()
    {
        m_isPeerServer = true;
        require(!m_honest->provideOnLocator(url("ipc://honest/service"), &m_service));
        std::string why;
        require(!m_evil->listen(
            "evil", [this](auto stream) { add(Role::eSERVER, std::move(stream)); }, why));
        Client honest(*m_victim, "ipc://honest/service");
        Client client(*m_victim, "ipc://evil/service");
        m_scheduler.runFor(comm::MILLISECOND);
        attack([&] {
            const int what = m_data.ConsumeIntegralInRange(0, 3);
            what == 3 ? client.takeBack()
                      : client.ask(what == 0 ? "" : "/keep", m_data.ConsumeIntegralInRange<std::size_t>(1, 100000));
        });
        require(honest.asks(m_scheduler));
        leave();
        require(honest.asks(m_scheduler));
    }

private:
    class Client {
    public:
        Client(IBackend& backend, const std::string& locator)
            : m_backend(backend), m_api(backend.connect(url(locator), &m_listener))
        {
            require(m_api != nullptr);
            m_api->startConnect();
        }
        ~Client() { m_backend.release(m_api.get(), false); }
        Client(const Client&) = delete;
        Client& operator=(const Client&) = delete;

        void ask(const std::string& path, std::size_t size = 1)
        {
            Request request("retrieve", path, Payload::createFromString(std::string(size, 'x'), "plain/text"));
            if (path == "/keep") {
                request.setHeader("$response-semantic", responsesemantics::PERSISTENT_STREAM);
            }
            m_asked.push_back(m_api->request(request, std::make_unique<Answer>(m_values)));
        }
        /// The one that was asked last; perhaps it has ended.
        void takeBack()
        {
            if (!m_asked.empty()) {
                m_api->cancel(m_asked.back());
                m_asked.pop_back();
            }
        }
        bool asks(comm::SimulatedScheduler& scheduler)
        {
            const int before = m_values;
            for (int attempt = 0; attempt < 100 && m_values == before; ++attempt) {
                ask("");
                scheduler.runFor(50 * comm::MILLISECOND);
            }
            return m_values > before;
        }

    private:
        IBackend& m_backend;
        Listener m_listener;
        const std::unique_ptr<KesaClientApi> m_api;
        std::vector<void*> m_asked;
        int m_values = 0;
    };

    std::unique_ptr<IBackend> makeBackend(const std::string& process, std::uint64_t group)
    {
        m_scheduler.setGroup(group);
        auto backend = makeCommBackend(process, CommSettings(), [this, group](std::shared_ptr<comm::Reactor> loop) {
            std::vector<std::unique_ptr<transport::ITransport>> transports;
            transports.push_back(m_network->makeTransport(std::move(loop), group));
            return transports;
        });
        backend->start();
        return backend;
    }
    void add(Role role, std::unique_ptr<transport::IStream> stream)
    {
        m_peers.push_back(std::make_unique<RawPeer>(role, std::move(stream)));
        m_peers.back()->sayQueued();
    }

    template <class Begin>
    void attack(const Begin& begin)
    {
        begin();
        m_scheduler.runFor(comm::MILLISECOND);
        while (m_data.remaining_bytes() > 0) {
            const int step = m_data.ConsumeIntegralInRange(0, 15);
            if (step == 0) {
                for (unsigned many = m_data.ConsumeIntegralInRange(1U, 80U); many > 0; --many) {
                    m_peers.size() < MOST_CONNECTIONS ? begin() : void();
                }
            } else if (step == 1 || m_peers.empty()) {
                m_scheduler.runFor(m_data.ConsumeIntegralInRange(0, 2000) * comm::MILLISECOND / 10);
            } else {
                const auto which = m_data.ConsumeIntegralInRange<std::size_t>(0, m_peers.size() - 1);
                const unsigned times = step == 2 ? m_data.ConsumeIntegralInRange(1U, 3000U) : 1;
                sayTo(*m_peers[which], times);
            }
        }
        m_scheduler.runFor(10 * comm::MILLISECOND);
    }
    void sayTo(RawPeer& peer, unsigned times)
    {
        const int what = m_data.ConsumeIntegralInRange(0, 12);
        const auto stream = m_data.ConsumeIntegralInRange<std::uint32_t>(1, 70);
        const auto size = m_data.ConsumeIntegralInRange<std::size_t>(0, what == 3 ? 300000 : 5000);
        for (unsigned i = 0; i < times && !peer.isStuck(); ++i) {
            say(peer, what, stream + (times > 1 ? i : 0), times > 1 ? std::min<std::size_t>(size, 500) : size);
        }
        peer.sayQueued();
    }
    void say(RawPeer& peer, int what, std::uint32_t stream, std::size_t size)
    {
        const bool isServer = m_isPeerServer;
        auto& output = peer.machine.output;
        const Payload body = Payload::createFromString(std::string(size, 'x'), "plain/text");
        switch (what) {
        case 0:
            output.ping();
            return;
        case 1:
            isServer ? output.attached(stream) : static_cast<void>(output.attach(stream, "/service"));
            return;
        case 2:
            isServer ? output.detached(stream)
                     : static_cast<void>(output.attach(stream, "/" + std::string(size % 4000, 'p')));
            return;
        case 3:
        case 4:
            static_cast<void>(isServer ? output.next(stream, Response(200, body), stream % 2 == 0)
                                       : output.request(stream, 1, Request("update", "", body)));
            return;
        case 5:
            isServer ? output.completed(stream) : static_cast<void>(output.request(stream, 1, keep(body)));
            return;
        case 6:
            isServer ? output.error(stream, Response(503, body)) : static_cast<void>(output.cancel(stream));
            return;
        case 7:
            peer.setReading(size % 2 == 0);
            return;
        case 8:
            isServer ? output.goodbye(std::string(size, 'g')) : output.detached(stream);
            return;
        case 9:
            begin(peer, isServer ? 6 : 5, stream, static_cast<std::uint32_t>(size) * 4000);
            return;
        case 10:
            giveCredit(peer, stream, size);
            return;
        default:
            bite(peer);
        }
    }
    /// As a client it takes some, too, that nobody gives.
    void giveCredit(RawPeer& peer, std::uint32_t stream, std::size_t size)
    {
        if (m_isPeerServer) {
            peer.machine.output.requestCredit(size);
        } else {
            peer.machine.output.credit(stream, size);
            peer.sayQueued();
            static_cast<void>(peer.machine.output.takeRequestCredit(100 * size));
        }
    }
    static Request keep(const Payload& body)
    {
        Request request("retrieve", "/keep", body);
        request.setHeader("$response-semantic", responsesemantics::PERSISTENT_STREAM);
        return request;
    }
    /// The first fragment of a message that is never finished.
    static void begin(RawPeer& peer, std::uint8_t kind, std::uint32_t stream, std::uint32_t size)
    {
        Bytes frame(protocol::HEADER_BYTES + protocol::FRAME_BYTES, 'x');
        const Bytes head = {0xBF,
                            3,
                            0x1A,
                            static_cast<unsigned char>(size >> 24U),
                            static_cast<unsigned char>(size >> 16U),
                            static_cast<unsigned char>(size >> 8U),
                            static_cast<unsigned char>(size),
                            0xFF};
        protocol::writeHeader(frame.data(), {protocol::FRAME_BYTES, kind, protocol::FLAG_MORE,
                                             static_cast<std::uint16_t>(head.size()), stream, kind == 6 ? 200U : 1U});
        std::copy(head.begin(), head.end(), frame.begin() + protocol::HEADER_BYTES);
        peer.sayQueued();
        peer.say(frame);
    }
    void bite(RawPeer& peer)
    {
        peer.sayQueued();
        const auto bytes = m_data.ConsumeBytes<unsigned char>(m_data.ConsumeIntegralInRange<std::size_t>(1, 40));
        peer.say(bytes);
    }
    /// The peer's process ends.
    void leave()
    {
        m_evilLoop->post([this] { m_peers.clear(); });
        m_scheduler.runFor(comm::MILLISECOND);
        m_network->kill(EVIL);
        m_scheduler.runFor(20 * comm::SECOND);
    }

    FuzzedDataProvider& m_data;
    comm::SimulatedScheduler m_scheduler;
    std::unique_ptr<transport::MemoryNetwork> m_network;
    std::shared_ptr<comm::Reactor> m_evilLoop;
    std::unique_ptr<transport::ITransport> m_evil;
    std::vector<std::unique_ptr<RawPeer>> m_peers;
    Service m_service;
    std::unique_ptr<IBackend> m_victim;
    std::unique_ptr<IBackend> m_honest;
    bool m_isPeerServer = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size)
{
    static const bool isQuiet = [] {
        ::tracing::setSink(std::make_shared<NoTraces>());
        return true;
    }();
    static_cast<void>(isQuiet);
    FuzzedDataProvider data(bytes, size);
    const bool isServer = data.ConsumeBool();
    World world(data);
    isServer ? world.attackServer() : world.attackClient();
    return 0;
}
