#include "ClientImpl.h"
#include "Interruption.h"
#include "waiting.h"

#include <comm/whyDeaf.h>
#include <fmt/format.h>
#include <kesa/ease/use.h>
#include <util/shellWord.h>

namespace kesa {

bool Client::Impl::isConnected() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_isConnected;
}

std::shared_ptr<const detail::OwnLoop> Client::Impl::servedHere() const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_isConnected) {
        return nullptr;
    }
    const std::vector<url> locators = m_resolved;
    lock.unlock();
    return detail::ServedHere::find(m_runtime, locators);
}

std::string Client::Impl::reason(std::optional<bool> hasAnswered) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    std::string reason = m_reason;
    const std::vector<url> resolved = m_resolved;
    const bool isConnected = m_isConnected;
    if (m_status != 0 || !m_reasons) {
        return reason;
    }
    lock.unlock();
    if (resolved.empty()) {
        return reason + ": " +
               (hasAnswered ? m_reasons->whyUnknownWhenAsked(m_path, *hasAnswered) : m_reasons->whyUnknown(m_path));
    }
    // Of a connection the runtime hears over all of its loops, of an answer over the I/O loop alone.
    if (std::string deaf = isConnected ? "" : comm::whyDeaf(m_reasons->holds()); !deaf.empty()) {
        return reason + ": " + deaf;
    }
    std::string why;
    for (const url& locator : resolved) { // the runtime takes one of them
        why = why.empty() ? m_reasons->obstacle(locator) : why;
    }
    if (isConnected) {
        return why.empty() ? why : fmt::format("'{}' is connected and silent: {}", m_path, why);
    }
    return fmt::format("{}{}{}; kesactl why {} says more", reason, why.empty() ? "" : ": ", why,
                       util::shellWord(m_path));
}

void Client::Impl::wait(std::chrono::nanoseconds timeout, ConnectResult& result)
{
    const detail::Interruption::Wait wait(m_changed, m_mutex);
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto isDecided = [this] { return m_isConnected || m_status != 0; };
    comm::waitFor(
        m_changed, lock, [&] { return isDecided() || wait.signal() != 0; }, detail::deadlineIn(timeout));
    if (m_isConnected) {
        return;
    }
    const int signal = isDecided() ? 0 : wait.signal();
    constexpr unsigned short TIME_IS_OVER = 504;
    result.status = signal != 0 || isDecided() ? m_status : TIME_IS_OVER;
    result.error = m_reason;
    lock.unlock();
    if (signal != 0) {
        result.error = fmt::format("{}: {}", detail::Interruption::text(signal), reason());
    }
}

} // namespace kesa
