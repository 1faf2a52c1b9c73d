#include "rules/findMisnamedTable.h"

#include <util/config/Dictionary.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace kesa::access {

using util::config::Complaint;
using util::config::DocumentPath;
using util::config::Value;

namespace {

bool isSaidElsewhere(const Value& action, const RuleForm& form)
{
    return action.isString() && std::find(form.actionsElsewhere.begin(), form.actionsElsewhere.end(),
                                          action.stringView()) != form.actionsElsewhere.end();
}

bool isRule(const Value& value, const RuleForm& form)
{
    constexpr std::array<std::string_view, 5> OTHER_MEMBERS = {"user", "group", "process", "paths", "resources"};
    const Value& may = value["may"];
    const bool isAny = may.isDefined() && std::any_of(OTHER_MEMBERS.begin(), OTHER_MEMBERS.end(),
                                                      [&](auto member) { return value[member].isDefined(); });
    const Value::Array& actions = may.items();
    const bool isOfOtherTable =
        (value["resources"].isDefined() && !form.hasResources) || isSaidElsewhere(may, form) ||
        (!actions.empty() && std::all_of(actions.begin(), actions.end(),
                                         [&](const Value& action) { return isSaidElsewhere(action, form); }));
    return isAny && !isOfOtherTable;
}

/// Also one without a list around it.
bool isTable(const Value& value, const RuleForm& form)
{
    const Value::Array& rules = value.items();
    return isRule(value, form) ||
           std::any_of(rules.begin(), rules.end(), [&](const Value& rule) { return isRule(rule, form); });
}

/// Where rules of any form are read.
bool isReadAt(const DocumentPath& place)
{
    return place == DocumentPath{"access"} || place == DocumentPath{"registry", "policy"};
}

std::optional<DocumentPath> findTable(const Value& root, const RuleForm& form)
{
    for (const auto& [key, value] : root.dictionary()) {
        if (isTable(value, form) && !isReadAt({key})) {
            return DocumentPath{key};
        }
        for (const auto& [inner, member] : value.dictionary()) {
            if (isTable(member, form) && !isReadAt({key, inner})) {
                return DocumentPath{key, inner};
            }
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<Complaint> findMisnamedTable(const Value& root, const DocumentPath& place, const RuleForm& form)
{
    Value table = root;
    for (const auto& step : place) {
        table = Value(table[std::get<std::string>(step)]);
    }
    auto found = table.isDefined() ? std::nullopt : findTable(root, form);
    if (!found) {
        return std::nullopt;
    }
    return Complaint{Complaint::Severity::eERROR, std::move(*found), "has rules, which nobody reads here",
                     fmt::format("did you mean '{}'?", util::config::toText(place))};
}

} // namespace kesa::access
