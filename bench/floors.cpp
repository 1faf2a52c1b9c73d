#include "floors.h"

#include "Message.h"
#include "require.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace bench {

namespace {

class Descriptor {
public:
    explicit Descriptor(int number) : m_number(number) { require(number >= 0, "descriptor"); }
    Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    ~Descriptor()
    {
        if (m_number >= 0) {
            ::close(m_number);
        }
    }
    operator int() const noexcept { return m_number; }

private:
    int m_number;
};

/// Writes all of it; waits for room when the socket does not block. False when the peer is gone.
bool sendAll(int socket, const void* data, std::size_t size)
{
    const auto* next = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t count = ::send(socket, next, size, MSG_NOSIGNAL);
        if (count > 0) {
            next += count;
            size -= static_cast<std::size_t>(count);
        } else if (errno == EAGAIN) {
            pollfd entry{socket, POLLOUT, 0};
            ::poll(&entry, 1, -1);
        } else {
            return false;
        }
    }
    return true;
}

/// Reads exactly that much from a socket that blocks. False at its end.
bool receiveAll(int socket, void* data, std::size_t size)
{
    auto* next = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t count = ::recv(socket, next, size, 0);
        if (count <= 0) {
            return false;
        }
        next += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

/// Whole messages out of what a socket that does not block has; waits for it.
class MessageReader {
public:
    explicit MessageReader(int socket) : m_socket(socket), m_epoll(::epoll_create1(EPOLL_CLOEXEC))
    {
        epoll_event event{};
        event.events = EPOLLIN;
        require(::epoll_ctl(m_epoll, EPOLL_CTL_ADD, socket, &event) == 0, "epoll_ctl");
    }

    /// Calls `take(messages, count)` with at least one. False at the end of the stream.
    template <class Take>
    bool readBatch(Take&& take)
    {
        std::size_t whole = 0;
        while (whole == 0) {
            epoll_event event{};
            if (::epoll_wait(m_epoll, &event, 1, -1) != 1) {
                continue;
            }
            const ssize_t count = ::recv(m_socket, m_buffer.data() + m_size, m_buffer.size() - m_size, 0);
            if (count <= 0) {
                return false;
            }
            m_size += static_cast<std::size_t>(count);
            whole = m_size / MESSAGE_BYTES;
        }
        m_messages.resize(whole);
        std::memcpy(m_messages.data(), m_buffer.data(), whole * MESSAGE_BYTES);
        m_size -= whole * MESSAGE_BYTES;
        std::memmove(m_buffer.data(), m_buffer.data() + whole * MESSAGE_BYTES, m_size);
        take(m_messages.data(), whole);
        return true;
    }

private:
    int m_socket;
    Descriptor m_epoll;
    std::size_t m_size = 0;
    std::array<char, 65536> m_buffer{};
    std::vector<Message> m_messages;
};

void sendMessages(int socket, const Message* messages, std::size_t count, bool isCoalesced)
{
    const std::size_t perWrite = isCoalesced ? count : 1;
    for (std::size_t i = 0; i < count; i += perWrite) {
        if (!sendAll(socket, messages + i, perWrite * MESSAGE_BYTES)) {
            return;
        }
    }
}

void echo(int socket, bool isCoalesced)
{
    MessageReader reader(socket);
    const auto answer = [&](const Message* messages, std::size_t count) {
        sendMessages(socket, messages, count, isCoalesced);
    };
    while (reader.readBatch(answer)) {
    }
}

/// A connection to a forked server.
struct Link {
    template <class Serve>
    Link(int flags, Serve serve) : Link(makePair(flags), std::move(serve))
    {}
    Descriptor socket;
    ChildProcess server;

private:
    struct Pair {
        Descriptor client;
        Descriptor server;
    };
    static Pair makePair(int flags)
    {
        int ends[2] = {-1, -1};
        require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0, ends) == 0, "socketpair");
        return {Descriptor(ends[0]), Descriptor(ends[1])};
    }
    template <class Serve>
    Link(Pair pair, Serve serve)
        : socket(std::move(pair.client)), server([this, &pair, &serve](const std::function<void()>& ready) {
              ::close(socket);
              ready();
              serve(static_cast<int>(pair.server));
          })
    {}
};

} // namespace

