#include "Liar.h"

#include "support/wire.h"

#include <kesa/url.h>
#include <obr/GlobalErrorHandler.h>

#include <array>
#include <utility>

namespace kesa::sim {

using commadapter::transport::IStream;

/// One connection.
class Liar::Talk final : public commadapter::transport::IStreamListener {
public:
    Talk(std::unique_ptr<IStream> stream, Reply reply, bool reads)
        : m_stream(std::move(stream)), m_reply(std::move(reply))
    {
        m_stream->start(*this);
        m_stream->setReading(reads);
    }
    void say(const std::string& bytes)
    {
        m_unsaid += bytes;
        onWritable();
    }
    void close()
    {
        m_isClosed = true;
        m_stream->close();
    }
    bool isClosed() const { return m_isClosed; }

private:
    void onReadable() override
    {
        std::array<unsigned char, 65536> bytes;
        std::size_t size = 0;
        const IStream::Result result = m_stream->read(bytes, size);
        m_heard.append(bytes.begin(), bytes.begin() + size);
        while (!m_isClosed && m_heard.size() >= wire::HEADER_BYTES && m_heard.size() >= wire::sizeOf(m_heard)) {
            const std::string frame = m_heard.substr(0, wire::sizeOf(m_heard));
            m_heard.erase(0, frame.size());
            const std::optional<std::string> said = m_reply(frame);
            said ? say(*said) : close();
        }
        if (result == IStream::Result::eENDED) {
            close();
        }
    }
    void onWritable() override
    {
        while (!m_unsaid.empty() && !m_isClosed) {
            const iovec part{m_unsaid.data(), m_unsaid.size()};
            std::size_t size = 0;
            const IStream::Result result = m_stream->write({&part, 1}, size);
            if (result == IStream::Result::eWOULD_BLOCK) {
                m_stream->wantWrite();
                return;
            }
            m_unsaid.erase(0, result == IStream::Result::eDONE ? size : m_unsaid.size());
        }
    }
    void onPeerExited() override {}

    const std::unique_ptr<IStream> m_stream;
    const Reply m_reply;
    std::string m_unsaid;
    std::string m_heard;
    bool m_isClosed = false;
};

Liar::Liar(commadapter::transport::MemoryNetwork& network, std::uint64_t group, std::function<std::string()> greeting,
           Reply reply)
    : m_loop(comm::Scheduler::current().makeReactor(LIAR)), m_transport(network.makeTransport(m_loop, group)),
      m_reply(std::move(reply))
{
    std::string why;
    const bool failed = m_transport->listen(
        LIAR, [this, greeting = std::move(greeting)](auto stream) { add(std::move(stream), greeting(), true); }, why);
    obr::GlobalErrorHandler::doAssert(!failed, "!failed", __FILE__, __LINE__, __func__, why.c_str());
}

Liar::~Liar()
{
    m_loop->stop();
}

void Liar::connect(const std::string& process, std::string said, bool reads)
{
    m_loop->post([this, process, said = std::move(said), reads]() mutable {
        m_transport->connect({"ipc", process, {}, {}}, [this, said = std::move(said), reads](auto connected) mutable {
            if (connected.stream) {
                add(std::move(connected.stream), std::move(said), reads);
            }
        });
    });
}

void Liar::add(std::unique_ptr<IStream> stream, std::string said, bool reads)
{
    m_talks.push_back(std::make_unique<Talk>(std::move(stream), m_reply, reads));
    m_talks.back()->say(said);
}

void Liar::say(std::uint64_t choice, std::string said)
{
    m_loop->post([this, choice, said = std::move(said)] {
        std::erase_if(m_talks, [](const auto& talk) { return talk->isClosed(); });
        if (!m_talks.empty()) {
            m_talks[choice % m_talks.size()]->say(said);
        }
    });
}

} // namespace kesa::sim
