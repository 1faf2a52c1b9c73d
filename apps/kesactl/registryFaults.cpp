#include "registryFaults.h"

#include "ProcessReport.h"
#include "otherRunDirectories.h"
#include "peerText.h"
#include "processNames.h"

#include <kesa/core/PayloadConversion.h>
#include <obr/ErrorStorage.h>
#include <util/config/JSONParser.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace kesactl {
namespace {

using kesa::Response;
using util::config::Value;
using Updates = std::vector<kesa::serviceregistry::RegistryUpdate>;

/// The beginning of a body, for a sentence.
std::string beginningOf(const Response& answer)
{
    constexpr std::size_t MOST = 40;
    const std::string_view body = answer.getPayload().text();
    return body.empty() ? "an empty answer"
                        : fmt::format("\"{}\"{}", body.substr(0, MOST), body.size() > MOST ? " and more" : "");
}

/// The reason that reading has left.
std::string takeReason()
{
    std::string reason = shortened(obr::ErrorStorage::reason());
    obr::ErrorStorage::ack();
    return reason;
}

/// In milliseconds; more of them than there is time for are none.
bool isTime(const Value& value)
{
    std::int64_t time = 0;
    return value.isInteger() && !value.get(time) && time > 0 && time < INT64_MAX / comm::MILLISECOND &&
           isCredible(time * comm::MILLISECOND);
}

bool isTextOrMissing(const Value& value)
{
    return !value.isDefined() || value.isString();
}

std::string findInHolder(const Value& holder)
{
    const Value& record = holder["record"];
    const auto& locators = record["locators"].items();
    if (!holder.isDictionary() || !record.isDictionary() || !isTextOrMissing(holder["provider"])) {
        return "\"holder\" is not who provides it";
    }
    if (!isTime(holder["since"])) {
        return "\"since\" of the holder is no time";
    }
    const bool areTexts =
        std::all_of(locators.begin(), locators.end(), [](const Value& locator) { return locator.isString(); });
    return record["locators"].isArray() && areTexts ? "" : "\"locators\" of the record are no list of texts";
}

std::string findInEvent(const Value& event)
{
    const std::string_view what = event["what"].stringView();
    if (what != "withdrawn" && what != "lost" && what != "forbidden" && what != "refused") {
        return "an event of its \"history\" is none";
    }
    const bool hasTimes = isTime(event["when"]) && (what == "refused" || isTime(event["since"]));
    const bool hasTexts = isTextOrMissing(event["provider"]) && isTextOrMissing(event["reason"]);
    return hasTimes && hasTexts ? "" : "an event of its \"history\" has no time, or no text where one belongs";
}

std::string findIn(const Value& explanation)
{
    if (!explanation.isDictionary()) {
        return "it is no object";
    }
    if (!explanation["registered"].isBool()) {
        return "\"registered\" is neither true nor false";
    }
    if (!isTime(explanation["registryStarted"])) {
        return "\"registryStarted\" is no time";
    }
    if (!explanation["history"].isArray()) {
        return "\"history\" is no list";
    }
    for (const Value& event : explanation["history"].items()) {
        if (std::string wrong = findInEvent(event); !wrong.empty()) {
            return wrong;
        }
    }
    return explanation["registered"] == true ? findInHolder(explanation["holder"]) : "";
}

} // namespace

Unreached explainFault(const kesa::url& registry, const std::string& what)
{
    return {"not-a-registry", "it answers, but not as a registry does: " + what,
            fmt::format(R"(kesactl status {} says which program has that name: start a registry in its place, or name )"
                        R"(another process in "service_registry_locators")",
                        processArgument(plainProcessOf(registry))),
            true};
}

std::string faultOf(const Response& error)
{
    const auto status = error.getStatus();
    return status == 400 || status == 503 || status == 504
               ? ""
               : fmt::format("it refuses the question with {}", saidBy(error));
}

std::string readUpdates(const Response& answer, Updates& updates)
{
    if (kesa::serializer::readPayload(answer.getPayload(), updates)) {
        return fmt::format("{} is no list of updates: {}", beginningOf(answer), takeReason());
    }
    const bool hasAll = std::all_of(updates.begin(), updates.end(), [](const auto& update) { return update.element; });
    return hasAll ? "" : fmt::format("{} has an update without a service", beginningOf(answer));
}

std::string readExplanation(const Response& answer, Value& explanation)
{
    Value read;
    if (util::config::JSONParser().parseString(answer.getPayload().text(), read)) {
        return fmt::format("{} is no JSON: {}", beginningOf(answer), takeReason());
    }
    if (const std::string wrong = findIn(read); !wrong.empty()) {
        return fmt::format("{} explains nothing: {}", beginningOf(answer), wrong);
    }
    explanation = withShortTexts(read);
    return {};
}

} // namespace kesactl
