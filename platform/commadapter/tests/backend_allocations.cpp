// What one call costs in allocations, once everything has warmed up: the budget of the call path.

#include "backend/CommBackend.h"
#include "transport/IpcTransport.h"

#include <comm/Condition.h>
#include <kesa/IClientConnectionListener.h>
#include <kesa/IKesaApi.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <new>

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {

std::atomic<std::uint64_t> allocations{0};

} // namespace

void* operator new(std::size_t size)
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* const memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace kesa::commadapter::test {
namespace {

class Listener final : public IClientConnectionListener {
public:
    void clientConnected() override { change(1); }
    void clientDisconnected() override {}
    void clientError(unsigned short, const std::string&) override {}

    void change(int by)
    {
        const std::lock_guard lock(m_lock);
        m_count += by;
        m_changed.notifyAll();
    }
    void await()
    {
        std::unique_lock lock(m_lock);
        comm::waitFor(m_changed, lock, [this] { return m_count > 0; });
        --m_count;
    }

private:
    std::mutex m_lock;
    comm::Condition m_changed;
    int m_count = 0;
};

class Handler final : public IResponseHandler<Response> {
public:
    explicit Handler(Listener& listener) noexcept : m_listener(listener) {}
    bool onNext(const Response&) override { return false; }
    void onError(const Response&) override { ADD_FAILURE(); }
    void onCompleted() override { m_listener.change(1); }

private:
    Listener& m_listener;
};

class Service final : public IKesaApi {
public:
    void* request(const Request&, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        handler->onNext(m_answer);
        handler->onCompleted();
        handler.reset();
        return this;
    }
    void cancel(void*) override {}

private:
    const Response m_answer{200, Payload::createFromString(std::string(64, 'x'), "application/json")};
};

TEST(BackendAllocations, CallStaysWithinItsBudget)
{
    std::string directory = (std::filesystem::temp_directory_path() / "kesa-backend-XXXXXX").string();
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    const auto makeTransports = [&directory](const std::shared_ptr<comm::Reactor>& loop) {
        std::vector<std::unique_ptr<transport::ITransport>> transports;
        transports.push_back(transport::makeIpcTransport(transport::IpcSettings{directory, 0600, {}}, loop));
        return transports;
    };
    auto server = makeCommBackend("server", CommSettings(), makeTransports);
    auto client = makeCommBackend("client", CommSettings(), makeTransports);
    server->start();
    client->start();
    Service service;
    Listener listener;
    url locator;
    ASSERT_FALSE(server->provideOnPath("/service", &service, locator));
    const std::unique_ptr<KesaClientApi> api(client->connect(locator, &listener));
    api->startConnect();
    listener.await();

    Request request("retrieve", "/", Payload::createFromString(std::string(64, 'x'), "application/json"));
    request.setHeader("$response-semantic", "single-response");
    constexpr std::uint64_t CALLS = 1000;
    std::uint64_t before = 0;
    for (std::uint64_t i = 0; i < 2 * CALLS; ++i) {
        before = i == CALLS ? allocations.load() : before;
        api->request(request, std::make_unique<Handler>(listener));
        listener.await();
    }
    const double perCall = static_cast<double>(allocations.load() - before) / static_cast<double>(CALLS);
    // Both sides together, and the handler of this test.
    RecordProperty("perCall", std::to_string(perCall));
    EXPECT_LE(perCall, 6.0);
    client->release(api.get(), false);
    client->stop();
    server->stop();
    std::filesystem::remove_all(directory);
}

} // namespace
} // namespace kesa::commadapter::test

#endif
