#include "RuntimeFixture.h"

namespace kesa::runtime::v02::test {

namespace {

/// The value of a member of a line of the event log.
std::string member(std::string_view line, std::string_view name)
{
    const std::string key = "\"" + std::string(name) + "\":\"";
    const auto begin = line.find(key);
    if (begin == std::string_view::npos) {
        return "";
    }
    const auto from = begin + key.size();
    return std::string(line.substr(from, line.find('"', from) - from));
}

} // namespace

void JournalSink::write(const tracing::Line& line)
{
    if (line.channel == "kesa_DataModel") {
        const std::string cause = member(line.text, "caused-by");
        m_journal->add(member(line.text, "event") + " " + member(line.text, "info") + (cause.empty() ? "" : " ") +
                       cause);
    } else if (line.severity >= m_least) {
        m_journal->add(std::to_string(line.severity) + " " + std::string(line.text));
    }
}

std::string textOf(const ServiceDef& service)
{
    std::string text = service.path.toString();
    for (const url& locator : service.locators) {
        text += " " + locator.toString();
    }
    return text;
}

std::string textOf(const ServiceUpdate& update)
{
    static const char* const NAMES[] = {"ADDED ", "MODIFIED ", "REMOVED "};
    return NAMES[static_cast<int>(update.type)] + update.element.path.toString();
}

std::string textOf(const ProxyState& state)
{
    return state ? "connected" : "lost";
}

std::string textOf(const optional<ResolvedService>& result)
{
    return result ? "present " + result->serviceDef.path.toString() : "absent";
}

std::string textOf(const ResolvedServiceState& result)
{
    return (result.api ? "present " : "absent ") + result.serviceDef.path.toString();
}

RuntimeFixture::RuntimeFixture(std::uint64_t seed) : m_scheduler(seed)
{
    comm::Scheduler::install(&m_scheduler);
    tracing::setThreshold("*", 1);
    tracing::setSink(std::make_shared<JournalSink>(m_traces, 1));
    tracing::setEventLogSink(std::make_shared<JournalSink>(m_journal, 5));
    obr::GlobalErrorHandler::setHandler([assertions = m_assertions](const obr::GlobalErrorHandler::Report& report) {
        assertions->add(std::string(report.condition) + ", " + report.function + ", " +
                        (report.message != nullptr ? report.message : ""));
    });
    commadapter::setBackendFactoryForTest([network = m_network](const std::string& process, const std::string&) {
        return std::make_unique<FakeBackend>(network, process);
    });
}

RuntimeFixture::~RuntimeFixture()
{
    m_runtime.reset();
    EXPECT_EQ(m_assertions->take(), Lines());
    EXPECT_EQ(m_network->livingClientObjects, 0);
    EXPECT_EQ(m_livingServices, 0);
    commadapter::setBackendFactoryForTest({});
    obr::GlobalErrorHandler::setHandler({});
    tracing::setEventLogSink(nullptr);
    tracing::setSink(nullptr);
    tracing::setThreshold("*", 3);
    comm::Scheduler::install(nullptr);
}

std::unique_ptr<KesaRuntimeImpl> RuntimeFixture::startRuntime(const std::string& document)
{
    auto runtime = std::make_unique<KesaRuntimeImpl>(KesaConfig("me", document));
    EXPECT_FALSE(runtime->start());
    m_journal->take();
    m_network->calls();
    m_traces->take();
    return runtime;
}

/// The traces of exactly this severity that `work`, and what it posts, write.
Lines RuntimeFixture::traced(int severity, const std::function<void()>& work)
{
    m_traces->take();
    work();
    run();
    Lines lines = m_traces->take();
    const char digit = static_cast<char>('0' + severity);
    lines.erase(
        std::remove_if(lines.begin(), lines.end(), [digit](const std::string& line) { return line[0] != digit; }),
        lines.end());
    return lines;
}

} // namespace kesa::runtime::v02::test
