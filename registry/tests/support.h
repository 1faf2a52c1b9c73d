#ifndef KESA_REGISTRY_TESTS_SUPPORT_H
#define KESA_REGISTRY_TESTS_SUPPORT_H

#include "store/Record.h"

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

using Lines = std::vector<std::string>;

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

/// Notes what it is told as "name: text", and its end as "name: gone".
template <class T>
class NotingHandler final : public IResponseHandler<T> {
public:
    NotingHandler(std::shared_ptr<Lines> lines, std::string name, std::function<void(const T&)> hook)
        : m_lines(std::move(lines)), m_name(std::move(name)), m_hook(std::move(hook))
    {}
    ~NotingHandler() override { m_lines->push_back(m_name + ": gone"); }
    bool onNext(const T& value) override
    {
        m_lines->push_back(m_name + ": " + textOf(value));
        if (m_hook) {
            m_hook(value);
        }
        return false;
    }
    void onError(const Response& error) override { m_lines->push_back(m_name + ": " + reasonOf(error)); }
    void onCompleted() override { ADD_FAILURE() << m_name << " was completed"; }

private:
    std::shared_ptr<Lines> m_lines;
    std::string m_name;
    std::function<void(const T&)> m_hook;
};

/// A peer whose answers are in the test's hand.
class FakePeer final : public IPeer {
public:
    void proveAlive(comm::TimeNs, std::function<void(bool)> answer) override { questions.push_back(std::move(answer)); }
    void whenDrained(std::function<void()> task) override { tasks.push_back(std::move(task)); }
    void disconnect(const char*) override {}
    std::string endReason() const override { return reason; }

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

    std::string reason; ///< why its connection has ended
    std::vector<std::function<void(bool)>> questions;
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

    void* registerService(Process& process, const std::string& name, const ServiceDef& serviceDef,
                          std::function<void(const ServiceDef&)> hook = {})
    {
        const RequestContext::Scope scope(&process.context);
        std::unique_ptr<IResponseHandler<ServiceDef>> handler =
            std::make_unique<NotingHandler<ServiceDef>>(m_lines, name, std::move(hook));
        return m_asked->registerService(std::move(handler), serviceDef.path, serviceDef);
    }
    void* track(Process& process, const std::string& name, const std::string& path)
    {
        const RequestContext::Scope scope(&process.context);
        std::unique_ptr<IResponseHandler<RegistryUpdate>> handler =
            std::make_unique<NotingHandler<RegistryUpdate>>(m_lines, name, nullptr);
        return m_asked->trackService(std::move(handler), Path(path), true);
    }
    void* query(Process& process, const std::string& name, const Query& query,
                std::function<void(const Updates&)> hook = {})
    {
        const RequestContext::Scope scope(&process.context);
        std::unique_ptr<IResponseHandler<Updates>> handler =
            std::make_unique<NotingHandler<Updates>>(m_lines, name, std::move(hook));
        return m_asked->queryRegistry(std::move(handler), query);
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
