#include <kesa/ease/RequestError.h>
#include <kesa/ease/body.h>

#include <fmt/format.h>

#include <stdexcept>

namespace kesa::detail {

namespace {

std::string whyUnread(const char* what, const Payload& payload)
{
    return payload.isEmpty() ? fmt::format("the {} is empty", what)
                             : fmt::format("the {} can not be read: {}", what, obr::ErrorStorage::reason());
}

} // namespace

void refuseBody(const Request& request)
{
    throw RequestError(400, whyUnread("body", request.getPayload()));
}

void refuseBody(const Response& answer)
{
    throw std::runtime_error(whyUnread("answer", answer.getPayload()));
}

void refuseValue(std::string_view mimeName)
{
    throw std::runtime_error(fmt::format("the value has no form in {}: {}", mimeName, obr::ErrorStorage::reason()));
}

} // namespace kesa::detail
