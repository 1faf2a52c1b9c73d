#ifndef KESA_COMMADAPTER_PROTOCOL_RULES_H
#define KESA_COMMADAPTER_PROTOCOL_RULES_H

#include "protocol/Frame.h"

#include <cstdint>
#include <string>

namespace kesa::commadapter::protocol {

/// What a frame of one kind may look like.
struct Rule {
    enum class Target : std::uint8_t { eNONE, ePATH, eSTATUS, eBYTES };

    const char* name = nullptr; ///< null: the kind is unknown
    bool fromClient = false;
    bool fromServer = false;
    bool hasStream = false;
    Target target = Target::eNONE;
    bool hasHead = false;
    bool hasBody = false; ///< then it may also travel in fragments
};

const Rule& ruleOf(std::uint8_t kind) noexcept;

/// Checks a header on its own, of a known kind. True: it breaks a rule, `why` says which.
[[nodiscard]] bool breaksRule(const FrameHeader& header, const Rule& rule, bool fromServer, std::string& why);

} // namespace kesa::commadapter::protocol

#endif
