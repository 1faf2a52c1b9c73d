#include "protocol/Rules.h"

#include <fmt/format.h>

#include <iterator>

namespace kesa::commadapter::protocol {

namespace {

using Target = Rule::Target;

constexpr Rule RULES[] = {
    {},
    {"hello", true, true, false, Target::eNONE, true, false},
    {"attach", true, false, false, Target::ePATH, true, false},
    {"attached", false, true, false, Target::ePATH, false, false},
    {"detached", true, true, false, Target::ePATH, false, false},
    {"request", true, false, true, Target::ePATH, true, true},
    {"next", false, true, true, Target::eSTATUS, true, true},
    {"error", false, true, true, Target::eSTATUS, true, true},
    {"completed", false, true, true, Target::eNONE, false, false},
    {"cancel", true, false, true, Target::eNONE, false, false},
    {"ping", true, true, false, Target::eNONE, false, false},
    {"pong", true, true, false, Target::eNONE, false, false},
    {"goodbye", false, true, false, Target::eNONE, true, false},
    {"credit", true, false, true, Target::eBYTES, false, false},
    {"request credit", false, true, false, Target::eBYTES, false, false},
};

[[nodiscard]] bool breaksTargetRule(const FrameHeader& header, const Rule& rule, std::string& why)
{
    const std::uint32_t target = header.target;
    switch (rule.target) {
    case Target::eNONE:
        if (target != 0) {
            why = fmt::format("{} with target {}", rule.name, target);
        }
        break;
    case Target::ePATH:
        if (target == 0) {
            why = fmt::format("{} without a target", rule.name);
        }
        break;
    case Target::eSTATUS:
        if (target > UINT16_MAX) {
            why = fmt::format("{} with status {}", rule.name, target);
        }
        break;
    case Target::eBYTES:
        if (target == 0) {
            why = fmt::format("{} of no bytes", rule.name);
        }
        break;
    }
    return !why.empty();
}

} // namespace

const Rule& ruleOf(std::uint8_t kind) noexcept
{
    return RULES[kind < std::size(RULES) ? kind : 0];
}

bool breaksRule(const FrameHeader& header, const Rule& rule, bool fromServer, std::string& why)
{
    why.clear();
    if (fromServer ? !rule.fromServer : !rule.fromClient) {
        why = fmt::format("{} from a {}", rule.name, fromServer ? "server" : "client");
    } else if (rule.hasStream != (header.stream != 0)) {
        why = header.stream == 0 ? fmt::format("{} without a stream", rule.name)
                                 : fmt::format("{} with stream {}", rule.name, header.stream);
    } else if (breaksTargetRule(header, rule, why)) {
        return true;
    } else if (!rule.hasHead && header.head > 0) {
        why = fmt::format("{} with a head", rule.name);
    } else if (!rule.hasBody && header.body() > 0) {
        why = fmt::format("{} with a body", rule.name);
    } else if (!rule.hasBody && header.hasMore()) {
        why = fmt::format("{} in fragments", rule.name);
    }
    return !why.empty();
}

} // namespace kesa::commadapter::protocol
