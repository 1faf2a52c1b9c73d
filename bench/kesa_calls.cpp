#include "kesa_calls.h"

#include "ChildProcess.h"
#include "Message.h"
#include "allocations.h"
#include "require.h"

#include <comm/Clock.h>
#include <kesa/commands.h>
#include <kesa/ease/get.h>
#include <kesa/ease/handler.h>
#include <kesa/mimetypes.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <tracing/Sink.h>

#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace bench {

namespace {

using kesa::Payload;
using kesa::Request;
using kesa::Response;
using kesa::runtime::v02::KesaRuntime;
using Api = std::shared_ptr<kesa::IKesaApi>;
using Handler = std::unique_ptr<kesa::IResponseHandler<Response>>;

constexpr const char* PATH = "/bench";
constexpr std::uint64_t STREAM_WINDOW = 2048; ///< values that a stream may be ahead of what was allowed

Payload toPayload(const Message& message)
{
    auto owner = std::make_shared<const Message>(message);
    const Message* const data = owner.get();
    return {std::move(owner), data, sizeof *data, kesa::mimetypes::OCTETS};
}

Message toMessage(const Response& response)
{
    return Message::read(response.getPayload().data(), response.getPayload().size());
}

/// "retrieve": answers with the body. "insert": begins a stream of messages; "update": one window more of it.
class Service final : public kesa::IKesaApi {
public:
    enum class Push { eON_LOOP, eON_THREAD };
    explicit Service(Push push) : m_push(push) {}

    void* request(const Request& request, Handler&& handler) override
    {
        if (request.getCommand() == kesa::commands::RETRIEVE) {
            handler->onNext(Response(200, request.getPayload()));
            handler->onCompleted();
        } else if (request.getCommand() == kesa::commands::INSERT) {
            m_stream = std::move(handler);
            if (m_push == Push::eON_THREAD) {
                std::thread([this] { pushForEver(); }).detach();
            }
            allowWindow();
        } else {
            handler->onCompleted();
            allowWindow();
        }
        return this;
    }
    void cancel(void*) override {}

private:
    void allowWindow()
    {
        if (m_push == Push::eON_LOOP) {
            pushWindow();
        } else {
            m_windows.release();
        }
    }
    void pushForEver()
    {
        while (true) {
            m_windows.acquire();
            pushWindow();
        }
    }
    void pushWindow()
    {
        for (std::uint64_t i = 0; i < STREAM_WINDOW; ++i) {
            if (m_stream->onNext(Response(200, toPayload(Message::make(++m_pushed))))) {
                return; // the client has ended; one that still waits for the value says so itself
            }
        }
    }

    const Push m_push;
    Handler m_stream;
    std::counting_semaphore<> m_windows{0};
    std::uint64_t m_pushed = 0;
};

/// Starts the runtime of this process.
void start(const char* processName)
{
    tracing::setThreshold("*", 4); // warnings are of what the document leaves out
    require(!KesaRuntime::initInstance(processName), "start of the runtime");
}

void provide(Service::Push push, const std::function<void()>& ready)
{
    start("bench-provider");
    std::binary_semaphore registered(0);
    static_cast<void>(KesaRuntime::getInstance()->registerService(
        PATH, std::make_shared<Service>(push), kesa::serviceregistry::ServiceDef::TypeEnum::pex, kesa::GenericObject{},
        kesa::handler<kesa::serviceregistry::ServiceDef>([&registered](const auto&) { registered.release(); })));
    registered.acquire();
    ready();
    while (true) {
        ::pause();
    }
}

kesa::url locator()
{
    return kesa::url(std::string("ipc://bench-provider") + PATH);
}

/// The provider, and the runtime of this process, which is the caller.
class Processes {
public:
    explicit Processes(Service::Push push = Service::Push::eON_LOOP,
                       std::atomic<std::uint64_t>* providerAllocations = nullptr)
        : m_provider([=](const std::function<void()>& ready) {
              allocationCount = providerAllocations;
              provide(push, ready);
          })
    {
        start("bench-caller");
    }
    ~Processes() { stop(); }
    Processes(const Processes&) = delete;
    Processes& operator=(const Processes&) = delete;

