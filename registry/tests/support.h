#ifndef KESA_REGISTRY_TESTS_SUPPORT_H
#define KESA_REGISTRY_TESTS_SUPPORT_H

#include "store/Record.h"

#include <NotingHandler.h>
#include <kesa/IPeer.h>
#include <kesa/IResponseHandler.h>
#include <kesa/RequestContext.h>
#include <kesa/Response.h>
#include <kesa/core/response_handlers.h>
#include <kesa/reasonOf.h>
#include <kesa/registry/Registry.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kesa::registry::test {

using kesa::test::Lines;

inline ServiceDef service(const std::string& path, const std::string& locator = "ipc://p/s")
{
    return ServiceDef(Path(path), ServiceDef::TypeEnum::pex, {"1.0.0"}, {url(locator)});
}

/// "+/a" or "-/a".
inline std::string textOf(const RegistryUpdate& update)
{
    return (update.updateType == UpdateType::ADDED ? "+" : "-") + update.element->path.toString();
}
inline std::string textOf(const std::vector<RegistryUpdate>& list)
{
    std::string text = "[";
    for (const RegistryUpdate& update : list) {
        text += textOf(update);
    }
    return text + "]";
}
inline std::string textOf(const ServiceDef& registered)
{
    return "registered " + registered.path.toString();
}

/// Notes in `lines`, which it keeps alive, what a stream tells; `hook`, when there is one, hears each value.
template <class T>
std::unique_ptr<IResponseHandler<T>> noting(const std::shared_ptr<Lines>& lines, const std::string& name,
                                            const std::function<void(const T&)>& hook = {})
{
    return std::make_unique<kesa::test::NotingHandler<T>>([lines](const std::string& line) { lines->push_back(line); },
                                                          [hook](const T& value) {
                                                              hook ? hook(value) : void();
                                                              return textOf(value);
                                                          },
                                                          name + ": ");
}

/// A peer whose answers are in the test's hand.
class FakePeer final : public IPeer {
public:
    void proveAlive(comm::TimeNs, std::function<void(bool)> answer) override { pings.push_back(std::move(answer)); }
    void isProcessAlive(comm::TimeNs, std::function<void(bool)> answer) override
    {
        questions.push_back(std::move(answer));
    }
    void whenDrained(std::function<void()> task) override { tasks.push_back(std::move(task)); }
    void disconnect(const char* why) override { disconnected = why; }
    std::string endReason() const override { return reason; }
    Name proveName() override { return name; }

    void answer(bool isAlive)
    {
        ASSERT_FALSE(questions.empty());
        const auto first = std::move(questions.front());
        questions.erase(questions.begin());
        first(isAlive);
    }
    /// False when nobody waits for its queue.
    bool drain()
    {
        const auto waiting = std::exchange(tasks, {});
        for (const auto& task : waiting) {
            task();
        }
        return !waiting.empty();
    }

    Name name{Name::Proof::ePROVEN, -1};
    std::string reason;                               ///< why its connection has ended
    std::string disconnected;                         ///< by the registry, and why
    std::vector<std::function<void(bool)>> questions; ///< whether its process lives
    std::vector<std::function<void(bool)>> pings;
    std::vector<std::function<void()>> tasks;
};

/// A process that asks the registry over a connection.
struct Process : IStreamControl {
    explicit Process(const std::string& name, const std::string& realm = "here")
    {
        context.instance = obr::UUID::generate();
        context.process = name;
        context.realm = realm;
        context.pid = 7;
        context.uid = 0; // may ask for much
        context.stream = this;
        reconnect();
    }
    void reconnect()
    {
        peer = std::make_shared<FakePeer>();
        context.peer = peer;
    }
    void setQueuePolicy(QueuePolicy policy) override
    {
        EXPECT_EQ(policy, QueuePolicy::eCUT_CONNECTION);
        ++policies;
    }

    RequestContext context;
    std::shared_ptr<FakePeer> peer;
    int policies = 0;
};

/// Asks a registry in the names of processes, and keeps what it told them.
class Clients {
public:
    using Updates = std::vector<RegistryUpdate>;

    /// "p" in an `ipc` locator stands for the process.
    void* registerService(Process& process, const std::string& name, const ServiceDef& serviceDef,
                          const std::function<void(const ServiceDef&)>& hook = {})
    {
        const RequestContext::Scope scope(&process.context);
        ServiceDef own = serviceDef;
        for (url& locator : own.locators) {
            const std::string text = locator.toString();
            const bool isItsOwn = text.rfind("ipc://p/", 0) == 0 || text.rfind("ipc://p+", 0) == 0;
            locator = isItsOwn ? url("ipc://" + process.context.process + text.substr(7)) : locator;
        }
        return m_asked->registerService(noting(m_lines, name, hook), serviceDef.path, own);
    }
    void* track(Process& process, const std::string& name, const std::string& path)
    {
        const RequestContext::Scope scope(&process.context);
        return m_asked->trackService(noting<RegistryUpdate>(m_lines, name), Path(path), true);
    }
    void* query(Process& process, const std::string& name, const Query& query,
                const std::function<void(const Updates&)>& hook = {})
    {
        const RequestContext::Scope scope(&process.context);
        return m_asked->queryRegistry(noting(m_lines, name, hook), query);
    }
    GenericObject explain(const Process& process, const std::string& path, const std::string& asking = {})
    {
        const RequestContext::Scope scope(&process.context);
        GenericObject answer;
        bool isCompleted = false;
        std::unique_ptr<IResponseHandler<GenericObject>> handler =
            std::make_unique<responsehandlers::FuncResponseHandler<GenericObject>>(
                [&answer](const GenericObject& told) {
                    answer = told;
                    return false;
                },
                [](const Response& error) { ADD_FAILURE() << reasonOf(error); },
                [&isCompleted] { isCompleted = true; });
        m_asked->explain(std::move(handler), Path(path), asking);
        EXPECT_TRUE(isCompleted);
        return answer;
    }
    Lines told() { return std::exchange(*m_lines, {}); }

    std::shared_ptr<Lines> m_lines = std::make_shared<Lines>();
    serviceregistry::IServiceRegistry* m_asked = nullptr;
};

} // namespace kesa::registry::test

#endif
