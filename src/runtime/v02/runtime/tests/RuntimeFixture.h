#ifndef KESA_RUNTIME_V02_TESTS_RUNTIMEFIXTURE_H
#define KESA_RUNTIME_V02_TESTS_RUNTIMEFIXTURE_H

#include "FakeBackend.h"

#include <AssertionRecorder.h>
#include <NotingHandler.h>
#include <SimulatedTime.h>
#include <backend/BackendFactory.h>
#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>
#include <runtime/v02/runtime/HandlerTypes.h>
#include <runtime/v02/runtime/KesaRuntimeImpl.h>
#include <tracing/CapturingSink.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>

namespace kesa::runtime::v02::test {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

using kesa::test::Lines;

/// What happened, in order: calls to handlers, lines of the event log, traces.
using Journal = ::tracing::CapturingSink;

/// A line of the event log as "registration register".
inline std::string textOf(const ::tracing::Line& line)
{
    const auto member = [text = line.text](const std::string& name) {
        const std::string key = "\"" + name + "\":\"";
        const auto begin = text.find(key);
        const auto from = begin + key.size();
        return begin == std::string_view::npos ? "" : std::string(text.substr(from, text.find('"', from) - from));
    };
    const std::string cause = member("caused-by");
    return member("event") + " " + member("info") + (cause.empty() ? "" : " ") + cause;
}

inline std::string textOf(const ServiceDef& service)
{
    std::string text = service.path.toString();
    for (const url& locator : service.locators) {
        text += " " + locator.toString();
    }
    return text;
}

inline std::string textOf(const ServiceUpdate& update)
{
    static const char* const NAMES[] = {"ADDED ", "MODIFIED ", "REMOVED "};
    return NAMES[static_cast<int>(update.type)] + update.element.path.toString();
}

inline std::string textOf(const ProxyState& state)
{
    return state ? "connected" : "lost";
}

inline std::string textOf(const optional<ResolvedService>& result)
{
    return result ? "present " + result->serviceDef.path.toString() : "absent";
}

/// Notes in the journal what a stream tells; `hook`, when set, runs inside each call and in the destructor.
template <class T>
std::unique_ptr<IResponseHandler<T>> noting(const std::shared_ptr<Journal>& journal, const std::string& name,
                                            const std::function<void()>& hook = {})
{
    return std::make_unique<kesa::test::NotingHandler<T>>(
        [journal, hook](const std::string& line) {
            journal->add(line);
            hook ? hook() : void();
        },
        [](const T& value) { return textOf(value); }, name + ": ");
}

/// A service object that counts its lives.
class FakeService final : public IKesaApi {
public:
    explicit FakeService(int& living) : m_living(living) { ++m_living; }
    ~FakeService() override { --m_living; }
    void* request(const Request&, std::unique_ptr<IResponseHandler<Response>>&&) override
    {
        return UNDEFINED_REQUEST_HANDLE;
    }
    void cancel(void*) override {}

private:
    int& m_living;
};

/// A runtime over a fake backend, both loops in the test's hand: nothing happens before `run`.
class RuntimeFixture : public kesa::test::SimulatedTime, public testing::Test {
protected:
    RuntimeFixture()
    {
        tracing::setThreshold("*", 1);
        tracing::setSink(m_traces);
        tracing::setEventLogSink(m_journal);
        commadapter::setBackendFactory([network = m_network](const std::string& process, const std::string&) {
            return std::make_unique<FakeBackend>(network, process);
        });
    }
    ~RuntimeFixture() override
    {
        m_runtime.reset();
        EXPECT_THAT(m_assertions.take(), IsEmpty());
        EXPECT_EQ(m_network->livingClientObjects, 0);
        EXPECT_EQ(m_livingServices, 0);
        commadapter::setBackendFactory({});
        tracing::setEventLogSink(nullptr);
        tracing::setSink(nullptr);
        tracing::setThreshold("*", 3);
    }

    /// A started runtime named "me".
    std::unique_ptr<KesaRuntimeImpl> startRuntime(const std::string& document = R"({"use_local_registry": true})")
    {
        auto runtime = std::make_unique<KesaRuntimeImpl>(KesaConfig("me", document));
        EXPECT_FALSE(runtime->start());
        m_journal->take();
        m_network->calls();
        return runtime;
    }
    void run() { scheduler.runReady(); }
    /// Runs, and hands out what happened.
    Lines happened()
    {
        run();
        return m_journal->take();
    }
    /// The same without the event log.
    Lines toClients()
    {
        Lines lines = happened();
        std::erase_if(lines, [](const std::string& line) { return line.find(": ") == std::string::npos; });
        return lines;
    }
    /// The traces of exactly this severity that `work`, and what it posts, write.
    Lines traced(int severity, const std::function<void()>& work)
    {
        m_traces->take();
        work();
        run();
        Lines lines = m_traces->take();
        std::erase_if(lines, [severity](const std::string& line) { return line[0] - '0' != severity; });
        return lines;
    }

    template <class T>
    std::unique_ptr<IResponseHandler<T>> handler(const std::string& name, const std::function<void()>& hook = {})
    {
        return noting<T>(m_journal, name, hook);
    }
    std::shared_ptr<IKesaApi> service() { return std::make_shared<FakeService>(m_livingServices); }
    Disposable registerService(const std::string& path, const std::string& name,
                               ServiceDef::TypeEnum type = ServiceDef::TypeEnum::pex,
                               const GenericObject& metainfo = {})
    {
        return m_runtime->registerService(path, service(), type, metainfo, handler<ServiceDef>(name));
    }
    Disposable track(const std::string& path, const std::string& name)
    {
        return m_runtime->trackService(path, handler<ServiceUpdate>(name));
    }
    Disposable query(const std::string& pattern, const std::string& name)
    {
        return m_runtime->trackServices(Query(pattern), handler<ServiceUpdate>(name));
    }
    Disposable resolve(const std::string& locator, const std::string& name)
    {
        return m_runtime->resolveService(url(locator), handler<ProxyState>(name));
    }
    Disposable follow(const std::string& path, const std::string& name)
    {
        return m_runtime->trackAndResolveService(path, handler<optional<ResolvedService>>(name));
    }

    std::shared_ptr<FakeNetwork> m_network = std::make_shared<FakeNetwork>();
    std::shared_ptr<Journal> m_journal = std::make_shared<Journal>([](const auto& line) { return textOf(line); });
    std::shared_ptr<Journal> m_traces = std::make_shared<Journal>(&Journal::textOf);
    kesa::test::AssertionRecorder m_assertions;
    int m_livingServices = 0;
    std::unique_ptr<KesaRuntimeImpl> m_runtime;
};

} // namespace kesa::runtime::v02::test

#endif
