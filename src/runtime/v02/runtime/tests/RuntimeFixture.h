#ifndef KESA_RUNTIME_V02_TESTS_RUNTIMEFIXTURE_H
#define KESA_RUNTIME_V02_TESTS_RUNTIMEFIXTURE_H

#include "FakeBackend.h"

#include <comm/SimulatedScheduler.h>
#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>
#include <kesa/commadapter/createBackend.h>
#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/runtime/HandlerTypes.h>
#include <runtime/v02/runtime/KesaRuntimeImpl.h>
#include <tracing/Sink.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kesa::runtime::v02::test {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

using Lines = std::vector<std::string>;

/// What happened, in order: calls to handlers, lines of the event log, traces.
class Journal {
public:
    void add(const std::string& line)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(line);
    }
    /// The lines so far; forgets them.
    Lines take()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_lines, {});
    }
    bool contains(const std::string& part)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::any_of(m_lines.begin(), m_lines.end(),
                           [&part](const std::string& line) { return line.find(part) != std::string::npos; });
    }

private:
    std::mutex m_mutex;
    Lines m_lines;
};

/// Writes lines into a journal: those of the event log as "registration register", traces as "4 text" from `least` on.
class JournalSink final : public tracing::ISink {
public:
    JournalSink(std::shared_ptr<Journal> journal, int least) : m_journal(std::move(journal)), m_least(least) {}
    void write(const tracing::Line& line) override;

private:
    std::shared_ptr<Journal> m_journal;
    int m_least;
};

std::string textOf(const ServiceDef& service);
std::string textOf(const ServiceUpdate& update);
std::string textOf(const ProxyState& state);
std::string textOf(const optional<ResolvedService>& result);
std::string textOf(const ResolvedServiceState& result);

/// Notes each call as "name: text", its end as "name: gone". `hook`, when set, runs inside each call and in the
/// destructor.
template <class T>
class NotingHandler final : public IResponseHandler<T> {
public:
    NotingHandler(std::shared_ptr<Journal> journal, std::string name, std::function<void()> hook)
        : m_journal(std::move(journal)), m_name(std::move(name)), m_hook(std::move(hook))
    {}
    ~NotingHandler() override { note("gone"); }
    bool onNext(const T& value) override
    {
        note(textOf(value));
        return false;
    }
    void onError(const Response& error) override { note("error " + Response::getErrorMessageWithCode(error)); }
    void onCompleted() override { note("completed"); }

private:
    void note(const std::string& text)
    {
        m_journal->add(m_name + ": " + text);
        if (m_hook) {
            m_hook();
        }
    }

    std::shared_ptr<Journal> m_journal;
    std::string m_name;
    std::function<void()> m_hook;
};

/// A runtime over a fake backend, both loops in the test's hand: nothing happens before `run`.
class RuntimeFixture : public testing::Test {
protected:
    explicit RuntimeFixture(std::uint64_t seed = 1);
    ~RuntimeFixture() override;

    /// A started runtime named "me".
    std::unique_ptr<KesaRuntimeImpl> startRuntime(const std::string& document = R"({"use_local_registry": true})");
    void run() { m_scheduler.runReady(); }
    /// Runs, and hands out what happened.
    Lines happened()
    {
        run();
        return m_journal->take();
    }
    Lines traced(int severity, const std::function<void()>& work);

    template <class T>
    std::unique_ptr<IResponseHandler<T>> handler(const std::string& name, std::function<void()> hook = {})
    {
        return std::make_unique<NotingHandler<T>>(m_journal, name, std::move(hook));
    }
    Disposable registerService(const std::string& path, const std::string& name,
                               ServiceDef::TypeEnum type = ServiceDef::TypeEnum::pex,
                               const GenericObject& metainfo = {})
    {
        return m_runtime->registerService(path, std::make_shared<FakeService>(&m_livingServices), type, metainfo,
                                          handler<ServiceDef>(name));
    }
    /// A registration nobody cares to hear of.
    Disposable provide(const std::string& path)
    {
        auto disposable = registerService(path, "service");
        run();
        m_journal->take();
        return disposable;
    }
    Disposable track(const std::string& path, const std::string& name)
    {
        return m_runtime->trackService(path, handler<ServiceUpdate>(name));
    }

    comm::SimulatedScheduler m_scheduler;
    std::shared_ptr<FakeNetwork> m_network = std::make_shared<FakeNetwork>();
    std::shared_ptr<Journal> m_journal = std::make_shared<Journal>();
    std::shared_ptr<Journal> m_traces = std::make_shared<Journal>();
    std::shared_ptr<Journal> m_assertions = std::make_shared<Journal>();
    std::atomic<int> m_livingServices{0};
    std::unique_ptr<KesaRuntimeImpl> m_runtime;
};

} // namespace kesa::runtime::v02::test

#endif
