#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/runtime/EventLog.h>

namespace kesa::runtime::v02 {

/// Announces what was just registered. The request is kept, and issued at each connection, until the registration ends.
void KesaRuntimeImpl::registerServiceOnRegistry(RuntimeEntry& entry, const ServiceDef& serviceDef)
{
    onExecutor();
    RemoteRegistryHandler::Request request;
    request.issue = [this, announced = std::make_shared<const ServiceDef>(serviceDef)](
                        serviceregistry::IServiceRegistry* registry, const Issue& issue) {
        return registry->registerService(registrationAnswers(announced, issue), announced->path, *announced);
    };
    entry.remoteRegistrationId = m_remoteRegistryHandler->execute(std::move(request));
}

std::unique_ptr<RegistrationHandler>
KesaRuntimeImpl::registrationAnswers(const std::shared_ptr<const ServiceDef>& announced, const Issue& issue)
{
    return std::make_unique<responsehandlers::FuncResponseHandler<ServiceDef>>(
        [this, announced, issue](const ServiceDef& answer) {
            handOver([this, announced, issue, answer = answer]() mutable {
                onRegistrationConfirmed(announced->path, issue, std::move(answer));
            });
            return false;
        },
        [this, announced, issue](const Response& error) {
            toExecutor([this, announced, issue, error = error] { onRegistrationFailed(*announced, issue, error); });
        },
        [this, announced] {
            // The protocol knows no end of a registration but the registering side's: nothing sensible can follow.
            KESA_TRACE(MAIN_CHANNEL, 4, "[registerService RemoteRegistryHandler] onCompleted");
            eventlog::registrationError(m_eventSource, *announced, "onCompleted");
            obr::GlobalErrorHandler::doAbort(__FILE__, __LINE__, "operator()",
                                             "[registerService RemoteRegistryHandler] onCompleted strange error");
        });
}

/// The entry that `request` is kept for; none when it has ended.
KesaRuntimeImpl::RuntimeEntry* KesaRuntimeImpl::entryOfRequest(const std::string& path,
                                                               optional<std::uint32_t> RuntimeEntry::*current,
                                                               std::uint32_t request, const char* caller)
{
    const auto found = m_runtimeEntries.find(path);
    if (found == m_runtimeEntries.end()) {
        return nullptr;
    }
    if (found->second.*current != request) {
        KESA_TRACE(MAIN_CHANNEL, 1, "[%s] of an earlier request service='%s'", caller, path.c_str());
        return nullptr;
    }
    return &found->second;
}

/// The entry that an answer to `issue` is about; none when the answer does not count any more.
KesaRuntimeImpl::RuntimeEntry* KesaRuntimeImpl::entryOfIssue(const std::string& path,
                                                             optional<std::uint32_t> RuntimeEntry::*current,
                                                             const Issue& issue, const char* caller)
{
    RuntimeEntry* const entry = entryOfRequest(path, current, issue.request, caller);
    return entry == nullptr || isLate(issue, caller, path) ? nullptr : entry;
}

/// The request was given up, or issued again, after the answer had been given.
bool KesaRuntimeImpl::isLate(const Issue& issue, const char* caller, const std::string& subject) const
{
    if (m_remoteRegistryHandler && m_remoteRegistryHandler->isLatest(issue)) {
        return false;
    }
    KESA_TRACE(MAIN_CHANNEL, 1, "[%s] of an earlier issue '%s'", caller, subject.c_str());
    return true;
}

void KesaRuntimeImpl::onRegistrationConfirmed(const Path& registered, const Issue& issue, ServiceDef answer)
{
    onExecutor();
    const std::string& path = answer.path.toString();
    KESA_TRACE(MAIN_CHANNEL, 2,
               "[registerService RemoteRegistryHandler] Received response from parent registry regarding registration "
               "of service '%s'",
               path.c_str());
    if (answer.path != registered) {
        KESA_TRACE(MAIN_CHANNEL, 3,
                   "[registerService RemoteRegistryHandler] the answer is for service='%s' -> ignoring",
                   registered.toString().c_str());
        return;
    }
    RuntimeEntry* const entry =
        entryOfIssue(path, &RuntimeEntry::remoteRegistrationId, issue, "onRegistrationConfirmed");
    if (entry == nullptr) {
        const auto kept = m_runtimeEntries.find(path);
        if (kept != m_runtimeEntries.end() && !kept->second.optionalServiceDef) { // for trackers
            KESA_TRACE(MAIN_CHANNEL, 2,
                       "[registerService RemoteRegistryHandler] service service='%s' is already unregistered",
                       path.c_str());
            return;
        }
        KESA_TRACE(MAIN_CHANNEL, 3,
                   "[registerService RemoteRegistryHandler] registration was cancelled before announce it at the "
                   "client service='%s'",
                   path.c_str());
        return;
    }
    optional<ServiceDef>& recorded = entry->optionalServiceDef;
    if (!recorded) {
        KESA_TRACE(MAIN_CHANNEL, 2,
                   "[registerService RemoteRegistryHandler] service service='%s' is already unregistered",
                   path.c_str());
        return;
    }
    entry->isConfirmed = true;
    tellRegistered(answer);
    if (*recorded == answer) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[registerService RemoteRegistryHandler] do not update ServiceDef for service='%s'",
                   path.c_str());
        return;
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[registerService RemoteRegistryHandler] update ServiceDef for service='%s'",
               path.c_str());
    recorded = std::move(answer);
}

