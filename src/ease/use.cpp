#include "registryClient.h"
#include "waiting.h"

#include <fmt/format.h>
#include <kesa/ease/handler.h>
#include <kesa/ease/use.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/IServiceRegistry.h>

#include <algorithm>
#include <atomic>
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

namespace {

/// Put to the registry by who has waited a while for a path: a tracking alone says nothing where nobody is.
class Question {
public:
    Question(IRuntimeRegistry* runtime, const std::string& path) : m_registry(detail::registryClient(runtime))
    {
        const auto answered = [hasAnswered = m_hasAnswered](const auto&) { *hasAnswered = true; };
        m_following = m_registry->follow(Request(serviceregistry::IServiceRegistry::EXPLAIN, path),
                                         handler<Response>(answered, answered));
    }
    Question(const Question&) = delete;
    Question& operator=(const Question&) = delete;
    ~Question() { m_following.dispose(); }

    bool hasAnswer() const { return *m_hasAnswered; }

private:
    const std::shared_ptr<std::atomic<bool>> m_hasAnswered = std::make_shared<std::atomic<bool>>(false);
    const std::shared_ptr<Client> m_registry;
    Disposable m_following;
};

} // namespace

/// Waits for a client's connection. `operation` is what the user has called, `runtime` null for that of the process.
class Connecting {
public:
    static ConnectResult run(IRuntimeRegistry* runtime, const std::string& path, std::chrono::nanoseconds timeout,
                             const char* operation)
    {
        ConnectResult result;
        result.error = detail::refusalToWait(operation, "use kesa::use and whenConnected");
        if (!result.error.empty()) {
            return result;
        }
        timeout = std::max(timeout, std::chrono::nanoseconds::zero());
        std::shared_ptr<Client> client = runtime == nullptr ? use(path) : use(*runtime, path);
        wait(*client, runtime, path, timeout, result);
        if (result.error.empty()) {
            result.client = std::move(client);
        }
        return result;
    }

private:
    static constexpr unsigned short TIME_IS_OVER = 504;

    static void wait(Client& client, IRuntimeRegistry* runtime, const std::string& path,
                     std::chrono::nanoseconds timeout, ConnectResult& result)
    {
        constexpr std::chrono::nanoseconds USUAL = std::chrono::milliseconds(50); // far more than a connection takes
        const auto first = std::min(timeout / 2, USUAL);
        client.wait(first, result);
        bool hasAnswer = false;
        if (result.status == TIME_IS_OVER && timeout > first) {
            const Question question(runtime, path);
            result = {};
            client.wait(timeout - first, result);
            hasAnswer = question.hasAnswer();
        }
        if (result.status == TIME_IS_OVER) {
            result.error = fmt::format("504: not connected within {} ms: {}",
                                       std::chrono::ceil<std::chrono::milliseconds>(timeout).count(),
                                       client.reasonWhenAsked(hasAnswer));
        } else if (result.status != 0) {
            result.error = fmt::format("{}: {}", result.status, result.error);
        }
    }
};

ConnectResult connect(const std::string& path, Duration timeout)
{
    return Connecting::run(nullptr, path, timeout.nanoseconds(), "kesa::connect");
}

ConnectResult connect(IRuntimeRegistry& runtime, const std::string& path, Duration timeout)
{
    return Connecting::run(&runtime, path, timeout.nanoseconds(), "kesa::connect");
}

namespace {

GetResult connectAndGet(IRuntimeRegistry* runtime, const std::string& path, Request&& request,
                        std::chrono::nanoseconds timeout)
{
    const comm::TimeNs deadline = detail::deadlineIn(timeout);
    const ConnectResult found = Connecting::run(runtime, path, timeout, "kesa::get");
    if (!found) {
        return {std::nullopt, found.status, found.error};
    }
    return get(*found.client, std::move(request), std::chrono::nanoseconds(deadline - comm::now()));
}

} // namespace

GetResult get(const std::string& path, Request request, Duration timeout)
{
    return connectAndGet(nullptr, path, std::move(request), timeout.nanoseconds());
}

GetResult get(IRuntimeRegistry& runtime, const std::string& path, Request request, Duration timeout)
{
    return connectAndGet(&runtime, path, std::move(request), timeout.nanoseconds());
}

} // namespace kesa
