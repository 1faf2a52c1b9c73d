// What 1,000 rules cost: a call under them at its provider, let in and refused, beside one without rules, and a
// registration judged by them at the registry. CPU times of this thread; the calls go from one backend to another over
// a network inside this process.
//     kesa_bench_parts_access [rounds]
#include "Comparison.h"
#include "clocks.h"
#include "require.h"

#include <backend/CommBackend.h>
#include <comm/SimulatedScheduler.h>
#include <kesa/IClientConnectionListener.h>
#include <kesa/IKesaApi.h>
#include <policy/Policy.h>
#include <policy/readPolicyRules.h>
#include <rules/readRules.h>
#include <rules/systemAccounts.h>
#include <tracing/Sink.h>
#include <transport/MemoryNetwork.h>
#include <util/config/JSONParser.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using bench::require;
namespace access = kesa::access;
namespace commadapter = kesa::commadapter;
namespace registry = kesa::registry;

constexpr int RULES = 1000;
constexpr int OWN = 500;
constexpr int ASKER = 65533;
constexpr int TIMES = 2000;

/// As JSON; every second one is for the asker. `tail` with the number of the rule in the place of '#'.
util::config::Value rules(const std::string& tail)
{
    std::string text;
    for (int i = 0; i < RULES; ++i) {
        std::string end = tail;
        end.replace(end.find('#'), 1, std::to_string(i));
        text += (i == 0 ? "[" : ",") + std::string("{\"user\":") + std::to_string(i % 2 == 0 ? ASKER : 2000 + i) + end;
    }
    util::config::Value list;
    const bool failed = util::config::JSONParser().parseString(text + ']', list);
    require(!failed, "rules");
    return list;
}

