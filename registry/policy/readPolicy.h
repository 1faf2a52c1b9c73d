#ifndef KESA_REGISTRY_POLICY_READPOLICY_H
#define KESA_REGISTRY_POLICY_READPOLICY_H

#include "policy/Policy.h"

#include <memory>
#include <string>
#include <vector>

namespace kesa::registry {

/// The policy of the document that this process reads, as it is now.
struct ReadPolicy {
    std::shared_ptr<Policy> policy; ///< null: it does not count, `problem` says why
    std::string file;               ///< of the document; empty: there is none
    std::string problem;
    std::vector<std::string> warnings;
};
ReadPolicy readPolicy(std::int64_t ownUid);

} // namespace kesa::registry

#endif
