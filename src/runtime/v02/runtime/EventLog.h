#ifndef KESA_RUNTIME_V02_EVENTLOG_H
#define KESA_RUNTIME_V02_EVENTLOG_H

#include <kesa/Response.h>
#include <kesa/url.h>
#include <runtime/v02/runtime/HandlerTypes.h>

#include <string>
#include <string_view>

/// One machine-readable line, a small JSON object, for each significant event; on the channel "kesa_DataModel",
/// severity
/// 2. While nobody listens there, a call costs one comparison. Values are put in as they are, without escaping.
///
/// Any thread. Writing a line never fails the caller and leaves its pending error alone. `on` is the process.
namespace kesa::runtime::v02::eventlog {

/// What ended a subscription: its owner, or an error of the stream.
enum class CausedBy { eUSER, eERROR };

void runtimeStart(const std::string& on);
void runtimeStop(const std::string& on);
void runtimeError(const std::string& on, std::string_view error);

void registrationRegister(const std::string& on, const ServiceDef& serviceDef);
void registrationSuccess(const std::string& on, const ServiceDef& serviceDef);
void registrationError(const std::string& on, const ServiceDef& serviceDef, std::string_view error);
void registrationUnregister(const std::string& on, const ServiceDef& serviceDef);

void trackingStart(const std::string& on, const std::string& servicePath);
void trackingUpdate(const std::string& on, const ServiceUpdate& update);
void trackingStop(const std::string& on, const std::string& servicePath, CausedBy cause);

void queryStart(const std::string& on, const Query& query);
void queryUpdate(const std::string& on, const Query& query, const ServiceUpdate& update);
void queryStop(const std::string& on, const Query& query, CausedBy cause);

void connectStart(const std::string& on, const url& uri);
void connectServiceConnected(const std::string& on, const url& uri);
void connectServiceLost(const std::string& on, const url& uri);
void connectError(const std::string& on, const url& uri, const Response& error);
void connectStop(const std::string& on, const url& uri);

} // namespace kesa::runtime::v02::eventlog

#endif
