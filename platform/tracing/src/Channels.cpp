#include "Channels.h"

#include "openSink.h"

#include <obr/GlobalErrorHandler.h>
#include <obr/environment.h>
#include <obr/holdAcrossFork.h>
#include <tracing/LineLimit.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <tuple>
#include <utility>
#include <vector>

namespace tracing {
namespace {

constexpr int EVENT_LOG_FACILITY = 7;
constexpr int SEVERITY_WARNING = 3;
constexpr int SEVERITY_ERROR = 4;
constexpr int NOTHING = 5; // the threshold that no severity reaches

/// The channels of this system: a name that begins as they do is one of them, or a typo.
constexpr std::string_view OWN_PREFIX = "KESA_";
constexpr std::string_view OWN_CHANNELS[] = {
    "KESA_COMM",           "KESA_COMM_IPC",         "KESA_EASE",
    "KESA_REGISTRY",       "KESA_RESPONSEHANDLERS", "KESA_RUNTIME_BACKENDS",
    "KESA_RUNTIME_CONFIG", "KESA_RUNTIME_MAIN",     "KESA_SERVICEREGISTRY_SERVICEREGISTRYSERVICE",
    "KESA_TRACING",        "KESA_UTIL_CONFIG"};

bool isOwn(std::string_view name)
{
    return name.substr(0, OWN_PREFIX.size()) == OWN_PREFIX;
}

thread_local ILineLimit* currentLimit = nullptr;

bool isLimited(const ChannelState& channel, int severity)
{
    return currentLimit != nullptr && severity >= SEVERITY_WARNING && channel.facility != EVENT_LOG_FACILITY &&
           isOwn(channel.name);
}

bool isMistyped(std::string_view name)
{
    return isOwn(name) && std::find(std::begin(OWN_CHANNELS), std::end(OWN_CHANNELS), name) == std::end(OWN_CHANNELS);
}

std::string ownChannels()
{
    std::string names;
    for (const std::string_view name : OWN_CHANNELS) {
        names.append(names.empty() ? "" : ", ").append(name);
    }
    return names;
}

Channels::Output outputOf(int facility)
{
    return facility == EVENT_LOG_FACILITY ? Channels::Output::eEVENTS : Channels::Output::eTEXT;
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    while (!text.empty() && text.back() == ' ') {
        text.remove_suffix(1);
    }
    return text;
}

/// "NAME=N" in its parts; true if it is not that.
[[nodiscard]] bool readThreshold(std::string_view entry, std::string_view& name, int& threshold)
{
    const std::size_t equals = entry.find('=');
    if (equals == std::string_view::npos) {
        return true;
    }
    const std::string_view number = trimmed(entry.substr(equals + 1));
    name = trimmed(entry.substr(0, equals));
    if (name.empty() || number.size() != 1 || number[0] < '1' || number[0] > '0' + NOTHING) {
        return true;
    }
    threshold = number[0] - '0';
    return false;
}

template <std::size_t INDEX>
std::mutex& outputLock()
{
    return outputLocks()[INDEX];
}

template <std::size_t... INDICES>
void holdOutputLocksAcrossFork(std::index_sequence<INDICES...>)
{
    (obr::holdAcrossFork<outputLock<INDICES>>(), ...);
}

} // namespace

ILineLimit::~ILineLimit() = default;

ILineLimit::Scope::Scope(ILineLimit& limit) noexcept : m_before(std::exchange(currentLimit, &limit)) {}

ILineLimit::Scope::~Scope()
{
    currentLimit = m_before;
}

Channels& Channels::instance()
{
    static Channels* const channels = [] {
        obr::GlobalErrorHandler::atFatal([] { Channels::instance().flush(); });
        holdOutputLocksAcrossFork(std::make_index_sequence<OUTPUT_LOCKS>());
        obr::holdAcrossFork<lock>();
        std::atexit([] { Channels::instance().flush(); });
        return new Channels;
    }();
    return *channels;
}

Channels::Channels()
{
    openEventSink();
    if (const std::string bad = setThresholds(obr::environment("KESA_TRACE")); !bad.empty()) {
        complain("KESA_TRACE: " + bad);
    }
    for (const auto& [name, threshold] : m_thresholds) {
        if (isMistyped(name)) {
            complain("KESA_TRACE: there is no channel '" + name + "'; those of this system are " + ownChannels());
        }
    }
}

ChannelState& Channels::channel(std::string_view name, int facility, int threshold)
{
    const std::lock_guard lock(m_mutex);
    auto found = m_channels.find(name);
    if (found == m_channels.end()) {
        found = m_channels
                    .emplace(std::piecewise_construct, std::forward_as_tuple(name),
                             std::forward_as_tuple(name, facility, threshold))
                    .first;
        ChannelState& state = found->second;
        if (const auto byName = m_thresholds.find(name); byName != m_thresholds.end()) {
            state.configured = byName->second;
        } else if (m_textThreshold != 0 && facility != EVENT_LOG_FACILITY) {
            state.configured = m_textThreshold;
        }
        applyThreshold(state);
    }
    return found->second;
}

void Channels::setThreshold(std::string_view channel, int threshold)
{
    const std::lock_guard lock(m_mutex);
    setThresholdLocked(channel, threshold);
}

void Channels::setThresholdLocked(std::string_view channel, int threshold)
{
    if (channel == "*") {
        m_textThreshold = threshold;
        for (auto& [name, state] : m_channels) {
            if (state.facility != EVENT_LOG_FACILITY) {
                m_thresholds.erase(name);
                state.configured = threshold;
                applyThreshold(state);
            }
        }
        return;
    }
    m_thresholds.insert_or_assign(std::string(channel), threshold);
    if (const auto found = m_channels.find(channel); found != m_channels.end()) {
        found->second.configured = threshold;
        applyThreshold(found->second);
    }
}

std::string Channels::setThresholds(std::string_view list)
{
    std::string bad;
    std::vector<std::pair<std::string_view, int>> byName;
    const std::lock_guard lock(m_mutex);
    while (!list.empty()) {
        const std::size_t comma = std::min(list.find(','), list.size());
        const std::string_view entry = trimmed(list.substr(0, comma));
        list.remove_prefix(std::min(comma + 1, list.size()));
        std::string_view name;
        int threshold = 0;
        if (entry.empty()) {
            continue;
        }
        if (readThreshold(entry, name, threshold)) {
            bad += (bad.empty() ? "'" : ", '") + std::string(entry) + "'";
        } else if (name == "*") {
            setThresholdLocked(name, threshold);
        } else {
            byName.emplace_back(name, threshold);
        }
    }
    for (const auto& [name, threshold] : byName) {
        setThresholdLocked(name, threshold);
    }
    return bad.empty() ? bad : bad + " is not CHANNEL=N with N from 1 (all) to 5 (nothing)";
}

void Channels::applyThreshold(ChannelState& channel)
{
    const bool isDeaf = channel.facility == EVENT_LOG_FACILITY && sinks(Output::eEVENTS).current() == nullptr;
    const bool isSet = m_textThreshold != 0 || m_thresholds.count(channel.name) != 0;
    const bool isSilent = isDeaf || (channel.silences > 0 && !isSet);
    channel.threshold.store(isSilent ? NOTHING : channel.configured, std::memory_order_relaxed);
}

void Channels::silence(ChannelState& channel, int change)
{
    const std::lock_guard lock(m_mutex);
    channel.silences += change;
    applyThreshold(channel);
}

std::shared_ptr<ISink> Channels::setSink(Output output, std::shared_ptr<ISink> sink)
{
    const std::lock_guard lock(m_mutex);
    std::swap(sinks(output).set, sink);
    for (auto& [name, state] : m_channels) {
        applyThreshold(state);
    }
    return sink;
}

void Channels::write(const ChannelState& channel, int severity, std::string_view text) noexcept
{
    try {
        std::string changed;
        if (isLimited(channel, severity) && !currentLimit->pass(text, changed)) {
            return;
        }
        text = changed.empty() ? text : changed;
        if (const std::shared_ptr<ISink> sink = sinkFor(outputOf(channel.facility))) {
            sink->write({channel.name, severity, text, channel.facility});
        }
    } catch (...) {
        // A line is not worth failing for, even when there is no memory to build it.
    }
}

void Channels::flush() noexcept
{
    try {
        for (const Output output : {Output::eTEXT, Output::eEVENTS}) {
            // Nobody waits for a lock here: the process is about to end, perhaps because of who holds it.
            std::unique_lock lock(m_mutex, std::try_to_lock);
            if (!lock.owns_lock()) {
                return;
            }
            if (const std::shared_ptr<ISink> sink = sinks(output).current()) {
                lock.unlock();
                sink->flush();
            }
        }
    } catch (...) {
    }
}

std::shared_ptr<ISink> Channels::sinkFor(Output output)
{
    const std::lock_guard lock(m_mutex);
    if (output == Output::eTEXT && sinks(output).current() == nullptr) {
        openTextSink();
    }
    return sinks(output).current();
}

void Channels::openTextSink()
{
    const std::string description = obr::environment("KESA_TRACE_SINK");
    std::string reason;
    std::shared_ptr<ISink>& sink = sinks(Output::eTEXT).fromEnvironment;
    sink = openSink(description.empty() ? "stderr" : description, reason);
    if (sink == nullptr) {
        sink = openSink("stderr", reason);
        complain("KESA_TRACE_SINK: " + reason + "; writing to stderr");
    }
}

void Channels::openEventSink()
{
    const std::string description = obr::environment("KESA_EVENT_LOG");
    if (description.empty()) {
        return;
    }
    std::string reason;
    sinks(Output::eEVENTS).fromEnvironment = openSink(description, reason);
    if (sinks(Output::eEVENTS).fromEnvironment == nullptr) {
        complain("KESA_EVENT_LOG: " + reason + "; there is no event log");
    }
}

void Channels::complain(std::string_view text)
{
    if (sinks(Output::eTEXT).current() == nullptr) {
        openTextSink();
    }
    sinks(Output::eTEXT).current()->write({"KESA_TRACING", SEVERITY_ERROR, text});
}

} // namespace tracing