    const ChildProcess& provider() const noexcept { return m_provider; }

    /// After this no handler is called any more.
    static void stop()
    {
        if (KesaRuntime::isRunning()) {
            KesaRuntime::shutdown();
        }
    }
    static Api resolve()
    {
        Api api;
        std::binary_semaphore isResolved(0);
        static_cast<void>(KesaRuntime::getInstance()->resolveService(
            locator(), kesa::handler<kesa::optional<Api>>([&](const kesa::optional<Api>& value) {
                require(value.has_value(), "connection to the provider");
                api = *value;
                isResolved.release();
            })));
        isResolved.acquire();
        return api;
    }

private:
    ChildProcess m_provider;
};

Response call(kesa::IKesaApi& api, Payload body)
{
    kesa::GetResult result =
        kesa::get(api, Request(kesa::commands::RETRIEVE, "/", std::move(body)), std::chrono::seconds(10));
    require(static_cast<bool>(result), result.error.c_str());
    return std::move(*result.response);
}

/// Ends the measurement on the loop that delivers, for the caller who waits.
class LoopRecorder {
public:
    LoopRecorder(const ChildProcess& provider, double seconds) : m_recorder(provider, seconds) {}

    /// False when the time is over.
    bool add(const Message& message, std::uint64_t expected)
    {
        message.check(expected);
        if (m_isOver || m_recorder.add(message.sentAt, wallNs())) {
            return !m_isOver;
        }
        m_isOver = true;
        m_result = m_recorder.result();
        m_ended.release();
        return false;
    }
    /// What is outstanding at the end is ended by the runtime.
    void failed(const Response& error) const
    {
        require(m_isOver, kesa::Response::getErrorMessageWithCode(error).c_str());
    }
    /// Stops the runtime, so that whatever the handlers refer to may go.
    Measured await()
    {
        m_ended.acquire();
        Processes::stop();
        return m_result;
    }

private:
    Recorder m_recorder;
    bool m_isOver = false;
    Measured m_result;
    std::binary_semaphore m_ended{0};
};

/// Keeps so many requests outstanding; all but the first are issued inside handlers.
class Pump {
public:
    Pump(kesa::IKesaApi& api, LoopRecorder& recorder, int outstanding)
        : m_api(api), m_recorder(recorder), m_outstanding(outstanding)
    {}
    void start() { issue(m_outstanding); }

private:
    void issue(int next)
    {
        const Message message = Message::make(++m_sent);
        m_api.request(Request(kesa::commands::RETRIEVE, "/", toPayload(message)),
                      kesa::handler<Response>(
                          [this, number = m_sent, next](const Response& response) {
                              if (m_recorder.add(toMessage(response), number)) {
                                  for (int i = 0; i < next; ++i) {
                                      issue(1);
                                  }
                              }
                          },
                          [this](const Response& error) { m_recorder.failed(error); }));
    }

    kesa::IKesaApi& m_api;
    LoopRecorder& m_recorder;
    const int m_outstanding;
    std::uint64_t m_sent = 0;
};

Measured pumped(double seconds, int outstanding)
{
    const Processes processes;
    const Api api = Processes::resolve();
    LoopRecorder recorder(processes.provider(), seconds);
    Pump pump(*api, recorder, outstanding);
    pump.start();
    return recorder.await();
}

Measured streamed(double seconds, Service::Push push)
{
    const Processes processes(push);
    const Api api = Processes::resolve();
    LoopRecorder recorder(processes.provider(), seconds);
    const auto failed = [&recorder](const Response& error) { recorder.failed(error); };
    const auto received = [&, count = std::uint64_t{0}](const Response& response) mutable {
        const bool goesOn = recorder.add(toMessage(response), ++count);
        if (goesOn && count % STREAM_WINDOW == 1) { // the window under way and the next
            api->request(Request(kesa::commands::UPDATE, "/"), kesa::handler<Response>([](const Response&) {}, failed));
        }
    };
    api->request(Request(kesa::commands::INSERT, "/"), kesa::handler<Response>(received, failed));
    return recorder.await();
}

} // namespace

