#include "RegistryClient.h"

#include "clocks.h"

#include <kesa/commands.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/handler.h>
#include <kesa/mimetypes.h>
#include <tracing/Sink.h>

#include <unistd.h>

#include <atomic>
#include <charconv>
#include <string_view>
#include <utility>

namespace bench {

using kesa::runtime::v02::KesaRuntime;
using kesa::serviceregistry::ServiceRegistryPexClient;

namespace {

constexpr std::string_view PREFIX = "/bench/";
/// Of registrations that only wait for their turn.
constexpr std::string_view SYNC_PREFIX = "/sync/";

kesa::runtime::v02::IKesaRuntime& start(const std::string& processName)
{
    require(!KesaRuntime::initInstance(processName), "start of the runtime");
    return *KesaRuntime::getInstance();
}

/// The number behind the path's prefix in a text that goes on behind it.
int numberAt(std::string_view text)
{
    int number = -1;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

} // namespace

std::string pathOf(int number)
{
    return std::string(PREFIX) + std::to_string(number);
}

int numberOf(const std::string& path)
{
    return path.compare(0, PREFIX.size(), PREFIX) == 0 ? numberAt(std::string_view(path).substr(PREFIX.size())) : -1;
}

/// Reads the event log for confirmed registrations.
class RegistryClient::Sink final : public tracing::ISink {
public:
    explicit Sink(OnConfirmed onConfirmed) : m_onConfirmed(std::move(onConfirmed)) {}

    void write(const tracing::Line& line) override
    {
        static constexpr std::string_view START = R"({"event":"registration", "info":"success")";
        static constexpr std::string_view PATH = R"("path":")";
        if (line.text.substr(0, START.size()) != START) {
            return;
        }
        const std::int64_t now = wallNs();
        const std::size_t found = line.text.find(PATH);
        require(found != std::string_view::npos, "the path of a confirmed registration");
        const std::string_view path = line.text.substr(found + PATH.size());
        const int number = numberAt(path.substr(PREFIX.size()));
        if (path.substr(0, SYNC_PREFIX.size()) == SYNC_PREFIX) {
            synced.give();
        } else if (m_onConfirmed) {
            m_onConfirmed(number, now);
        } else if (number == awaited) {
            confirmedAt = now;
            confirmed.give();
        }
    }

    std::atomic<int> awaited{-1};
    std::atomic<std::int64_t> confirmedAt{0};
    Signal confirmed{Signal::Between::eTHREADS};
    Signal synced{Signal::Between::eTHREADS};

private:
    const OnConfirmed m_onConfirmed;
};

RegistryClient::RegistryClient(const std::string& processName, OnConfirmed onConfirmed)
    : m_sink(std::make_shared<Sink>(std::move(onConfirmed))), m_runtime(start(processName)),
      m_service(std::make_shared<kesa::ResourceHandler>())
{
    static_cast<kesa::ResourceHandler&>(*m_service).onRetrieve("/", [](const auto&, kesa::Responder responder) {
        responder.answer(kesa::Payload::createFromString("here", kesa::mimetypes::TEXT));
    });
    sync();
}

RegistryClient::~RegistryClient()
{
    tracing::setEventLogSink(nullptr);
    m_bare.reset();
    KesaRuntime::shutdown();
}

kesa::Disposable RegistryClient::registerService(int number, const std::string& information)
{
    kesa::GenericObject metainfo;
    if (!information.empty()) {
        metainfo.set("information", information);
    }
    return registerPath(pathOf(number), metainfo);
}

kesa::Disposable RegistryClient::registerPath(const std::string& path, const kesa::GenericObject& metainfo)
{
    return m_runtime.registerService(path, m_service, ServiceDef::TypeEnum::pex, {"1.0.0"}, metainfo,
                                     kesa::handler<ServiceDef>([](const ServiceDef&) {},
                                                               [](const kesa::Response& error) {
                                                                   require(false, error.getErrorMessage().c_str());
                                                               }));
}

std::int64_t RegistryClient::registerAndWait(int number, kesa::Disposable& registration)
{
    m_sink->awaited = number;
    registration = registerService(number);
    m_sink->confirmed.take("confirmation of a registration");
    return m_sink->confirmedAt;
}

void RegistryClient::switchLogOff()
{
    m_isLogOff = true;
    tracing::setEventLogSink(nullptr);
}

void RegistryClient::sync()
{
    tracing::setEventLogSink(m_sink);
    std::string path(SYNC_PREFIX);
    path.append(std::to_string(::getpid())).append("/").append(std::to_string(m_synced++));
    kesa::Disposable registration = registerPath(path, {});
    m_sink->synced.take("answer of the registry");
    registration.dispose();
    if (m_isLogOff) {
        switchLogOff();
    }
}

kesa::serviceregistry::IServiceRegistry& RegistryClient::bare()
{
    using Service = std::shared_ptr<kesa::IKesaApi>;
    if (!m_bare) {
        struct Resolution { // the handler outlives this call
            Service api;
            Signal connected;
        };
        const auto resolution = std::make_shared<Resolution>();
        static_cast<void>(m_runtime.resolveService(
            kesa::url("ipc://kesa-registryd/registry"),
            kesa::handler<kesa::optional<Service>>([resolution](const kesa::optional<Service>& value) {
                require(value.has_value(), "connection to the registry");
                resolution->api = *value;
                resolution->connected.give();
            })));
        resolution->connected.take("connection to the registry");
        m_bare = std::make_unique<ServiceRegistryPexClient>(resolution->api, std::string(kesa::mimetypes::JSON));
    }
    return *m_bare->main();
}

} // namespace bench
