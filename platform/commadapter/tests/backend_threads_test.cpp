// The backend on real threads over real sockets: that `cancel` and `release` wait for the call that runs. What races in
// the middle of traffic is the simulation's with threads.

#include "backend_support.h"
#include "transport/IpcTransport.h"

#include <TemporaryFolder.h>
#include <comm/Condition.h>

#include <atomic>

namespace kesa::commadapter::test {
namespace {

class BackendThreads : public testing::Test {
protected:
    std::unique_ptr<IBackend> makeBackend(const std::string& process)
    {
        auto backend = makeCommBackend(process, CommSettings(), [this](const std::shared_ptr<comm::Reactor>& loop) {
            std::vector<std::unique_ptr<transport::ITransport>> transports;
            transports.push_back(transport::makeIpcTransport(transport::IpcSettings{m_runDir.path(), 0600, {}}, loop));
            return transports;
        });
        backend->start();
        return backend;
    }
    void set(std::atomic<bool>& flag)
    {
        const std::lock_guard lock(m_lock);
        flag = true;
        m_changed.notifyAll();
    }
    bool await(const std::atomic<bool>& flag, comm::TimeNs limit = 30 * comm::SECOND)
    {
        std::unique_lock lock(m_lock);
        return comm::waitFor(
            m_changed, lock, [&flag] { return flag.load(); }, comm::now() + limit);
    }

private:
    std::mutex m_lock;
    comm::Condition m_changed;
    const kesa::test::TemporaryFolder m_runDir;
};

TEST_F(BackendThreads, CancelAndReleaseWaitForTheRunningCall)
{
    std::atomic<bool> isConnected{false};
    std::atomic<bool> isServed{false};
    std::atomic<bool> isInside{false};
    std::atomic<bool> hasReturned{false};
    CheckedService service;
    service.onRequest = [&](const Request& request) { request.getPath() == "/behind" ? set(isServed) : void(); };
    const auto server = makeBackend("server");
    const auto clientBackend = makeBackend("client");
    const url locator("ipc://server/service");
    ASSERT_FALSE(server->provideOnLocator(locator, &service));
    std::function<void()> onChange = [&] { set(isConnected); };
    Client client(*clientBackend, locator.toString(), [&] { onChange(); });
    ASSERT_TRUE(await(isConnected));

    const auto linger = [&] {
        set(isInside);
        EXPECT_FALSE(await(hasReturned, 100 * comm::MILLISECOND));
    };
    const auto stream = client.request(retrieve("/stream"));
    stream->onValue = linger;
    client.request(retrieve("/behind"));
    ASSERT_TRUE(await(isServed));
    service.take()->onNext(value("1"));
    ASSERT_TRUE(await(isInside));
    client.cancel(*stream);
    hasReturned = true;
    EXPECT_TRUE(client.isDestroyed(*stream));

    isInside = hasReturned = false;
    onChange = linger;
    server->unprovide(locator);
    ASSERT_TRUE(await(isInside));
    client.release();
    hasReturned = true;
    clientBackend->stop(); // and what may still run
}

} // namespace
} // namespace kesa::commadapter::test
