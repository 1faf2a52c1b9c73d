#include "Caller.h"

#include "say.h"

#include <kesa/ease/get.h>
#include <kesa/mimetypes.h>

#include <chrono>

namespace {

constexpr comm::TimeNs LIMIT = 30 * comm::SECOND;
/// Often enough to meet every disturbance, without keeping a processor busy.
constexpr auto PAUSE = std::chrono::milliseconds(2);

} // namespace

Caller::Caller(std::shared_ptr<kesa::IKesaApi> api) : m_api(std::move(api)), m_thread([this] { run(); }) {}

Caller::~Caller()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isStopped = true;
        m_changed.notify_all();
    }
    m_thread.join();
}

void Caller::awaitCalls(std::uint64_t count)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const std::uint64_t until = m_answered + count;
    m_changed.wait(lock, [this, until] { return m_hasFailed || m_answered >= until; });
}

void Caller::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_isStopped && !m_hasFailed) {
        const std::string question = "question " + std::to_string(m_answered);
        lock.unlock();
        const kesa::GetResult result = kesa::get(
            *m_api,
            kesa::Request("retrieve", "/echo", kesa::Payload::createFromString(question, kesa::mimetypes::TEXT)),
            LIMIT);
        const bool isRight = result && result.response->getPayload().text() == question;
        lock.lock();
        if (isRight) {
            ++m_answered;
        } else if (!m_isStopped) {
            m_hasFailed = true;
            say("call-failed " + std::to_string(result.status) + ' ' + (result ? "another answer" : result.error));
        }
        m_changed.notify_all();
        m_changed.wait_for(lock, PAUSE, [this] { return m_isStopped; });
    }
}
