#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <kesa/headers.h>
#include <kesa/serviceregistry/MetainfoKeys.h>
#include <kesa/toGeneric.h>
#include <obr/ErrorStorage.h>
#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/runtime/EventLog.h>
#include <runtime/v02/runtime/Reasons.h>
#include <runtime/v02/runtime/identity.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace kesa::runtime::v02 {

namespace {

using serviceregistry::MetainfoKeys;

const std::string& versionsKey()
{
    static const std::string& key = *new std::string(enumToValue(MetainfoKeys::versions).value_or(""));
    return key;
}

/// The string, or the strings, under "versions"; none when it is anything else, which is traced.
std::vector<std::string> versionsOf(const std::string& path, const GenericObject& metainfo)
{
    const util::config::Value& value = metainfo[versionsKey()];
    if (value.isString()) {
        return {std::string(value.stringView())};
    }
    std::vector<std::string> versions;
    bool isWrong = value.isDefined() && !value.isArray();
    for (const util::config::Value& element : value.items()) {
        isWrong = isWrong || !element.isString();
        versions.emplace_back(element.stringView());
    }
    if (isWrong) {
        KESA_TRACE_TEXT(MAIN_CHANNEL, 3,
                        fmt::format("[registerService] '{}' is registered without versions: \"{}\" in its metainfo is "
                                    "{}; write a text, as \"1.0.0\", or a list of texts",
                                    path, versionsKey(), value.toText()));
        versions.clear();
    }
    return versions;
}

/// `record` is what this process provides at the path.
std::string alreadyHere(const std::optional<ServiceDef>& record)
{
    if (record && record->type == ServiceDef::TypeEnum::registry) {
        return "this process hosts the registry there already, and there is one at a time: end the "
               "kesa::registry::RegistryHost that is there before, with stop() or by destroying it";
    }
    return "this process has registered it; end that registration before: dispose it, or reset() what kesa::provide "
           "has returned, since assigning to that ends it only afterwards, and then the path has no service";
}

/// As it stands in documents: it holds in every run directory.
std::string withoutRealm(const url& locator)
{
    std::string text = locator.toString();
    const std::size_t realm = text.find('+');
    const std::size_t path = text.find('/', text.find("://") + 3);
    if (realm < path) {
        text.erase(realm, path - realm);
    }
    return text;
}

std::string howToFindWithoutRegistry(const ServiceDef& service, const KesaConfig& config)
{
    const std::string path = service.path.toString();
    const std::string told = fmt::format("[registerService] no other process finds '{}' by its path, since {}: ", path,
                                         Reasons::whyNoRegistry(config));
    if (!config.m_valid) {
        return told + "kesactl check-config says why";
    }
    return told +
           fmt::format(R"(add {{"path": "{}", "type": "{}", "locators": ["{}"]}} to "services" in the documents )"
                       "of those who use it",
                       path, ServiceDef::enumToValue(service.type).value_or(""),
                       service.locators.empty() ? "" : withoutRealm(service.locators.front()));
}

/// Of a record of another process.
std::string holderOf(const ServiceDef& record)
{
    const std::string_view provider = providerOf(record);
    return provider.empty() ? std::string() : "held by process " + std::string(provider);
}

std::string nameOf(ServiceDef::TypeEnum type)
{
    return ServiceDef::enumToValue(type).value_or("");
}

} // namespace

Disposable KesaRuntimeImpl::registerService(const std::string& path, std::shared_ptr<IKesaApi> api,
                                            ServiceDef::TypeEnum type, const GenericObject& metainfo,
                                            std::unique_ptr<RegistrationHandler>&& handler)
{
    return registerService(path, std::move(api), type, versionsOf(path, metainfo), metainfo, std::move(handler));
}

Disposable KesaRuntimeImpl::registerService(const std::string& path, std::shared_ptr<IKesaApi> api,
                                            ServiceDef::TypeEnum type, const std::vector<std::string>& versions,
                                            const GenericObject& metainfo,
                                            std::unique_ptr<RegistrationHandler>&& handler)
{
    if (refuseNull("registerService", path, handler.get())) {
        return {};
    }
    std::string complaint = Path::complaintAboutService(path);
    if (complaint.empty() && !api) {
        complaint = "the service object is null";
    }
    if (!complaint.empty()) {
        endRefused(path, std::move(handler), Response::createErrorResponse(400, complaint));
        return {};
    }
    const Handle handle = newHandle(handler.get());
    toExecutor([this, registration = Registration{path, std::move(api), type, versions, metainfo, std::move(handler),
                                                  handle}]() mutable { registerOnExecutor(std::move(registration)); });
    return disposable([this, path = path, handle] {
        KESA_TRACE(MAIN_CHANNEL, 2, "[registerService Disposable] service='%s' response_handler='%p'", path.c_str(),
                   handle.address);
        warnOfOther(path, handle);
        performUnregistration(path);
        KESA_TRACE(MAIN_CHANNEL, 2, "[registerService Disposable] service='%s' response_handler='%p' DONE",
                   path.c_str(), handle.address);
    });
}

