#ifndef KESA_TESTS_SIM_MARKS_H
#define KESA_TESTS_SIM_MARKS_H

#include <string_view>
#include <vector>

namespace kesa::sim {

/// Texts of traces, each of a branch that only an unusual order of events reaches.
inline std::vector<std::string_view> callMarks()
{
    return {
        // Of clients that do not take their answers.
        "[hold] ",
        "[endHold] ",
        // Of time limits.
        "[looksAgain] ",
        "[call] answered after its time, which this process spent standing still",
        "[call] had its value in time, and went on",
        "[call] 504 while the service had it",
        "[call] 504 before the service had it",
        "[call] reached the service after its 504",
    };
}

inline std::vector<std::string_view> localMarks()
{
    return {
        "already registered handle=",
        "is not configured to be provided by this process",
        "type mismatch",
        "[performUnregistration] can not find service",
        "entry is in use service=",
        "already registered -> notifying tracker",
        "static configured an in provided by other process",
        "[QueryUpdateBookkeeper onNext] initial update",
        "[QueryUpdateBookkeeper onNext] flip in service lifetime",
        "[QueryUpdateBookkeeper onNext] erase",
        "path do not match",
        "[trackServices query Disposable] no trackService found",
        "services matching query",
        "[resolve] no resolveable url found",
        "[releaseResolve] url to release not found",
        "there are already active openProxys",
        "there are still active openProxy call do not free proxy",
        "MyClientConnectionListener already dead",
        "[trackAndResolveService onNext of tracking] eREMOVED",
        "has value send it to client",
        "has no value send nullopt to client",
        "[trackAndResolveService Disposable] can not find url  to release",
        "[trackAndResolveServices onNext of tracking] eREMOVED call onNext to client",
        "[trackAndResolveService onNext of resolve] proxy is gone",
        "[trackAndResolveServices onNext of resolve] proxy is gone",
        "[trackAndResolveService onNext of tracking] can not find m_trackAndResolveServiceHandler",
        "[trackAndResolveServices onNext of tracking] can not find m_trackAndResolveServiceHandler",
        "[addResponseHandler] add handle",
        "[dtor] m_runtimeEntries",
    };
}

inline std::vector<std::string_view> registryMarks()
{
    return {
        // The registry: claims.
        "is refused: another living process has it",
        "ms after a ping",
        "registered again by",
        "[mirror] '/d/",
        "[deliver] waits for the queue",
        // What this process and another register at the same time.
        "[handleRemoteServiceRegistered] registered here -> kept aside",
        "[followRemotely] of another process, kept aside so far",
        "[followRemotely] still tracked",
        "[updateRemoteTrackedService] registered here -> ignoring",
        // The registry is lost.
        "[trackServiceOnRegistry onCompleted] registered here -> kept",
        "[handleRemoteServiceUnregistered#query] registered here -> kept",
        "[trackServiceOnRegistry onCompleted] found no service entry",
        "not deconstructing service",
        // Answers to requests that have ended.
        "[onRegistrationConfirmed] of an earlier request",
        "[onRegistrationFailed] of an earlier request",
        "[updateRemoteTrackedService] of an earlier request",
        "[remoteTrackingLost] of an earlier request",
        "[queryServiceOnRegistry] remoteQuery already disposed",
        // Answers to an issue over a connection of which its loss and return had not been told yet.
        "[onRegistrationConfirmed] of an earlier issue",
        "[updateRemoteTrackedService] of an earlier issue",
        "[onRemoteQueryAnswer] of an earlier issue",
        "already unregistered -> ignoring",
        // Trackings and queries that tell of the same path.
        "[handleRemoteServiceRegistered] fill entry of trackers",
        "[handleRemoteServiceRegistered] known already",
        "[takeBackFromQueries]",
        "[trackServices query Disposable] taken back until tracked",
        "[trackServices query Disposable] erase service",
        "already tracked -> notifying tracker",
        "[findAndUnregister, handleRemoteQueryOnRegistryUpdate]  entry is in use",
        "[findAndUnregister, handleRemoteQueryOnRegistryUpdate else] entry is in use",
        "does not point to service registration",
        "[QueryUpdateBookkeeper onNext] ignore is duplicate",
        // Proxies.
        "[trackAndResolveService onNext of resolve] proxy is gone",
        "[trackAndResolveServices onNext of resolve] proxy is gone",
    };
}

} // namespace kesa::sim

#endif
