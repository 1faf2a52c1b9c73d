#include <kesa/runtime/v02/KesaRuntime.h>

#include <comm/onAnyLoop.h>
#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <new>

namespace kesa::runtime::v02 {

namespace {

KesaRuntimeImpl* singeton_impl = nullptr;

void fail(const char* condition, int line, const char* function, const char* message = nullptr)
{
    obr::GlobalErrorHandler::doAssert(false, condition, __FILE__, line, function, message);
}

/// This thread is one that `shutdown` waits for: the executor, the updater, or the I/O loop of a backend.
bool isWaitedFor()
{
    const comm::LoopInfo* const loop = comm::currentLoop();
    return singeton_impl->isRuntimeThread() || (loop != nullptr && loop->isReactor());
}

} // namespace

bool KesaRuntime::initInstance(const std::string& processName)
{
    return initInstance(processName, std::string());
}

bool KesaRuntime::initInstance(const std::string& processName, const std::string& fallbackDocument)
{
    if (singeton_impl != nullptr) {
        fail("singeton_impl==nullptr", __LINE__, "initInstance");
        return false;
    }
    auto* const created = fallbackDocument.empty()
                              ? new (std::nothrow) KesaRuntimeImpl(processName)
                              : new (std::nothrow) KesaRuntimeImpl(KesaConfig::readOr(processName, fallbackDocument));
    if (created == nullptr) {
        fail("singeton_impl!=nullptr", __LINE__, "initInstance");
        return true;
    }
    singeton_impl = created;
    return singeton_impl->start();
}

IKesaRuntime* KesaRuntime::getInstance()
{
    if (singeton_impl == nullptr) {
        fail("singeton_impl!=nullptr", __LINE__, "getInstance");
        return nullptr;
    }
    if (!singeton_impl->isRunning()) {
        fail("singeton_impl->isRunning()", __LINE__, "getInstance");
        return nullptr;
    }
    return singeton_impl;
}

void KesaRuntime::shutdown()
{
    if (singeton_impl == nullptr) {
        fail("singeton_impl!=nullptr", __LINE__, "shutdown");
        return;
    }
    if (!singeton_impl->isRunning()) {
        fail("singeton_impl->isRunning()", __LINE__, "shutdown");
        return;
    }
    if (isWaitedFor()) {
        fail("!isWaitedFor()", __LINE__, "shutdown",
             "shutdown waits for the runtime's threads: call it from a thread of your own, not from a handler");
        return;
    }
    delete singeton_impl;
    singeton_impl = nullptr;
}

bool KesaRuntime::isRunning()
{
    return singeton_impl != nullptr && singeton_impl->isRunning();
}

bool KesaRuntime::isRegistryHost()
{
    return isRunning() && singeton_impl->isRegistryHost();
}

} // namespace kesa::runtime::v02