void KesaRuntimeImpl::onRegistrationFailed(const ServiceDef& serviceDef, const Issue& issue, const Response& error)
{
    onExecutor();
    if (!m_remoteRegistryHandler) {
        return; // shutdown has let go of the registry: that is no error of each service
    }
    const std::string& path = serviceDef.path.toString();
    const std::string message = Response::getErrorMessageWithCode(error);
    KESA_TRACE(MAIN_CHANNEL, 4, "[registerService RemoteRegistryHandler] %s onError message=%s", path.c_str(),
               message.c_str());
    eventlog::registrationError(m_eventSource, serviceDef, message);
    if (error.getStatus() == 503) {
        KESA_TRACE(MAIN_CHANNEL, 1,
                   "[registerService RemoteRegistryHandler] not deconstructing service %s after error %s", path.c_str(),
                   message.c_str());
        return;
    }
    RuntimeEntry* const entry = entryOfIssue(path, &RuntimeEntry::remoteRegistrationId, issue, "onRegistrationFailed");
    if (entry == nullptr) {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[registerService RemoteRegistryHandler] find no entry in m_runtimeEntries for service='%s'",
                   path.c_str());
        return;
    }
    withdrawRefused(*entry, path, error, message);
}

/// The registry will not have the service: it goes, its registrator hears why.
void KesaRuntimeImpl::withdrawRefused(RuntimeEntry& entry, const std::string& path, const Response& error,
                                      const std::string& message)
{
    // Kept, the request would be issued again at the next connection, for a service that nobody provides by then.
    m_remoteRegistryHandler->cancel(*entry.remoteRegistrationId);
    // Nobody calls the service any more when its registrator hears of it and lets go of what the service needs.
    optional<ServiceDef> withdrawn;
    if (entry.optionalServiceDef) {
        withdrawn = takeRecord(entry);
        unprovide(entry, *withdrawn);
    }
    if (entry.optionalRegistrator) {
        endRefused(path, std::move(*entry.optionalRegistrator), error);
        entry.optionalRegistrator.reset();
    } else {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[registerService RemoteRegistryHandler] runtimeEntryIter->second.optionalRegistrator has no value "
                   "onError message=%s",
                   message.c_str());
    }
    if (!withdrawn) {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[registerService RemoteRegistryHandler] runtimeEntryIter->second.optionalServiceDef has no value "
                   "onError message=%s",
                   message.c_str());
        return;
    }
    triggerRuntimeUpdate(ResourceUpdateType::eREMOVED, *withdrawn, entry.trackers, m_queryTrackers);
    deleteRuntimeEntry(path);
    followRemotely(path);
}

} // namespace kesa::runtime::v02
