// Processes that provide, connect, ask, answer, cancel, withdraw, are killed and cut off from each other, in an order
// drawn from a seed, over a network that delays and cuts bytes. The checkers watch every client object and service;
// when everything has settled, a client object is connected exactly if its service is provided, and nothing is left
// over at the end. A failing seed is the whole report; KESA_SEED=N runs it alone, KESA_SEEDS=N that many.

#include "backend_support.h"

#include <gtest/gtest.h>

#include <array>

namespace kesa::commadapter::test {
namespace {

using testing::IsEmpty;

constexpr std::size_t PROCESSES = 3;
constexpr std::size_t PATHS = 2;

class BackendRandom : public SimulatedBackends {
protected:
    struct OpenClient {
        std::unique_ptr<Client> client;
        std::size_t server;
        std::size_t path;
        std::vector<std::shared_ptr<Outcome>> asked;
        bool isReleased = false;
    };
    struct Process {
        std::unique_ptr<IBackend> backend;
        std::uint64_t group = 0;
        std::array<std::unique_ptr<CheckedService>, PATHS> services;
        std::vector<std::unique_ptr<OpenClient>> clients;

        void clear()
        {
            for (const auto& open : clients) {
                open->client->forgetBackend();
            }
            clients.clear();
            services = {};
        }
    };

    static std::string name(std::size_t process) { return "p" + std::to_string(process); }
    static std::string locator(std::size_t process, std::size_t path)
    {
        return "ipc://" + name(process) + "/s" + std::to_string(path);
    }
    std::size_t draw(std::size_t bound) { return static_cast<std::size_t>(scheduler->draw(bound)); }