Measured blockingPingPong(double seconds)
{
    const Link link(0, [](int socket) {
        Message message;
        while (receiveAll(socket, &message, sizeof message) && sendAll(socket, &message, sizeof message)) {
        }
    });
    std::uint64_t number = 0;
    return repeat(link.server, seconds, [&] {
        const Message request = Message::make(++number);
        Message answer;
        require(sendAll(link.socket, &request, sizeof request), "send");
        require(receiveAll(link.socket, &answer, sizeof answer), "receive");
        answer.check(number);
    });
}

Measured handedOverCall(double seconds)
{
    const Link link(SOCK_NONBLOCK, [](int socket) { echo(socket, false); });
    std::mutex mutex;
    std::condition_variable answered;
    bool hasAnswer = false;
    Message answer;
    std::thread loop([&] {
        MessageReader reader(link.socket);
        const auto handOver = [&](const Message* messages, std::size_t) {
            {
                const std::lock_guard lock(mutex);
                answer = *messages;
                hasAnswer = true;
            }
            answered.notify_one();
        };
        while (reader.readBatch(handOver)) {
        }
    });
    std::uint64_t number = 0;
    const Measured result = repeat(link.server, seconds, [&] {
        const Message request = Message::make(++number);
        require(sendAll(link.socket, &request, sizeof request), "send");
        std::unique_lock lock(mutex);
        answered.wait(lock, [&hasAnswer] { return hasAnswer; });
        hasAnswer = false;
        answer.check(number);
    });
    ::shutdown(link.socket, SHUT_RDWR);
    loop.join();
    return result;
}

Measured callOnOneLoop(double seconds)
{
    const Link link(SOCK_NONBLOCK, [](int socket) { echo(socket, false); });
    MessageReader reader(link.socket);
    std::uint64_t number = 0;
    const auto check = [&number](const Message* messages, std::size_t) { messages->check(number); };
    return repeat(link.server, seconds, [&] {
        const Message request = Message::make(++number);
        require(sendAll(link.socket, &request, sizeof request), "send");
        require(reader.readBatch(check), "receive");
    });
}

namespace {

/// Checks the messages that come in batches, and how long each was on its way.
class BatchRecorder {
public:
    BatchRecorder(const ChildProcess& server, double seconds) : m_recorder(server, seconds) {}

    /// False when the time is over.
    bool add(const Message* messages, std::size_t count)
    {
        const std::int64_t time = wallNs();
        bool goesOn = true;
        for (std::size_t i = 0; i < count; ++i) {
            messages[i].check(++m_received);
            goesOn = m_recorder.add(messages[i].sentAt, time) && goesOn;
        }
        return goesOn;
    }
    Measured result() const { return m_recorder.result(); }

private:
    Recorder m_recorder;
    std::uint64_t m_received = 0;
};

Measured outstanding(double seconds, bool isCoalesced)
{
    constexpr std::size_t OUTSTANDING = 64;
    const Link link(SOCK_NONBLOCK, [isCoalesced](int socket) { echo(socket, isCoalesced); });
    MessageReader reader(link.socket);
    BatchRecorder answers(link.server, seconds);
    std::uint64_t sent = 0;
    std::vector<Message> requests;
    const auto send = [&](std::size_t count) {
        requests.clear();
        for (std::size_t i = 0; i < count; ++i) {
            requests.push_back(Message::make(++sent));
        }
        sendMessages(link.socket, requests.data(), count, isCoalesced);
    };
    bool goesOn = true;
    send(OUTSTANDING);
    while (goesOn) {
        require(reader.readBatch([&](const Message* messages, std::size_t count) {
            goesOn = answers.add(messages, count);
            send(count);
        }),
                "receive");
    }
    return answers.result();
}

} // namespace

Measured outstandingCalls(double seconds)
{
    return outstanding(seconds, false);
}

Measured outstandingCallsCoalesced(double seconds)
{
    return outstanding(seconds, true);
}

Measured largeMessages(double seconds)
{
    constexpr std::size_t SIZE = 1U << 20U;
    const Link link(0, [](int socket) {
        std::vector<unsigned char> message(SIZE);
        while (receiveAll(socket, message.data(), SIZE) && sendAll(socket, message.data(), SIZE)) {
        }
    });
    std::vector<unsigned char> request(SIZE);
    std::vector<unsigned char> answer(SIZE);
    for (std::size_t i = 0; i < SIZE; ++i) {
        request[i] = static_cast<unsigned char>(i * 31 + i / 256);
    }
    const auto call = [&] {
        require(sendAll(link.socket, request.data(), SIZE), "send");
        require(receiveAll(link.socket, answer.data(), SIZE), "receive");
    };
    call();
    require(request == answer, "bytes of the answer");
    return repeat(link.server, seconds, call);
}

