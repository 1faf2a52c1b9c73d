#include "waiting.h"

#include <kesa/ease/use.h>
#include <kesa/runtime/v02/KesaRuntime.h>

#include <algorithm>
#include <utility>

namespace kesa {

using runtime::v02::IRuntimeRegistry;

std::shared_ptr<Client> use(const std::string& path)
{
    std::shared_ptr<Client> client;
    const bool isThere = runtime::v02::KesaRuntime::withInstance(
        [&](IRuntimeRegistry& runtime) { client = std::make_shared<Client>(&runtime, path); });
    return isThere ? client : std::make_shared<Client>(nullptr, path);
}

std::shared_ptr<Client> use(IRuntimeRegistry& runtime, const std::string& path)
{
    return std::make_shared<Client>(&runtime, path);
}

/// Waits for a client's connection. `operation` is what the user has called.
class Connecting {
public:
    template <class Use>
    static ConnectResult run(const Use& use, std::chrono::nanoseconds timeout, const char* operation)
    {
        ConnectResult result;
        result.error = detail::refusalToWait(operation, "use kesa::use and whenConnected");
        if (!result.error.empty()) {
            return result;
        }
        std::shared_ptr<Client> client = use();
        client->wait(std::max(timeout, std::chrono::nanoseconds::zero()), result);
        if (result.error.empty()) {
            result.client = std::move(client);
        }
        return result;
    }
};

ConnectResult connect(const std::string& path, std::chrono::nanoseconds timeout)
{
    return Connecting::run([&] { return use(path); }, timeout, "kesa::connect");
}

ConnectResult connect(IRuntimeRegistry& runtime, const std::string& path, std::chrono::nanoseconds timeout)
{
    return Connecting::run([&] { return use(runtime, path); }, timeout, "kesa::connect");
}

namespace {

template <class Use>
GetResult connectAndGet(const Use& use, Request&& request, std::chrono::nanoseconds timeout)
{
    const comm::TimeNs deadline = detail::deadlineIn(timeout);
    const ConnectResult found = Connecting::run(use, timeout, "kesa::get");
    if (!found) {
        return {std::nullopt, found.status, found.error};
    }
    return get(*found.client, std::move(request), std::chrono::nanoseconds(deadline - comm::now()));
}

} // namespace

GetResult get(const std::string& path, Request request, std::chrono::nanoseconds timeout)
{
    return connectAndGet([&] { return use(path); }, std::move(request), timeout);
}

GetResult get(IRuntimeRegistry& runtime, const std::string& path, Request request, std::chrono::nanoseconds timeout)
{
    return connectAndGet([&] { return use(runtime, path); }, std::move(request), timeout);
}

} // namespace kesa
