// The protocol machine: arbitrary bytes into both roles, valid conversations that are bitten by a few changed bytes,
// and valid conversations that must be heard as they were said. What was heard must be sayable again.
#include "tests/protocol_support.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>

namespace {

using namespace kesa;
using namespace kesa::commadapter::protocol;
using namespace kesa::commadapter::protocol::testing;

void require(bool holds, const char* what)
{
    if (!holds) {
        std::fprintf(stderr, "violated: %s\n", what);
        std::abort();
    }
}

/// Says again what it hears, to a second machine, which must hear the same.
class Echo final : public Recorder {
public:
    explicit Echo(Role hearing)
        : m_sender(hearing == Role::eSERVER ? Role::eCLIENT : Role::eSERVER, helloOf("echo"), {}, m_nobody, 0),
          m_receiver(hearing, helloOf("echo"), {}, m_second, 0)
    {}

    void onRequest(std::uint32_t stream, std::uint32_t target, Request request, bool isPersistent,
                   std::size_t cost) override
    {
        m_isSaid = m_sender.output.request(stream, target, request) == Sent::eQUEUED;
        requestsTaken = 0;
        Recorder::onRequest(stream, target, std::move(request), isPersistent, cost);
        compare();
        require(!m_sender.output.takeRequestCredit(std::exchange(m_second.requestsTaken, 0)), "it costs the same");
    }
    void onNext(std::uint32_t stream, Response response, std::size_t size) override
    {
        m_isSaid = m_sender.output.next(stream, response) == Sent::eQUEUED;
        Recorder::onNext(stream, std::move(response), size);
        compare();
    }
    void onAttach(std::uint32_t target, std::string path) override
    {
        m_isSaid = m_sender.output.attach(target, path) == Sent::eQUEUED;
        Recorder::onAttach(target, std::move(path));
        compare();
    }

private:
    void compare()
    {
        require(!feed(m_receiver, takeAll(m_sender)), "what was heard can be said again");
        require(!m_isSaid || m_second.lines.back() == lines.back(), "it is heard the same");
    }

    Recorder m_nobody;
    Recorder m_second;
    Machine m_sender;
    Machine m_receiver;
    bool m_isSaid = false;
};

Limits smallLimits(FuzzedDataProvider& data)
{
    Limits limits;
    limits.maxMessageBytes = data.ConsumeIntegralInRange<std::uint32_t>(100, 1U << 20U);
    return limits;
}

void feedArbitrary(FuzzedDataProvider& data, Role role)
{
    Echo echo(role);
    Machine machine(role, helloOf("fuzz"), smallLimits(data), echo, 0);
    if (data.ConsumeBool()) {
        Recorder nobody;
        Machine peer(role, helloOf("peer"), {}, nobody, 0);
        require(!feed(machine, takeAll(peer)), "a hello is accepted");
    }
    const std::size_t atMost = data.ConsumeIntegralInRange<std::size_t>(1, 70000);
    if (feed(machine, data.ConsumeRemainingBytes<unsigned char>(), atMost)) {
        require(!machine.input.reason().empty(), "a refusal has a reason");
    }
}

util::config::Value randomValue(FuzzedDataProvider& data, int depth)
{
    switch (data.ConsumeIntegralInRange(0, depth > 0 ? 7 : 5)) {
    case 0:
        return nullptr;
    case 1:
        return data.ConsumeBool();
    case 2:
        return data.ConsumeIntegral<std::int64_t>();
    case 3:
        return data.ConsumeIntegral<std::uint64_t>();
    case 4:
        return data.ConsumeFloatingPoint<double>();
    case 5:
        return data.ConsumeRandomLengthString(20);
    case 6: {
        util::config::Value::Array array;
        while (data.remaining_bytes() > 0 && data.ConsumeBool()) {
            array.push_back(randomValue(data, depth - 1));
        }
        return array;
    }
    default: {
        util::config::Dictionary dictionary;
        while (data.remaining_bytes() > 0 && data.ConsumeBool()) {
            dictionary.set(data.ConsumeRandomLengthString(10), randomValue(data, depth - 1));
        }
        return dictionary;
    }
    }
}

/// A client's side of a conversation, with what the server is to hear of each stream.
class Conversation {
public:
    explicit Conversation(FuzzedDataProvider& data) : m_data(data) {}