std::shared_ptr<access::Table> makeTable()
{
    std::vector<util::config::Complaint> complaints;
    auto read = access::readRules(rules(R"(,"may":"retrieve","paths":"/**","resources":"/seat#/*"})"), {},
                                  access::accessForm(), access::systemAccounts(), complaints);
    require(complaints.empty() && read.size() == RULES, "table");
    return std::make_shared<access::Table>(OWN, std::move(read), "the table", access::systemAccounts());
}

struct Echo : kesa::IKesaApi {
    void* request(const kesa::Request& request,
                  std::unique_ptr<kesa::IResponseHandler<kesa::Response>>&& handler) override
    {
        static_cast<void>(handler->onNext(kesa::Response(200, request.getPayload())));
        handler->onCompleted();
        return nullptr;
    }
    void cancel(void* /*handle*/) override {}
};

struct Connected : kesa::IClientConnectionListener {
    void clientConnected() override { isConnected = true; }
    void clientDisconnected() override { isConnected = false; }
    void clientError(unsigned short /*code*/, const std::string& /*message*/) override {}
    bool isConnected = false;
};

struct Count : kesa::IResponseHandler<kesa::Response> {
    explicit Count(int (&counts)[2]) : ended(counts) {}
    bool onNext(const kesa::Response& /*value*/) override { return false; }
    void onError(const kesa::Response& error) override { ended[1] += error.getStatus() == 403 ? 1 : 0; }
    void onCompleted() override { ++ended[0]; }
    int (&ended)[2];
};

/// All loops and the network between them.
struct World {
    World() { comm::Scheduler::install(&scheduler); }
    ~World()
    {
        network.reset();
        comm::Scheduler::install(nullptr);
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    comm::SimulatedScheduler scheduler{1};
    std::unique_ptr<commadapter::transport::MemoryNetwork> network =
        std::make_unique<commadapter::transport::MemoryNetwork>();
};

/// A provider and a client of another user.
class Pair {
public:
    Pair(World& world, std::uint64_t group, std::shared_ptr<access::Table> table)
        : m_world(world), m_server(makeBackend("server", group, std::move(table))),
          m_clientSide(makeBackend("client", group + 1, nullptr))
    {
        world.network->setUser(group + 1, ASKER);
        kesa::url locator;
        const bool failed = m_server->provideOnPath("/service", &m_service, locator);
        require(!failed, "provided");
        m_client.reset(m_clientSide->connect(locator, &m_listener));
        m_client->startConnect();
        m_world.scheduler.runFor(comm::SECOND);
        require(m_listener.isConnected, "connected");
    }
    ~Pair()
    {
        m_clientSide->release(m_client.get(), false);
        m_clientSide->stop();
        m_server->stop();
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    /// Nanoseconds of both sides for a call. `resource` may differ from call to call.
    double time(const std::string& command, const std::function<std::string(int)>& resource, bool isLetIn)
    {
        const kesa::Payload body = kesa::Payload::createFromString(std::string(64, 'x'), "application/json");
        int ended[2] = {0, 0};
        const std::int64_t start = bench::threadCpuNs();
        for (int i = 0; i < TIMES; ++i) {
            m_client->request(kesa::Request(command, resource(i), body), std::make_unique<Count>(ended));
            m_world.scheduler.runReady();
        }
        const std::int64_t end = bench::threadCpuNs();
        require(ended[isLetIn ? 0 : 1] == TIMES, isLetIn ? "each is let in" : "each is refused");
        return static_cast<double>(end - start) / TIMES;
    }

private:
    std::unique_ptr<commadapter::IBackend> makeBackend(const std::string& process, std::uint64_t group,
                                                       std::shared_ptr<access::Table> table)
    {
        m_world.scheduler.setGroup(group);
        auto backend = commadapter::makeCommBackend(
            process + std::to_string(group), {},
            [this, group](std::shared_ptr<comm::Reactor> loop) {
                std::vector<std::unique_ptr<commadapter::transport::ITransport>> transports;
                transports.push_back(m_world.network->makeTransport(std::move(loop), group));
                return transports;
            },
            std::move(table));
        backend->start();
        return backend;
    }

    World& m_world;
    Echo m_service;
    Connected m_listener;
    const std::unique_ptr<commadapter::IBackend> m_server;
    const std::unique_ptr<commadapter::IBackend> m_clientSide;
    std::unique_ptr<commadapter::KesaClientApi> m_client;
};

void compareCalls(int rounds)
{
    World world;
    Pair open(world, 1, nullptr);
    Pair guarded(world, 3, makeTable());
    const auto one = [](int /*call*/) { return std::string("/seat998/heat"); };
    const auto others = [](int call) { return "/row" + std::to_string(call) + "/heat"; };
    const bench::Side bare{"no rules", [&] { return open.time("retrieve", one, true); }};
    bench::compare("a call", bare, {"1,000 let in", [&] { return guarded.time("retrieve", one, true); }}, rounds, 1.25);
    bench::compare("a call", bare, {"refused", [&] { return guarded.time("update", one, false); }}, rounds, 2);
    const bench::Side bareOthers{"no rules", [&] { return open.time("retrieve", others, true); }};
    bench::compare("a call, its resource another each time", bareOthers,
                   {"refused", [&] { return guarded.time("retrieve", others, false); }}, rounds, 2);
}

void compareRegistrations(int rounds)
{
    std::vector<util::config::Complaint> complaints;
    auto read = registry::readPolicyRules(rules(R"(,"may":["register","see"],"paths":"/seat#/*"})"), {},
                                          access::systemAccounts(), complaints);
    require(complaints.empty() && read.size() == RULES, "policy");
    registry::Policy none(OWN, &access::systemAccounts());
    registry::Policy policy(OWN, std::move(read), "kesa.json", access::systemAccounts());
    const auto judged = [](registry::Policy& by, const std::string& path, bool isLet) {
        return [&by, path, isLet] {
            const access::Identity identity{ASKER, ASKER, {}};
            int let = 0;
            std::size_t said = 0;
            const std::int64_t start = bench::threadCpuNs();
            for (int i = 0; i < TIMES; ++i) {
                if (by.permitOf(identity)->mayRegister(path)) {
                    ++let;
                } else {
                    said += by.judge(identity, registry::Right::eREGISTER, path).because.size();
                }
            }
            const std::int64_t end = bench::threadCpuNs();
            require(let == (isLet ? TIMES : 0) && (said > 0) == !isLet, "judged");
            return static_cast<double>(end - start) / TIMES;
        };
    };
    const bench::Side bare{"no rules", judged(none, "/seat998/heat", true)};
    bench::compareExcess("a registration is judged", bare, {"1,000 let in", judged(policy, "/seat998/heat", true)},
                         rounds, 5000);
    bench::compareExcess("a registration is judged", bare, {"refused", judged(policy, "/seat999/heat", false)}, rounds,
                         5000);
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 15;
    tracing::setThreshold("KESA_COMM", 4); // not that there are refusals
    compareCalls(rounds);
    compareRegistrations(rounds);
    return 0;
}
