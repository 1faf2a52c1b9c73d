#include "seenByProvider.h"

#include "Verdict.h"
#include "askProcesses.h"

#include <fmt/format.h>

namespace kesactl {
namespace {

using util::config::Value;

SeenByProvider askOnce(const std::string& provider, const std::string& name, std::int64_t pid, comm::TimeNs deadline)
{
    return seenIn(askProcesses({provider}, deadline).at(provider).answer, name, pid);
}

} // namespace

SeenByProvider seenIn(const Value& answer, const std::string& name, std::int64_t pid)
{
    const auto& connections = answer["connections"].items();
    SeenByProvider seen;
    for (const Value& connection : connections) {
        const bool isIts =
            connection["pid"].isInteger() ? integerOf(connection["pid"]) == pid : connection["process"] == Value(name);
        if (connection["openedBy"] != Value("peer") || !isIts) {
            continue;
        }
        seen.isConnected = true;
        seen.isAsked =
            seen.isAsked || !connection["openRequests"].isInteger() || integerOf(connection["openRequests"]) != 0;
        seen.isHeld = seen.isHeld || connection["held"] == Value(true);
        seen.queuedBytes += integerOf(connection["queuedBytes"]);
        seen.cutStreams += integerOf(connection["cutStreams"]);
    }
    const bool areAllNamed = integerOf(answer["connectionCount"]) == static_cast<std::int64_t>(connections.size());
    seen.isKnown = answer.isDefined() && (seen.isConnected || areAllNamed);
    return seen;
}

std::string SeenByProvider::slownessText(const std::string& provider) const
{
    std::string text = fmt::format("it takes what {} sends more slowly than that comes", provider);
    if (queuedBytes > 0) {
        text += fmt::format("; {} bytes wait for it", queuedBytes);
    }
    if (cutStreams > 0) {
        text += fmt::format("; {} of its streams ended as \"too slow\"", cutStreams);
    }
    if (isHeld) {
        text += fmt::format("; {} serves no request of it until it has taken its answers", provider);
    }
    return text;
}

bool SeenByProvider::isTooSlow() const noexcept
{
    // What waits in a process does so behind a full buffer of the kernel.
    constexpr std::int64_t MUCH = std::int64_t{64} << 10;
    return isHeld || queuedBytes > MUCH;
}

SeenByProvider askProviderAbout(const std::string& provider, const std::string& name, std::int64_t pid,
                                comm::TimeNs deadline)
{
    const SeenByProvider seen = askOnce(provider, name, pid, deadline);
    return seen.isTooSlow() ? askOnce(provider, name, pid, deadline) // it may just have been sent something large
                            : seen;
}

} // namespace kesactl
