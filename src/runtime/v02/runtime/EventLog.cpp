#include <runtime/v02/runtime/EventLog.h>

#include <kesa/ResourceUpdateTypeSerializer.h>
#include <kesa/core/Serializer.h>
#include <kesa/mimetypes.h>
#include <kesa/serializer/Factory.h>
#include <obr/ErrorStorage.h>
#include <tracing/Channel.h>
#include <util/ByteBufferWriter.h>

#include <fmt/format.h>

namespace kesa::runtime::v02::eventlog {

namespace {

constexpr int SEVERITY = 2;

const ::tracing::Channel CHANNEL{"kesa_DataModel", 7, SEVERITY};

/// The error that is pending outside of the log stays as it is, whatever the log's own work records.
class PendingErrorKept {
public:
    PendingErrorKept() { obr::ErrorStorage::exchange(m_pending); }
    ~PendingErrorKept() { obr::ErrorStorage::exchange(m_pending); }
    PendingErrorKept(const PendingErrorKept&) = delete;
    PendingErrorKept& operator=(const PendingErrorKept&) = delete;

private:
    obr::ErrorStorage::Slot m_pending;
};

template <class Record>
std::string jsonOf(const Record& record, const char* failureText)
{
    const PendingErrorKept kept;
    util::ByteBufferWriter writer(1024);
    const auto serializer = serializer::Factory::createSerializer(mimetypes::MimeTypeID::eJSON);
    bool hasContent = false;
    if (!serializer || serializer->attach(writer) || serializer::serialize(*serializer, record) ||
        serializer->finish(hasContent)) {
        return failureText;
    }
    return std::string(writer.text());
}

/// The path of a locator, taken only for a line that is written.
struct PathOf {
    const url& locator;
};

std::string textOf(const ServiceDef& serviceDef)
{
    return jsonOf(serviceDef, "ServiceDef serialization failed");
}

std::string textOf(const Query& query)
{
    return jsonOf(query, "Query serialization failed");
}

std::string textOf(ResourceUpdateType type)
{
    return ResourceUpdateTypeSerializer::enumToValue(type).value_or("unknown");
}

std::string_view textOf(CausedBy cause)
{
    return cause == CausedBy::eUSER ? "USER" : "ERROR";
}

std::string textOf(const Response& error)
{
    return Response::getErrorMessageWithCode(error);
}

std::string textOf(PathOf uri)
{
    return uri.locator.path();
}

const std::string& textOf(const url& uri)
{
    return uri.toString();
}

const std::string& textOf(const std::string& text)
{
    return text;
}

std::string_view textOf(std::string_view text)
{
    return text;
}

template <class... Fields>
void write(std::string_view line, const Fields&... fields)
{
    if (CHANNEL.threshold() > SEVERITY) {
        return;
    }
    CHANNEL.log(SEVERITY, fmt::format(fmt::runtime(line), textOf(fields)...));
}

} // namespace

void runtimeStart(const std::string& on)
{
    write("{{\"event\":\"runtime\", \"info\":\"start\", \"on\":\"{0}\"}}", on);
}

void runtimeStop(const std::string& on)
{
    write("{{\"event\":\"runtime\", \"info\":\"stop\", \"on\":\"{0}\"}}", on);
}

void runtimeError(const std::string& on, std::string_view error)
{
    write("{{\"event\":\"runtime\", \"info\":\"error\", \"on\":\"{0}\", \"error\":\"{1}\"}}", on, error);
}

void registrationRegister(const std::string& on, const ServiceDef& serviceDef)
{
    write("{{\"event\":\"registration\", \"info\":\"register\", \"on\":\"{0}\", \"serviceDef\":{1}}}", on, serviceDef);
}

void registrationSuccess(const std::string& on, const ServiceDef& serviceDef)
{
    write("{{\"event\":\"registration\", \"info\":\"success\", \"on\":\"{0}\", \"serviceDef\":{1}}}", on, serviceDef);
}

void registrationError(const std::string& on, const ServiceDef& serviceDef, std::string_view error)
{
    write("{{\"event\":\"registration\", \"info\":\"error\", \"on\":\"{0}\", \"serviceDef\":{1}, \"error\":\"{2}\"}}",
          on, serviceDef, error);
}

void registrationUnregister(const std::string& on, const ServiceDef& serviceDef)
{
    write("{{\"event\":\"registration\", \"info\":\"unregister\", \"on\":\"{0}\", \"serviceDef\":{1}}}", on,
          serviceDef);
}

void trackingStart(const std::string& on, const std::string& servicePath)
{
    write("{{\"event\":\"tracking\", \"info\":\"start\", \"on\":\"{0}\", \"servicePath\":\"{1}\"}}", on, servicePath);
}

void trackingUpdate(const std::string& on, const ServiceUpdate& update)
{
    write("{{\"event\":\"tracking\", \"info\":\"update\", \"on\":\"{0}\", \"updateType\":\"{1}\", \"serviceDef\":{2}}}",
          on, update.type, update.element);
}

void trackingStop(const std::string& on, const std::string& servicePath, CausedBy cause)
{
    write("{{\"event\":\"tracking\", \"info\":\"stop\", \"on\":\"{0}\", \"servicePath\":\"{1}\", "
          "\"caused-by\":\"{2}\"}}",
          on, servicePath, cause);
}

void queryStart(const std::string& on, const Query& query)
{
    write("{{\"event\":\"query\", \"info\":\"start\", \"on\":\"{0}\", \"query\":{1}}}", on, query);
}

void queryUpdate(const std::string& on, const Query& query, const ServiceUpdate& update)
{
    write("{{\"event\":\"query\", \"info\":\"update\", \"on\":\"{0}\", \"query\":{1}, \"updateType\":\"{2}\", "
          "\"serviceDef\":{3}}}",
          on, query, update.type, update.element);
}

void queryStop(const std::string& on, const Query& query, CausedBy cause)
{
    write("{{\"event\":\"query\", \"info\":\"stop\", \"on\":\"{0}\", \"query\":{1}, \"caused-by\":\"{2}\"}}", on, query,
          cause);
}

void connectStart(const std::string& on, const url& uri)
{
    write("{{\"event\":\"connect\", \"info\":\"start\", \"on\":\"{0}\", \"servicePath\":\"{1}\", \"uri\":\"{2}\"}}", on,
          PathOf{uri}, uri);
}

void connectServiceConnected(const std::string& on, const url& uri)
{
    write("{{\"event\":\"connect\", \"info\":\"serviceConnected\", \"on\":\"{0}\", \"servicePath\":\"{1}\", "
          "\"uri\":\"{2}\"}}",
          on, PathOf{uri}, uri);
}

void connectServiceLost(const std::string& on, const url& uri)
{
    write("{{\"event\":\"connect\", \"info\":\"serviceLost\", \"on\":\"{0}\", \"servicePath\":\"{1}\", "
          "\"uri\":\"{2}\"}}",
          on, PathOf{uri}, uri);
}

void connectError(const std::string& on, const url& uri, const Response& error)
{
    write("{{\"event\":\"connect\", \"info\":\"error\", \"on\":\"{0}\", \"servicePath\":\"{1}\", \"uri\":\"{2}\", "
          "\"error\":\"{3}\"}}",
          on, PathOf{uri}, uri, error);
}

void connectStop(const std::string& on, const url& uri)
{
    write("{{\"event\":\"connect\", \"info\":\"stop\", \"on\":\"{0}\", \"servicePath\":\"{1}\", \"uri\":\"{2}\"}}", on,
          PathOf{uri}, uri);
}

} // namespace kesa::runtime::v02::eventlog