void KesaRuntimeImpl::registerOnExecutor(Registration registration)
{
    onExecutor();
    const std::string& path = registration.path;
    KESA_TRACE(MAIN_CHANNEL, 2, "[registerService] '%s' response_handler='%p'", path.c_str(),
               static_cast<const void*>(registration.handler.get()));
    KESA_TRACE(MAIN_CHANNEL, 2, "[registerService] isRuntimeInRegistry='%d', isRegistryServiceRegistered=%d ",
               static_cast<int>(isRuntimeInRegistry), static_cast<int>(isRegistryServiceRegistered));
    if (isRuntimeInRegistry && !isRegistryServiceRegistered) {
        registerRegistryService(std::move(registration));
        return;
    }
    const auto [place, isNew] = m_runtimeEntries.try_emplace(path);
    RuntimeEntry& entry = place->second;
    if (!isNew) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[registerService] Service '%s' already present tracked or static configured",
                   path.c_str());
        if (joinEntry(entry, registration)) {
            return;
        }
    } else {
        KESA_TRACE(MAIN_CHANNEL, 2,
                   "[registerService] service='%s' is not statically configured create new runtimeEntry", path.c_str());
        setRegistrator(entry, registration);
        entry.isProvidedByThisProcess = true;
    }
    KESA_TRACE_TEXT(MAIN_CHANNEL, 2,
                    fmt::format("[registerService] service='{}' versions '{}'", path, registration.versions));
    if (entry.isStaticConfigured) {
        registerStatic(entry, registration);
    } else {
        registerDynamic(entry, registration);
    }
}

/// Puts the registrator into an entry that is there already. True when the registration was refused.
bool KesaRuntimeImpl::joinEntry(RuntimeEntry& entry, Registration& registration)
{
    const std::string& path = registration.path;
    const void* const address = registration.handler.get();
    if (entry.optionalRegistrator) {
        KESA_TRACE(MAIN_CHANNEL, 3, "[registerService] service='%s' already registered handle='%p'", path.c_str(),
                   address);
        refuse(path, std::move(registration.handler), alreadyHere(entry.optionalServiceDef));
        return true;
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[registerService] add response_hanlder='%p' to present service='%s'", address,
               path.c_str());
    if (entry.isStaticConfigured && !entry.isProvidedByThisProcess) {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[registerService] service='%s' is not configured to be provided by this process handle='%p'",
                   path.c_str(), address);
        refuse(path, std::move(registration.handler),
               "the configuration gives it to another process: none of its locators is of this one, '" + m_proc_name +
                   "'");
        return true;
    }
    if (!entry.isStaticConfigured && entry.optionalServiceDef) {
        KESA_TRACE_TEXT(MAIN_CHANNEL, 4, fmt::format("[registerService] service='{}' is already registered", path));
        refuse(path, std::move(registration.handler), holderOf(*entry.optionalServiceDef),
               "service already registered");
        return true;
    }
    setRegistrator(entry, registration);
    cancelRemoteTracking(entry); // the path is provided here now
    return false;
}

void KesaRuntimeImpl::setRegistrator(RuntimeEntry& entry, Registration& registration)
{
    entry.optionalRegistrator = std::move(registration.handler);
    entry.registration = registration.handle;
    entry.registered = comm::now();
    entry.isConfirmed = false;
}

void KesaRuntimeImpl::registerDynamic(RuntimeEntry& entry, Registration& registration)
{
    const std::string& path = registration.path;
    KESA_TRACE(MAIN_CHANNEL, 2, "[registerService] service is not static configured");
    ServiceDef serviceDef = dynamicServiceDef(registration);
    if (m_backendList.providePath(path, registration.api, serviceDef)) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[registerService] dynamic service='%s' can not be registered", path.c_str());
        if (!lacksRegistrator(entry, __LINE__)) {
            refuseRegistrator(path, entry, obr::ErrorStorage::takeReason());
        }
        deleteRuntimeEntry(path);
        followRemotely(path);
        return;
    }
    entry.providedLocators = serviceDef.locators;
    entry.optionalServiceDef = std::move(serviceDef);
    if (lacksRegistrator(entry, __LINE__)) {
        return;
    }
    eventlog::registrationRegister(m_eventSource, *entry.optionalServiceDef);
    announce(entry);
    if (m_remoteRegistryHandler) {
        registerServiceOnRegistry(entry, *entry.optionalServiceDef);
        return;
    }
    KESA_TRACE(MAIN_CHANNEL, 3,
               "[registerService RemoteRegistryHandler] remote registry not available and service='%s' is not "
               "statically configured",
               path.c_str());
    if (!isRuntimeInRegistry) {
        KESA_TRACE_TEXT(MAIN_CHANNEL, 3, howToFindWithoutRegistry(*entry.optionalServiceDef, m_config));
    }
    tellRegistered(*entry.optionalServiceDef);
}

