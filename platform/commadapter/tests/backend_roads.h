#ifndef KESA_COMMADAPTER_TESTS_BACKEND_ROADS_H
#define KESA_COMMADAPTER_TESTS_BACKEND_ROADS_H

#include "backend_support.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace kesa::commadapter::test {

enum class Road { eREMOTE, eLOCAL };

inline std::string nameOfRoad(const testing::TestParamInfo<Road>& instance)
{
    return instance.param == Road::eREMOTE ? "Remote" : "Local";
}

/// A server (group 1) with one service, and a client that is connected to it: another process (group 2), or the same.
class BothRoads : public SimulatedBackends, public testing::WithParamInterface<Road> {
protected:
    BothRoads()
    {
        settings.maxMessageBytes = 100U << 10U;
        server = makeBackend("server");
        clientBackend = isLocal() ? nullptr : makeBackend("client");
        locator = provide(*server, "/service", service);
        client = connect();
        settle();
    }
    ~BothRoads() override
    {
        client.reset();
        clientBackend.reset();
        server.reset();
    }
    static bool isLocal() { return GetParam() == Road::eLOCAL; }
    IBackend& backend() { return isLocal() ? *server : *clientBackend; }
    std::unique_ptr<Client> connect()
    {
        auto made = std::make_unique<Client>(backend(), locator);
        made->start();
        return made;
    }

    CheckedService service{"service"};
    std::unique_ptr<IBackend> server;
    std::unique_ptr<IBackend> clientBackend;
    std::string locator;
    std::unique_ptr<Client> client;
};

} // namespace kesa::commadapter::test

#endif
