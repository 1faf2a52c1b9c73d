#ifndef KESA_ACCESS_RULES_FINDMISNAMEDTABLE_H
#define KESA_ACCESS_RULES_FINDMISNAMEDTABLE_H

#include "rules/RuleForm.h"

#include <obr/api.h>
#include <util/config/Complaint.h>
#include <util/config/Value.h>

#include <optional>

namespace kesa::access {

/// Rules of this form that stand under another key than `place`, where there is no table: nobody would read them, and
/// all would be open that they were to close. They are looked for in `root`, the configuration, and in its objects.
/// What is taken for one is decided by what it holds, whatever it and its members are called; beside `place`, objects
/// of nearly the same name are some whatever they hold.
KESA_API std::optional<util::config::Complaint>
findMisnamedTable(const util::config::Value& root, const util::config::DocumentPath& place, const RuleForm& form);

} // namespace kesa::access

#endif