Measured blockedCalls(double seconds)
{
    const Processes processes;
    const Api api = Processes::resolve();
    std::uint64_t number = 0;
    return repeat(processes.provider(), seconds, [&] {
        ++number;
        toMessage(call(*api, toPayload(Message::make(number)))).check(number);
    });
}

Measured callsInHandler(double seconds)
{
    return pumped(seconds, 1);
}

Measured outstandingRequests(double seconds)
{
    return pumped(seconds, 64);
}

Measured streamFromThread(double seconds)
{
    return streamed(seconds, Service::Push::eON_THREAD);
}

Measured streamFromLoop(double seconds)
{
    return streamed(seconds, Service::Push::eON_LOOP);
}

Measured largeCalls(double seconds)
{
    constexpr std::size_t SIZE = 1U << 20U;
    const Processes processes;
    const Api api = Processes::resolve();
    std::string bytes(SIZE, '\0');
    for (std::size_t i = 0; i < SIZE; ++i) {
        bytes[i] = static_cast<char>(i * 31 + i / 256);
    }
    const Payload body = Payload::createFromString(bytes, kesa::mimetypes::OCTETS);
    require(call(*api, body).getPayload().text() == bytes, "bytes of the answer");
    return repeat(processes.provider(), seconds,
                  [&] { require(call(*api, body).getPayload().size() == SIZE, "size of the answer"); });
}

Measured resolvesToFirstAnswer(double seconds)
{
    const Processes processes;
    std::uint64_t number = 0;
    const auto once = [&number] {
        const Message message = Message::make(++number);
        std::binary_semaphore isAnswered(0);
        std::binary_semaphore isReleased(0);
        std::shared_ptr<void> end(nullptr, [&isReleased](void*) { isReleased.release(); });
        kesa::Disposable resolution = KesaRuntime::getInstance()->resolveService(
            locator(), kesa::handler<kesa::optional<Api>>([&, end = std::move(end)](const kesa::optional<Api>& api) {
                require(api.has_value(), "connection to the provider");
                (*api)->request(Request(kesa::commands::RETRIEVE, "/", toPayload(message)),
                                kesa::handler<Response>([&](const Response& response) {
                                    toMessage(response).check(message.number);
                                    isAnswered.release();
                                }));
            }));
        isAnswered.acquire();
        const std::int64_t answeredAt = wallNs();
        resolution.dispose();
        isReleased.acquire();
        return std::pair(message.sentAt, answeredAt);
    };
    Recorder recorder(processes.provider(), seconds);
    for (bool goesOn = true; goesOn;) {
        const auto [start, stop] = once();
        goesOn = recorder.add(start, stop);
    }
    return recorder.result();
}

Allocations allocationsPerCall()
{
    struct Counts {
        std::atomic<std::uint64_t> caller{0};
        std::atomic<std::uint64_t> provider{0};
    };
    void* const memory = ::mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    require(memory != MAP_FAILED, "mmap");
    auto* const counts = new (memory) Counts;
    const Processes processes(Service::Push::eON_LOOP, &counts->provider);
    allocationCount = &counts->caller;
    const Api api = Processes::resolve();
    const Payload body = toPayload(Message::make(1));
    const auto callMany = [&](int times) {
        for (int i = 0; i < times; ++i) {
            toMessage(call(*api, body)).check(1);
        }
    };
    constexpr int CALLS = 10'000;
    callMany(CALLS);
    const std::uint64_t caller = counts->caller;
    const std::uint64_t provider = counts->provider;
    callMany(CALLS);
    const Allocations result{static_cast<double>(counts->caller - caller) / CALLS,
                             static_cast<double>(counts->provider - provider) / CALLS};
    allocationCount = nullptr;
    return result;
}

} // namespace bench
