// The protocol machine against the least anybody could do: a header of 16 bytes and the body copied to the wire, from
// it, and into a block of its own. Encoding and decoding together; the copy between the two stands for the socket.
//     kesa_bench_parts_protocol [rounds]
#include "Comparison.h"
#include "clocks.h"
#include "require.h"

#include "protocol/Machine.h"

#include <kesa/headers.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace kesa;
using bench::require;
using commadapter::protocol::Hello;
using commadapter::protocol::IMachineListener;
using commadapter::protocol::Limits;
using commadapter::protocol::Machine;
using commadapter::protocol::Role;
using commadapter::protocol::Sent;

/// Counts what arrives.
class Counter final : public IMachineListener {
public:
    void onHello(const Hello&) override {}
    Room onLarge(std::uint32_t, std::size_t) override { return Room::eTHERE; }
    void onAttach(std::uint32_t, std::string) override {}
    void onDetach(std::uint32_t) override {}
    void onRequest(std::uint32_t, std::uint32_t, Request request, bool, std::size_t cost) override
    {
        add(request.getPayload());
        requestBytes += cost;
    }
    void onCancel(std::uint32_t) override {}
    void onAttached(std::uint32_t) override {}
    void onDetached(std::uint32_t) override {}
    void onCredit(std::uint32_t, std::uint32_t) override {}
    void onRequestCredit(std::uint32_t) override {}
    void onNext(std::uint32_t, Response response, std::size_t) override { add(response.getPayload()); }
    void onError(std::uint32_t, Response) override {}
    void onCompleted(std::uint32_t) override {}
    void onGoodbye(std::string) override {}

    std::size_t messages = 0;
    std::size_t bytes = 0;
    std::size_t requestBytes = 0; ///< of their window, not given back

private:
    void add(const Payload& payload)
    {
        ++messages;
        bytes += payload.size();
    }
};

/// A client and a server, connected by a copy.
class Wire {
public:
    Wire()
    {
        move(m_client, m_server);
        move(m_server, m_client);
    }

    /// Nanoseconds per message of `send`, in batches as a busy connection has them.
    template <class Send>
    double time(int messages, int batch, std::size_t body, Send&& send)
    {
        heard = Counter();
        const std::int64_t start = bench::threadCpuNs();
        for (int i = 0; i < messages; i += batch) {
            for (int k = 0; k < batch; ++k) {
                require(send(m_client, m_server) == Sent::eQUEUED, "sending");
            }
            move(m_client, m_server);
            move(m_server, m_client);
            require(!m_client.output.takeRequestCredit(std::exchange(heard.requestBytes, 0)), "credit");
        }
        const std::int64_t end = bench::threadCpuNs();
        require(heard.messages == static_cast<std::size_t>(messages) && heard.bytes == heard.messages * body,
                "everything arrives");
        return static_cast<double>(end - start) / messages;
    }

    Counter heard;

private:
    static void move(Machine& from, Machine& to)
    {
        std::array<iovec, 16> parts{};
        for (std::size_t count = from.output.gather(parts); count > 0; count = from.output.gather(parts)) {
            std::size_t total = 0;
            for (std::size_t i = 0; i < count; ++i) {
                const auto* at = static_cast<const unsigned char*>(parts[i].iov_base);
                for (std::size_t left = parts[i].iov_len; left > 0;) {
                    const auto room = to.input.buffer();
                    const std::size_t size = std::min(left, room.size());
                    std::memcpy(room.data(), at, size);
                    require(!to.input.received(size, 0), to.input.reason().c_str());
                    at += size;
                    left -= size;
                }
                total += parts[i].iov_len;
            }
            from.output.sent(total, 0);
        }
    }

    Machine m_client{Role::eCLIENT, Hello(), Limits(), heard, 0};
    Machine m_server{Role::eSERVER, Hello(), Limits(), heard, 0};
};

double bareCopies(int messages, int batch, const Payload& body)
{
    struct Header {
        std::uint32_t fields[4];
    };
    std::vector<unsigned char> out((sizeof(Header) + body.size()) * static_cast<std::size_t>(batch));
    std::vector<unsigned char> in(out.size());
    std::size_t bytes = 0;
    const std::int64_t start = bench::threadCpuNs();
    for (int i = 0; i < messages; i += batch) {
        std::size_t end = 0;
        for (int k = 0; k < batch; ++k) {
            const Header header{{static_cast<std::uint32_t>(body.size()), 6, 3, 200}};
            std::memcpy(out.data() + end, &header, sizeof header);
            std::memcpy(out.data() + end + sizeof header, body.data(), body.size());
            end += sizeof header + body.size();
        }
        std::memcpy(in.data(), out.data(), end);
        for (std::size_t at = 0; at < end;) {
            Header header{};
            std::memcpy(&header, in.data() + at, sizeof header);
            const std::size_t size = header.fields[0];
            auto block = std::make_shared_for_overwrite<unsigned char[]>(size);
            std::memcpy(block.get(), in.data() + at + sizeof header, size);
            const unsigned char* const data = block.get();
            const Payload payload(std::move(block), data, size, "application/json");
            bytes += payload.size();
            at += sizeof header + size;
        }
    }
    const std::int64_t end = bench::threadCpuNs();
    require(bytes == static_cast<std::size_t>(messages) * body.size(), "everything arrives");
    return static_cast<double>(end - start) / messages;
}

Request requestOf(const Payload& body, bool withHeaders)
{
    Request request("retrieve", "/tracks", body);
    if (withHeaders) {
        request.setMimeType("application/json");
        request.setHeader(headers::RESPONSE_SEMANTIC, "persistent-stream");
        request.setHeader(headers::SERVICE_PATH, "/media/player");
        request.setHeader(headers::TRACE_ID, "navigation-4711");
    }
    return request;
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 15;
    const Payload small = Payload::createFromString(std::string(64, 'x'), "application/json");
    const Payload large = Payload::createFromString(std::string(1U << 20U, 'x'), "application/octet-stream");
    Wire wire;
    for (const int batch : {1, 64}) {
        constexpr int MESSAGES = 64'000;
        const std::string suffix = batch == 1 ? ", one at a time" : ", 64 at a time";
        const bench::Side bare = {"bare copies", [&, batch] { return bareCopies(MESSAGES, batch, small); }};
        const Response answer(200, small);
        bench::compare("answer of 64 B" + suffix, bare,
                       {"Machine",
                        [&, batch] {
                            return wire.time(MESSAGES, batch, small.size(),
                                             [&](Machine&, Machine& server) { return server.output.next(3, answer); });
                        }},
                       rounds);
        for (const bool withHeaders : {false, true}) {
            const Request request = requestOf(small, withHeaders);
            bench::compare((withHeaders ? "request of 64 B with 4 headers" : "request of 64 B") + suffix, bare,
                           {"Machine",
                            [&, batch] {
                                return wire.time(MESSAGES, batch, small.size(), [&](Machine& client, Machine&) {
                                    return client.output.request(3, 1, request);
                                });
                            }},
                           rounds);
        }
    }
    const Response answer(200, large);
    bench::compare("answer of 1 MiB", {"bare copies", [&] { return bareCopies(50, 1, large); }},
                   {"Machine",
                    [&] {
                        return wire.time(50, 1, large.size(),
                                         [&](Machine&, Machine& server) { return server.output.next(3, answer); });
                    }},
                   rounds);
    return 0;
}
