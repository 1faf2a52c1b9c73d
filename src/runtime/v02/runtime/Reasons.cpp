#include <runtime/v02/runtime/Reasons.h>

#include <comm/whyDeaf.h>
#include <util/shellWord.h>

#include <fmt/format.h>

#include <utility>

namespace kesa::runtime::v02 {

IReasons::~IReasons() = default;

std::string IReasons::whyUnknownWhenAsked(const std::string& path, bool) const
{
    return whyUnknown(path);
}

std::vector<std::shared_ptr<const comm::LoopHold>> IReasons::holds() const
{
    return {};
}

void IReasons::tellHeld(const std::vector<HeldLoop>&) const {}

void IReasons::tellTooSlow(const std::string&, const std::string&) const {}

namespace {

std::string withoutRegistry(const KesaConfig& config)
{
    return fmt::format("this process asks no registry, since {}, and so sees its own services only; kesactl "
                       "check-config {}",
                       Reasons::whyNoRegistry(config), config.m_valid ? "shows what counts" : "says more");
}

} // namespace

std::string Reasons::whyNoRegistry(const KesaConfig& config)
{
    const bool isFile = !config.m_file.empty();
    if (config.m_valid) {
        return (isFile ? config.m_file : "its built-in configuration") + " has no \"use_registry\": true";
    }
    return isFile ? config.m_file + " is not valid" : "it has no configuration file, and no valid text in place of one";
}

Reasons::Reasons(const KesaConfig& config, std::shared_ptr<const OpenProxies> proxies, Holds holds,
                 std::unique_ptr<ProcessNote> note)
    : m_proxies(std::move(proxies)), m_holds(std::move(holds)), m_note(std::move(note)),
      m_withoutAsking(withoutRegistry(config))
{}

void Reasons::setBackendHolds(Holds holds)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_backendHolds = std::move(holds);
}

void Reasons::setRegistryHere()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_withoutAsking = "this process hosts the registry, and its runtime sees its own services only; kesactl list "
                      "shows those of all";
}

void Reasons::setRegistryAt(const url& locator)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_withoutAsking.clear();
    m_registry = locator;
}

Reasons::Holds Reasons::backendHolds() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_backendHolds;
}

Reasons::Holds Reasons::holds() const
{
    Holds all = m_holds;
    const Holds more = backendHolds();
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

void Reasons::tellHeld(const std::vector<HeldLoop>& held) const
{
    if (m_note) {
        m_note->setHeld(held);
    }
}

void Reasons::tellTooSlow(const std::string& path, const std::string& loop) const
{
    if (m_note) {
        m_note->addTooSlow(path, loop);
    }
}

void Reasons::noteDropped(const std::string& path) const
{
    if (m_note) {
        m_note->addDropped(path);
    }
}

void Reasons::noteRefusal(const std::string& path, const Response& error) const
{
    if (m_note) {
        m_note->addRefusal(path, error);
    }
}

void Reasons::noteRegistered(const std::string& path) const
{
    if (m_note) {
        m_note->setRegistered(path);
    }
}

void Reasons::endNote() const
{
    if (m_note) {
        m_note->end();
    }
}

std::string Reasons::obstacle(const url& locator) const
{
    std::string deaf = comm::whyDeaf(backendHolds());
    return deaf.empty() ? m_proxies->obstacle(locator) : deaf;
}

std::string Reasons::whyUnknown(const std::string& path) const
{
    return why(path, "has named nobody so far");
}

std::string Reasons::whyUnknownWhenAsked(const std::string& path, bool hasAnswered) const
{
    return why(path, hasAnswered ? "names nobody" : "has not answered yet");
}

/// `silence` is what can be said of a registry to which nothing is in the way.
std::string Reasons::why(const std::string& path, const char* silence) const
{
    if (std::string deaf = comm::whyDeaf(holds()); !deaf.empty()) {
        return deaf;
    }
    url registry;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_withoutAsking.empty()) {
            return m_withoutAsking;
        }
        registry = m_registry;
    }
    const std::string obstacleToIt = obstacle(registry);
    if (m_isConnected) {
        return fmt::format("the registry at {} is connected and {}; kesactl why {} says more", registry.toString(),
                           obstacleToIt.empty() ? silence : "silent: " + obstacleToIt, util::shellWord(path));
    }
    return fmt::format("the registry at {} is not connected{}{}; kesactl doctor says more", registry.toString(),
                       obstacleToIt.empty() ? "" : ": ", obstacleToIt);
}

} // namespace kesa::runtime::v02
