#ifndef KESA_COMMADAPTER_TESTS_PROTOCOL_SUPPORT_H
#define KESA_COMMADAPTER_TESTS_PROTOCOL_SUPPORT_H

#include "protocol/Frame.h"
#include "protocol/Machine.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

/// What the tests of the protocol machine share: a listener that writes down what it hears, and a wire between two
/// machines on which a seed decides how the bytes are cut.
namespace kesa::commadapter::protocol::testing {

using Bytes = std::vector<unsigned char>;

inline std::string describe(const Payload& payload)
{
    std::ostringstream out;
    out << '<' << payload.getMimeType() << '>';
    if (payload.size() <= 64) {
        out << payload.text();
    } else {
        out << payload.size() << '#' << std::hash<std::string_view>()(payload.text());
    }
    return out.str();
}

inline std::string describe(const Hello& hello)
{
    std::ostringstream out;
    out << "hello " << hello.lowestVersion << ".." << hello.highestVersion << ' ' << hello.process << ' ' << hello.realm
        << ' ' << hello.instance.toString() << ' ' << hello.maxMessageBytes << ' ' << hello.streamWindow;
    for (const std::string& listener : hello.listeners) {
        out << ' ' << listener;
    }
    return out.str();
}

inline std::string describe(const GenericObject& headers)
{
    return headers.empty() ? "" : ' ' + util::config::Value(headers).toText();
}

inline std::string describe(const char* what, std::uint32_t stream, const Response& response)
{
    return what + (' ' + std::to_string(stream)) + ' ' + std::to_string(response.getStatus()) + ' ' +
           describe(response.getPayload()) + describe(response.getHeaders());
}

inline std::string describe(std::uint32_t stream, std::uint32_t target, const Request& request)
{
    return "request " + std::to_string(stream) + ' ' + std::to_string(target) + ' ' + request.getCommand() + ' ' +
           request.getPath() + ' ' + describe(request.getPayload()) + describe(request.getHeaders());
}

/// Writes a line per callback, and lets `echo` send what was heard.
class Recorder : public IMachineListener {
public:
    void onHello(const Hello& peer) override
    {
        hello = peer;
        add(describe(peer));
    }
    Room onLarge(std::uint32_t, std::size_t) override { return room; }
    void onAttach(std::uint32_t target, std::string path) override
    {
        add(line("attach", target) + ' ' + path, [&] { static_cast<void>(echo->output.attach(target, path)); });
    }
    void onDetach(std::uint32_t target) override { onDetached(target); }
    void onRequest(std::uint32_t stream, std::uint32_t target, Request request, bool /*isPersistent*/,
                   std::size_t cost) override
    {
        lines.insert(lines.end(), requestsTaken >= REQUEST_WINDOW ? 1 : 0, "more than the window of requests");
        requestsTaken += cost;
        add(describe(stream, target, request),
            [&] { static_cast<void>(echo->output.request(stream, target, request)); });
    }
    void onCancel(std::uint32_t stream) override
    {
        add(line("cancel", stream), [&] { static_cast<void>(echo->output.cancel(stream)); });
    }
    void onAttached(std::uint32_t target) override
    {
        add(line("attached", target), [&] { echo->output.attached(target); });
    }
    void onDetached(std::uint32_t target) override
    {
        add(line("detached", target), [&] { echo->output.detached(target); });
    }
    void onRequestCredit(std::uint32_t bytes) override
    {
        add("request credit " + std::to_string(bytes), [&] { echo->output.requestCredit(bytes); });
    }
    void onCredit(std::uint32_t stream, std::uint32_t bytes) override
    {
        add(line("credit", stream) + ' ' + std::to_string(bytes), [&] { echo->output.credit(stream, bytes); });
    }
    void onNext(std::uint32_t stream, Response response, std::size_t bytes) override
    {
        std::size_t& has = taken[stream];
        if (isPersistent(stream)) {
            lines.insert(lines.end(), has >= window ? 1 : 0, "more than the window");
            has += bytes;
        }
        add(describe("next", stream, response), [&] { static_cast<void>(echo->output.next(stream, response)); });
    }
    void onError(std::uint32_t stream, Response error) override
    {
        add(describe("error", stream, error), [&] { echo->output.error(stream, error); });
    }
    void onCompleted(std::uint32_t stream) override
    {
        add(line("completed", stream), [&] { echo->output.completed(stream); });
    }

    void onGoodbye(std::string reason) override
    {
        add("goodbye " + reason, [&] { echo->output.goodbye(reason); });
    }

