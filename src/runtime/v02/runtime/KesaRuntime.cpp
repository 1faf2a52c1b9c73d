#include <kesa/runtime/v02/KesaRuntime.h>

#include <comm/onAnyLoop.h>
#include <kesa/commadapter/chosenRunDirectory.h>
#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/runtime/KesaRuntimeImpl.h>
#include <runtime/v02/runtime/ProcessNote.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

namespace kesa::runtime::v02 {

namespace {

/// Where the instance is in its life. Whoever creates or ends it takes the state first, so that a second thread finds
/// out instead of meeting an object that comes or goes.
enum class State { eNONE, eSTARTING, ePRESENT, eENDING };

std::atomic<State> instanceState{State::eNONE};
std::atomic<KesaRuntimeImpl*> singeton_impl{nullptr};
std::shared_mutex inUse; ///< shared while `withInstance` uses the instance, and taken alone before it is deleted

constexpr const char* NONE =
    "this process has no runtime: call initInstance before, and nothing of the runtime after shutdown";
constexpr const char* ONE_ALREADY =
    "this process has a runtime, which getInstance answers: call initInstance again only after shutdown";

void fail(const char* condition, int line, const char* function, const char* message)
{
    obr::GlobalErrorHandler::doAssert(false, condition, __FILE__, line, function, message);
}

/// This thread is one that `shutdown` waits for: the executor, the updater, or the I/O loop of a backend.
bool isWaitedFor()
{
    const comm::LoopInfo* const loop = comm::currentLoop();
    return singeton_impl.load()->isRuntimeThread() || (loop != nullptr && loop->isReactor());
}

std::unique_ptr<ProcessNote> makeNote(const KesaConfig& config)
{
    const std::vector<std::string>& backends = config.m_backends;
    const bool hasRunDirectory = std::find(backends.begin(), backends.end(), "comm") != backends.end();
    return std::make_unique<ProcessNote>(KesaConfigAccessor(config).getOwnProcessName(),
                                         hasRunDirectory ? commadapter::chosenRunDirectory() : std::string());
}

/// True when the state was another one. Between the two that last, somebody else is at it: that is told here.
[[nodiscard]] bool failToTake(State from, State to, int line, const char* function)
{
    State found = from;
    if (instanceState.compare_exchange_strong(found, to)) {
        return false;
    }
    if (found == State::eSTARTING || found == State::eENDING) {
        fail("!isChanging", line, function,
             "initInstance or shutdown is still running: call them one after the other, from a thread of your own");
    } else if (from == State::eNONE) {
        fail("singeton_impl==nullptr", line, function, ONE_ALREADY);
    } else {
        fail("singeton_impl!=nullptr", line, function, NONE);
    }
    return true;
}

} // namespace

bool KesaRuntime::initInstance(const std::string& processName)
{
    return initInstance(processName, std::string());
}

bool KesaRuntime::initInstance(const std::string& processName, const std::string& fallbackDocument)
{
    if (failToTake(State::eNONE, State::eSTARTING, __LINE__, "initInstance")) {
        return false;
    }
    KesaConfig config =
        fallbackDocument.empty() ? KesaConfig(processName) : KesaConfig::readOr(processName, fallbackDocument);
    auto note = makeNote(config);
    auto* const created = new (std::nothrow) KesaRuntimeImpl(std::move(config), std::move(note));
    if (created == nullptr) {
        instanceState = State::eNONE;
        fail("singeton_impl!=nullptr", __LINE__, "initInstance", "there is no memory for the runtime");
        return true;
    }
    singeton_impl = created;
    const bool failed = created->start();
    instanceState = State::ePRESENT;
    return failed;
}

IKesaRuntime* KesaRuntime::getInstance()
{
    KesaRuntimeImpl* const instance = singeton_impl;
    if (instance == nullptr) {
        fail("singeton_impl!=nullptr", __LINE__, "getInstance", NONE);
        return nullptr;
    }
    if (!isRunning()) {
        fail("singeton_impl->isRunning()", __LINE__, "getInstance", "initInstance has not returned yet: wait for it");
        return nullptr;
    }
    return instance;
}

bool KesaRuntime::withInstance(const std::function<void(IKesaRuntime&)>& work)
{
    const std::shared_lock<std::shared_mutex> lock(inUse);
    if (instanceState != State::ePRESENT) {
        return false;
    }
    work(*singeton_impl.load());
    return true;
}

void KesaRuntime::shutdown()
{
    if (failToTake(State::ePRESENT, State::eENDING, __LINE__, "shutdown")) {
        return;
    }
    if (!singeton_impl.load()->isRunning()) {
        instanceState = State::ePRESENT;
        fail("singeton_impl->isRunning()", __LINE__, "shutdown", "the runtime was never started");
        return;
    }
    if (isWaitedFor()) {
        instanceState = State::ePRESENT;
        fail("!isWaitedFor()", __LINE__, "shutdown",
             "shutdown waits for the runtime's threads: call it from a thread of your own, not from a handler");
        return;
    }
    {
        const std::unique_lock<std::shared_mutex> alone(inUse); // who comes later finds that it is ending
    }
    delete singeton_impl.load(); // whose handlers may still ask for it
    singeton_impl = nullptr;
    instanceState = State::eNONE;
}

/// An instance that is there has run since its start.
bool KesaRuntime::isRunning()
{
    const State now = instanceState;
    return now == State::ePRESENT || now == State::eENDING;
}

bool KesaRuntime::isRegistryHost()
{
    return isRunning() && singeton_impl.load()->isRegistryHost();
}

} // namespace kesa::runtime::v02