namespace {

/// An address that needs no file.
sockaddr_un abstractAddress(socklen_t& size)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const int length = std::snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "kesa-bench-%d", ::getppid());
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<std::size_t>(length));
    return address;
}

/// A loop that accepts and answers each message on its connection.
void acceptAndEcho(int listener)
{
    const Descriptor epoll(::epoll_create1(EPOLL_CLOEXEC));
    const auto add = [&epoll](int socket) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = socket;
        require(::epoll_ctl(epoll, EPOLL_CTL_ADD, socket, &event) == 0, "epoll_ctl");
    };
    add(listener);
    for (;;) {
        epoll_event event{};
        if (::epoll_wait(epoll, &event, 1, -1) != 1) {
            continue;
        }
        if (event.data.fd == listener) {
            add(::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
            continue;
        }
        Message message;
        const ssize_t count = ::recv(event.data.fd, &message, sizeof message, 0);
        if (count != sizeof message || !sendAll(event.data.fd, &message, sizeof message)) {
            ::close(event.data.fd);
        }
    }
}

} // namespace

Measured connectAndTwoRoundTrips(double seconds)
{
    socklen_t size = 0;
    const sockaddr_un address = abstractAddress(size);
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    const Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    require(::bind(listener, generic, size) == 0 && ::listen(listener, 128) == 0, "listen");
    const ChildProcess server([&listener](const std::function<void()>& ready) {
        ready();
        acceptAndEcho(listener);
    });
    std::uint64_t number = 0;
    return repeat(server, seconds, [&] {
        const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        require(::connect(socket, generic, size) == 0, "connect");
        for (int trip = 0; trip < 2; ++trip) {
            const Message request = Message::make(++number);
            Message answer;
            require(sendAll(socket, &request, sizeof request), "send");
            require(receiveAll(socket, &answer, sizeof answer), "receive");
            answer.check(number);
        }
    });
}

Measured pushedStream(double seconds)
{
    const Link link(SOCK_NONBLOCK, [](int socket) {
        std::uint64_t number = 0;
        Message message = Message::make(++number);
        while (sendAll(socket, &message, sizeof message)) {
            message = Message::make(++number);
        }
    });
    MessageReader reader(link.socket);
    BatchRecorder answers(link.server, seconds);
    bool goesOn = true;
    while (goesOn) {
        require(reader.readBatch(
                    [&](const Message* messages, std::size_t count) { goesOn = answers.add(messages, count); }),
                "receive");
    }
    return answers.result();
}

Measured relayOverTwoHops(double seconds)
{
    int hop[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, hop) == 0, "socketpair");
    const Descriptor into(hop[0]);
    const Descriptor outOf(hop[1]);
    const Link third(0, [&outOf](int socket) { // tells when it had the message
        Message message;
        while (receiveAll(outOf, &message, sizeof message)) {
            message.sentAt = wallNs();
            require(sendAll(socket, &message, sizeof message), "send");
        }
    });
    const Link second(0, [&into](int socket) {
        Message message;
        while (receiveAll(socket, &message, sizeof message) && sendAll(into, &message, sizeof message)) {
        }
    });
    Recorder recorder(second.server, seconds);
    std::uint64_t number = 0;
    for (bool goesOn = true; goesOn;) {
        const Message sent = Message::make(++number);
        Message arrived;
        require(sendAll(second.socket, &sent, sizeof sent), "send");
        require(receiveAll(third.socket, &arrived, sizeof arrived), "receive");
        arrived.check(number);
        goesOn = recorder.add(sent.sentAt, arrived.sentAt);
    }
    return recorder.result();
}

std::int64_t deathHeardThroughAnother(const ChildProcess::Body& live)
{
    int ends[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    auto mortalEnd = std::make_unique<Descriptor>(ends[0]);
    const Descriptor watched(ends[1]);
    const ChildProcess mortal(live);
    mortalEnd.reset(); // the mortal's copy is the last
    const Link witness(0, [&watched](int socket) {
        Message message;
        require(!receiveAll(watched, &message, sizeof message), "end of the socket");
        message = Message::make(1);
        require(sendAll(socket, &message, sizeof message), "send");
    });
    const std::int64_t killedAt = wallNs();
    mortal.kill();
    Message message;
    require(receiveAll(witness.socket, &message, sizeof message), "receive");
    const std::int64_t heardAt = wallNs();
    message.check(1);
    return heardAt - killedAt;
}

} // namespace bench