    std::vector<std::string> lines;
    Hello hello;
    std::size_t window = SIZE_MAX;              ///< of streams with odd numbers, which are persistent
    std::map<std::uint32_t, std::size_t> taken; ///< of it
    static bool isPersistent(std::uint32_t stream) { return stream % 2 == 1; }
    std::size_t requestsTaken = 0; ///< of the window of requests
    Room room = Room::eTHERE;      ///< for large messages
    Machine* echo = nullptr;

private:
    static std::string line(const char* what, std::uint32_t number) { return what + (' ' + std::to_string(number)); }
    void add(
        std::string heard, const std::function<void()>& say = [] {})
    {
        lines.push_back(std::move(heard));
        if (echo != nullptr) {
            say();
        }
    }
};

/// The bytes of a frame, whose body is "bbb...".
inline Bytes frame(unsigned kind, unsigned flags, std::uint32_t stream, std::uint32_t target, const Bytes& head = {},
                   std::size_t body = 0)
{
    FrameHeader header;
    header.length = static_cast<std::uint32_t>(head.size() + body);
    header.kind = static_cast<std::uint8_t>(kind);
    header.flags = static_cast<std::uint8_t>(flags);
    header.head = static_cast<std::uint16_t>(head.size());
    header.stream = stream;
    header.target = target;
    Bytes bytes(HEADER_BYTES + header.length, 'b');
    writeHeader(bytes.data(), header);
    std::copy(head.begin(), head.end(), bytes.begin() + HEADER_BYTES);
    return bytes;
}

/// Puts bytes into a machine. True: it refused them.
inline bool feed(Machine& machine, std::span<const unsigned char> bytes, std::size_t atMost = SIZE_MAX)
{
    while (!bytes.empty()) {
        const std::span<unsigned char> room = machine.input.buffer();
        const std::size_t count = std::min({bytes.size(), room.size(), atMost});
        std::memcpy(room.data(), bytes.data(), count);
        if (machine.input.received(count, 0)) {
            return true;
        }
        machine.input.giveBufferBack();
        bytes = bytes.subspan(count);
    }
    return false;
}

/// Takes at most `atMost` bytes of what a machine wants to write.
inline Bytes take(Machine& machine, std::size_t atMost = SIZE_MAX, std::size_t vectors = 16)
{
    std::vector<iovec> out(vectors);
    Bytes bytes;
    const std::size_t count = machine.output.gather(out);
    for (std::size_t i = 0; i < count && bytes.size() < atMost; ++i) {
        const auto* const from = static_cast<const unsigned char*>(out[i].iov_base);
        bytes.insert(bytes.end(), from, from + std::min(out[i].iov_len, atMost - bytes.size()));
    }
    machine.output.sent(bytes.size(), 0);
    return bytes;
}

inline Bytes takeAll(Machine& machine)
{
    Bytes all;
    for (Bytes some = take(machine); !some.empty(); some = take(machine)) {
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

inline Hello helloOf(const char* process)
{
    Hello hello;
    hello.process = process;
    hello.realm = "3f9c2a7be01d44a0";
    hello.instance = *obr::UUID::fromString("00112233-4455-6677-8899-aabbccddeeff");
    return hello;
}

/// A client and a server that have said hello.
struct Pair {
    explicit Pair(const Limits& ofClient = {}, const Limits& ofServer = {})
        : client(Role::eCLIENT, helloOf("client"), ofClient, atClient, 0),
          server(Role::eSERVER, helloOf("server"), ofServer, atServer, 0)
    {
        if (feed(server, takeAll(client)) || feed(client, takeAll(server))) {
            std::abort();
        }
        atClient.lines.clear();
        atServer.lines.clear();
    }

    /// The server has handled at most so many bytes of requests. True: the client refused its credit.
    bool handleRequests(std::size_t atMost = SIZE_MAX)
    {
        const std::size_t handled = std::min(atServer.requestsTaken, atMost);
        atServer.requestsTaken -= handled;
        return client.output.takeRequestCredit(handled);
    }

    Recorder atClient;
    Recorder atServer;
    Machine client;
    Machine server;
};

inline Payload text(std::string content, std::string_view mimeType = "plain/text")
{
    return Payload::createFromString(std::move(content), mimeType);
}

inline Payload large(std::size_t size, char first = 'a')
{
    std::string content(size, first);
    for (std::size_t i = 0; i < size; ++i) {
        content[i] = static_cast<char>(first + static_cast<char>(i * 31 % 64));
    }
    return Payload::createFromString(std::move(content), "application/octet-stream");
}

} // namespace kesa::commadapter::protocol::testing

#endif