    void begin(std::uint64_t seed)
    {
        use(seed);
        settings.heartbeat = comm::SECOND;
        settings.sendQueueBytes = 64U << 10U;
        transport::MemoryNetwork::Faults faults;
        faults.draw = [this](std::uint64_t bound) { return scheduler->draw(bound); };
        faults.shortReadPercent = draw(2) == 0 ? 0 : 50;
        faults.shortWritePercent = draw(2) == 0 ? 0 : 50;
        faults.refusePercent = draw(2) == 0 ? 0 : 30;
        faults.longestDelay = draw(2) == 0 ? 0 : 3 * comm::MILLISECOND;
        network->setFaults(faults);
        for (std::size_t i = 0; i < PROCESSES; ++i) {
            start(i);
        }
    }
    void start(std::size_t index)
    {
        processes[index].backend = makeBackend(name(index));
        processes[index].group = lastGroup;
    }
    /// Its clients and services go with the process; handlers there hear nothing any more.
    void kill(std::size_t index)
    {
        SimulatedBackends::kill(processes[index].backend, processes[index].group);
        processes[index].clear();
        start(index);
    }
    void provideOrWithdraw(std::size_t index)
    {
        const std::size_t path = draw(PATHS);
        auto& service = processes[index].services[path];
        if (service) {
            processes[index].backend->unprovide(url(locator(index, path)));
            service->withdrawn();
            EXPECT_EQ(service->open(), 0U);
            graveyard.push_back(std::move(service));
        } else {
            service = std::make_unique<CheckedService>(violations, locator(index, path));
            EXPECT_NE(provide(*processes[index].backend, "/s" + std::to_string(path), *service), "");
        }
    }
    void connect(std::size_t index)
    {
        auto open = std::make_unique<OpenClient>(OpenClient{nullptr, draw(PROCESSES), draw(PATHS), {}});
        open->client =
            std::make_unique<Client>(*processes[index].backend, violations, locator(open->server, open->path));
        open->client->start();
        processes[index].clients.push_back(std::move(open));
    }
    void ask(OpenClient& open)
    {
        static const std::array<std::string, 4> RESOURCES = {"/echo", "/drop", "/stream", "/stream"};
        Request request = retrieve(RESOURCES[draw(RESOURCES.size())], std::string(draw(3) * 3000, 'x'));
        if (draw(3) == 0) {
            request.setHeader("$response-semantic", "single-response");
        }
        const auto outcome = open.client->request(request);
        open.asked.push_back(outcome);
        if (draw(4) == 0) {
            outcome->onValue = [&open, self = outcome.get()] { open.client->cancel(*self); };
        }
        if (draw(8) == 0) {
            outcome->onEnd = [this, &open] { ask(open); };
        }
    }
    void answer(std::size_t index)
    {
        const auto& service = processes[index].services[draw(PATHS)];
        if (!service) {
            return;
        }
        for (const auto& handler : service->handlers()) {
            handler->onNext(value(std::string(draw(2) * 2000, 'v')));
        }
        if (const auto handler = draw(2) == 0 ? service->take() : nullptr) {
            if (draw(3) == 0) {
                handler->onCompleted();
            } else if (draw(2) == 0) {
                handler->onError(Response::createErrorResponse(400));
            }
        }
    }
    void actAsClient(OpenClient& open)
    {
        const std::size_t what = draw(10);
        if (what == 0) {
            open.isReleased = true;
            open.client->release(draw(2) == 0);
        } else if (what == 1 && !open.asked.empty()) {
            open.client->cancel(*open.asked[draw(open.asked.size())]);
        } else {
            ask(open);
        }
    }
    void act()
    {
        const std::size_t index = draw(PROCESSES);
        const std::size_t what = draw(20);
        if (what < 3) {
            provideOrWithdraw(index);
        } else if (what < 5) {
            connect(index);
        } else if (what == 5) {
            network->cut(processes[index].group, processes[draw(PROCESSES)].group);
        } else if (what == 6) {
            scheduler->runFor(static_cast<comm::TimeNs>(draw(3)) * comm::SECOND);
        } else if (what == 7 && draw(4) == 0) {
            kill(index);
        } else if (what < 11) {
            answer(index);
        } else if (auto& clients = processes[index].clients; !clients.empty()) {
            OpenClient& open = *clients[draw(clients.size())];
            if (!open.isReleased) {
                actAsClient(open);
            }
        }
        for (std::size_t steps = draw(10); steps > 0 && scheduler->step(); --steps) {
        }
        if (draw(3) == 0) {
            scheduler->runFor(static_cast<comm::TimeNs>(draw(4)) * comm::MILLISECOND);
        }
    }
    void expectSettled()
    {
        scheduler->runFor(10 * comm::SECOND);
        for (const Process& process : processes) {
            for (const auto& open : process.clients) {
                const bool isProvided = processes[open->server].services[open->path] != nullptr;
                if (!open->isReleased) {
                    EXPECT_EQ(open->client->checker.isConnected(), isProvided)
                        << locator(open->server, open->path) << " from group " << process.group;
                }
                for (const auto& outcome : open->asked) {
                    EXPECT_TRUE(outcome->isOver() || (isProvided && !open->isReleased));
                    EXPECT_EQ(outcome->isDestroyed, outcome->isOver());
                }
            }
        }
    }
    void end()
    {
        for (Process& process : processes) {
            process.backend->stop();
            for (const auto& service : process.services) {
                EXPECT_TRUE(!service || service->open() == 0);
            }
            for (const auto& open : process.clients) {
                open->client->checker.released();
            }
        }
        scheduler->runFor(10 * comm::SECOND);
        for (Process& process : processes) {
            for (const auto& open : process.clients) {
                for (const auto& outcome : open->asked) {
                    EXPECT_TRUE(outcome->isDestroyed);
                }
            }
            process.backend.reset();
            process.clear();
        }
        graveyard.clear();
        EXPECT_EQ(network->openStreams(), 0U);
    }

    std::array<Process, PROCESSES> processes;
    std::vector<std::unique_ptr<CheckedService>> graveyard;
};

TEST_F(BackendRandom, EverySeedSettles)
{
    const auto fromEnvironment = [](const char* variable, std::uint64_t otherwise) {
        const char* const text = std::getenv(variable);
        return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
    };
    const std::uint64_t first = fromEnvironment("KESA_SEED", 1);
    const bool isOne = std::getenv("KESA_SEED") != nullptr;
    const std::uint64_t last = first - 1 + fromEnvironment("KESA_SEEDS", isOne ? 1 : 200);
    for (std::uint64_t seed = first; seed <= last; ++seed) {
        begin(seed);
        for (int i = 0; i < 150; ++i) {
            act();
        }
        expectSettled();
        end();
        ASSERT_THAT(violations.take(), IsEmpty()) << "KESA_SEED=" << seed;
        ASSERT_FALSE(HasFailure()) << "KESA_SEED=" << seed;
    }
}

} // namespace
} // namespace kesa::commadapter::test