    void say()
    {
        // One of the last four requests, each of which has a number of its own.
        const std::uint32_t stream = m_last - std::min(m_last - 1, m_data.ConsumeIntegralInRange<std::uint32_t>(0, 3));
        switch (m_data.ConsumeIntegralInRange(0, 9)) {
        case 0:
            pair.client.output.detached(stream);
            break;
        case 1:
            pair.client.output.ping();
            break;
        case 2:
            if (pair.client.output.cancel(stream) == Cancelled::eNEVER_SENT) {
                m_hasTakenBack = true;
            } else {
                expected.push_back("cancel " + std::to_string(stream));
            }
            break;
        default:
            request(++m_last);
        }
    }

    Pair pair;
    std::vector<std::string> expected;
    bool hasTakenBack() const noexcept { return m_hasTakenBack; }

private:
    void request(std::uint32_t stream)
    {
        const bool isLarge = m_data.ConsumeIntegralInRange(0, 7) == 0;
        Request request(m_data.ConsumeRandomLengthString(10), m_data.ConsumeRandomLengthString(20),
                        large(m_data.ConsumeIntegralInRange<std::size_t>(0, isLarge ? 200000 : 6000)));
        while (m_data.remaining_bytes() > 0 && m_data.ConsumeBool()) {
            static constexpr const char* NAMES[] = {"$accept", "$response-semantic", "$auth-token", "x"};
            request.setHeader(m_data.ConsumeBool() ? m_data.PickValueInArray(NAMES)
                                                   : m_data.ConsumeRandomLengthString(8),
                              randomValue(m_data, 3));
        }
        if (request.getHeaders().contains("$client-id")) {
            return;
        }
        if (pair.client.output.request(stream, 1, request) == Sent::eQUEUED) {
            expected.push_back(describe(stream, 1, request));
        }
    }

    FuzzedDataProvider& m_data;
    bool m_hasTakenBack = false;
    std::uint32_t m_last = 1;
};

void converse(FuzzedDataProvider& data)
{
    Conversation talk(data);
    Pair& pair = talk.pair;
    while (data.remaining_bytes() > 0) {
        talk.say();
        if (data.ConsumeBool()) {
            const auto atMost = data.ConsumeIntegralInRange<std::size_t>(0, 100000);
            require(!feed(pair.server, take(pair.client, atMost, data.ConsumeIntegralInRange<std::size_t>(1, 9))),
                    "a valid conversation is accepted");
            require(!pair.handleRequests(data.ConsumeIntegralInRange<std::size_t>(0, 300000)), "credit is accepted");
        }
    }
    do {
        require(!pair.handleRequests(), "credit is accepted");
        require(!feed(pair.server, takeAll(pair.client)), "a valid conversation is accepted");
    } while (pair.client.output.waitingBytes() > 0);
    require(pair.client.output.queuedBytes() == 0, "everything leaves");
    if (talk.hasTakenBack()) {
        return; // order and content were checked by being accepted
    }
    std::erase_if(pair.atServer.lines, [](const std::string& line) { return line.rfind("detached", 0) == 0; });
    std::sort(talk.expected.begin(), talk.expected.end()); // large ones are overtaken
    std::sort(pair.atServer.lines.begin(), pair.atServer.lines.end());
    require(talk.expected == pair.atServer.lines, "what is said is heard");
}

void converseBitten(FuzzedDataProvider& data)
{
    Conversation talk(data);
    for (int i = 0; i < 6; ++i) {
        talk.say();
    }
    Bytes bytes = takeAll(talk.pair.client);
    while (data.remaining_bytes() > 0 && !bytes.empty()) {
        const auto at = data.ConsumeIntegralInRange<std::size_t>(0, bytes.size() - 1);
        switch (data.ConsumeIntegralInRange(0, 3)) {
        case 0:
            bytes.erase(bytes.begin() + static_cast<std::ptrdiff_t>(at));
            break;
        case 1:
            bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), data.ConsumeIntegral<unsigned char>());
            break;
        default:
            bytes[at] = data.ConsumeIntegral<unsigned char>();
        }
    }
    if (feed(talk.pair.server, bytes)) {
        require(!talk.pair.server.input.reason().empty(), "a refusal has a reason");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    FuzzedDataProvider data(bytes, size);
    switch (data.ConsumeIntegralInRange(0, 3)) {
    case 0:
        feedArbitrary(data, Role::eSERVER);
        break;
    case 1:
        feedArbitrary(data, Role::eCLIENT);
        break;
    case 2:
        converse(data);
        break;
    default:
        converseBitten(data);
    }
    return 0;
}
