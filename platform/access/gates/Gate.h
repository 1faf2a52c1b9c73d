#ifndef KESA_ACCESS_GATES_GATE_H
#define KESA_ACCESS_GATES_GATE_H

#include "rules/Rule.h"

#include <globs/PatternTrie.h>
#include <obr/api.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::access {

/// What somebody may ask of one service: the rules that concern both, so that others cost nothing. Not for several
/// threads at once.
class KESA_API Gate {
public:
    Gate(const std::vector<Rule>& rules, const std::vector<std::size_t>& concerning);

    /// `resource` is the path inside of the service, as the request has it.
    bool lets(std::string_view command, std::string_view resource);

private:
    struct Resources {
        bool isAll = false;
        PatternTrie globs;
    };

    std::map<std::string, Resources, std::less<>> m_ofCommands;
    std::vector<PatternTrie::Id> m_matching; ///< only inside `lets`
};
using GatePtr = std::shared_ptr<Gate>;

/// A resource as globs see it: with a '/' at its beginning and none at its end. Empty for one that could be taken for
/// another one, as by "..": only rules for all resources are for it.
KESA_API std::string resourcePath(std::string_view resource);

} // namespace kesa::access

#endif
