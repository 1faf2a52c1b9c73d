#ifndef KESA_ACCESS_GATES_READACCESS_H
#define KESA_ACCESS_GATES_READACCESS_H

#include "gates/Table.h"

#include <obr/api.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kesa::access {

/// "access" of the document that this process reads.
struct ReadAccess {
    std::shared_ptr<Table> table; ///< null: there is none, all services are open
    std::string problem;          ///< why it closes all services
    std::vector<std::string> warnings;
};
KESA_API ReadAccess readAccess(std::int64_t ownUid);

/// The rules of a table that was found; what is wrong with them is added to `complaints`.
KESA_API std::vector<Rule> readAccessRules(const util::config::Value& list, const util::config::DocumentPath& place,
                                           std::vector<util::config::Complaint>& complaints);

} // namespace kesa::access

#endif