ServiceDef KesaRuntimeImpl::dynamicServiceDef(const Registration& registration) const
{
    ServiceDef serviceDef(Path(registration.path), registration.type, registration.versions, {});
    GenericObject metainfo = registration.metainfo;
    metainfo.set(providerKey(), m_proc_name);
    metainfo.add(versionsKey(), toGeneric(registration.versions));
    bool isExternal = false;
    if (!metainfo["$external_lomo"].get(isExternal) && isExternal) {
        serviceDef.serializationFormats = std::vector<std::string>{"application/json"};
    } else {
        serviceDef.serializationFormats = KesaConfigAccessor(m_config).getSerializers(registration.path);
    }
    serviceDef.metainfo = std::move(metainfo);
    return serviceDef;
}

void KesaRuntimeImpl::registerStatic(RuntimeEntry& entry, Registration& registration)
{
    const std::string& path = registration.path;
    KESA_TRACE(MAIN_CHANNEL, 2, "[registerService] service='%s' is static configured", path.c_str());
    if (!entry.optionalServiceDef) {
        obr::GlobalErrorHandler::doAssert(false, "iter->second.optionalServiceDef != kesa::nullopt", __FILE__, __LINE__,
                                          "operator()", "[registerService] No ServiceDef is present");
        return;
    }
    if (applyToStaticRecord(entry, registration)) {
        return;
    }
    if (m_backendList.provideURL(entry.optionalServiceDef->locators, registration.api)) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[registerService] static configured service='%s' can not be registered",
                   path.c_str());
        if (!lacksRegistrator(entry, __LINE__)) {
            refuseRegistrator(path, entry, obr::ErrorStorage::takeReason());
        }
        return;
    }
    entry.providedLocators = entry.optionalServiceDef->locators;
    announce(entry);
    eventlog::registrationRegister(m_eventSource, *entry.optionalServiceDef);
    tellRegistered(*entry.optionalServiceDef);
}

/// Brings what is registered into the configured record, where it stays also when the registration is refused. True
/// when it was refused because of its type.
bool KesaRuntimeImpl::applyToStaticRecord(RuntimeEntry& entry, const Registration& registration)
{
    ServiceDef& record = *entry.optionalServiceDef;
    const std::string& path = registration.path;
    record.metainfo = registration.metainfo;
    if (record.versions.empty() && !registration.versions.empty()) {
        KESA_TRACE_TEXT(MAIN_CHANNEL, 1,
                        fmt::format("[registerService] service='{}' static entry has not versions but available at "
                                    "runtime -> applying",
                                    path));
        record.versions = registration.versions;
        record.metainfo->add(versionsKey(), toGeneric(registration.versions));
    }
    if (record.type == registration.type) {
        return false;
    }
    const std::string configured = nameOf(record.type);
    const std::string registered = nameOf(registration.type);
    KESA_TRACE(MAIN_CHANNEL, 4,
               "Service registration of statically configured service '%s': Service type mismatch: configured=%s; "
               "in-registration=%s",
               path.c_str(), configured.c_str(), registered.c_str());
    refuseRegistrator(path, entry,
                      fmt::format("{} has it as \"{}\", and it is registered as \"{}\": write \"type\": \"{}\" "
                                  "there, or register it with the other type",
                                  m_config.m_file.empty() ? "the configuration" : m_config.m_file, configured,
                                  registered, registered),
                      "service '" + path + "type mismatch configured " + configured + " but registration with " +
                          registered);
    return true;
}

/// Tells the registrator, here, and all who track the service, on the updater.
void KesaRuntimeImpl::announce(RuntimeEntry& entry)
{
    m_executorWatch.tell("registerService", entry.optionalServiceDef->path.toString(),
                         [&entry] { (*entry.optionalRegistrator)->onNext(*entry.optionalServiceDef); });
    triggerRuntimeUpdate(ResourceUpdateType::eADDED, *entry.optionalServiceDef, entry.trackers, m_queryTrackers);
}

bool KesaRuntimeImpl::lacksRegistrator(const RuntimeEntry& entry, int line)
{
    if (entry.optionalRegistrator) {
        return false;
    }
    obr::GlobalErrorHandler::doAssert(false, "iter->second.optionalRegistrator.has_value()", __FILE__, line,
                                      "operator()", "optionalRegistrator is not present it is a strange error");
    return true;
}

void KesaRuntimeImpl::refuseRegistrator(const std::string& path, RuntimeEntry& entry, std::string_view reason,
                                        std::string_view text)
{
    refuse(path, std::move(*entry.optionalRegistrator), reason, text);
    entry.optionalRegistrator.reset();
}

void KesaRuntimeImpl::refuse(const std::string& path, std::unique_ptr<RegistrationHandler> handler,
                             std::string_view reason, std::string_view text)
{
    Response error = Response::createErrorResponse(409, text);
    headers::appendReason(error, reason);
    endRefused(path, std::move(handler), std::move(error));
}

void KesaRuntimeImpl::endRefused(const std::string& path, std::unique_ptr<RegistrationHandler> handler, Response error)
{
    m_reasons->noteRefusal(path, error);
    postError("registerService", path, std::move(handler), std::move(error));
}

/// At the registry, where there is one.
void KesaRuntimeImpl::tellRegistered(const ServiceDef& service)
{
    m_reasons->noteRegistered(service.path.toString());
    eventlog::registrationSuccess(m_eventSource, service);
}

} // namespace kesa::runtime::v02
