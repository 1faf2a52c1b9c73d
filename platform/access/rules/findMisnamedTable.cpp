#include "rules/findMisnamedTable.h"

#include <util/config/Dictionary.h>
#include <util/nearestName.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

namespace kesa::access {

using util::config::Complaint;
using util::config::DocumentPath;
using util::config::Value;

namespace {

bool isOneOf(const Value& text, const std::vector<std::string_view>& texts)
{
    return text.isString() && std::find(texts.begin(), texts.end(), text.stringView()) != texts.end();
}

/// A text, or a list of some, that are all so.
template <class Is>
bool areAll(const Value& texts, const Is& is)
{
    const Value::Array& items = texts.items();
    return items.empty() ? texts.isString() && is(texts) : std::all_of(items.begin(), items.end(), is);
}

bool hasRuleKeys(const Value& value, const RuleForm& form)
{
    constexpr std::array<std::string_view, 5> OTHER_MEMBERS = {"user", "group", "process", "paths", "resources"};
    const Value& may = value["may"];
    const bool isAny = may.isDefined() && std::any_of(OTHER_MEMBERS.begin(), OTHER_MEMBERS.end(),
                                                      [&](auto member) { return value[member].isDefined(); });
    const bool isOfOtherTable =
        (value["resources"].isDefined() && !form.hasResources) ||
        areAll(may, [&form](const Value& action) { return isOneOf(action, form.actionsElsewhere); });
    return isAny && !isOfOtherTable;
}

/// What its members hold tells a rule whose keys are all wrong.
bool hasRuleValues(const Value& value, const RuleForm& form)
{
    bool saysWhat = false;
    bool saysWhere = false;
    for (const auto& [key, member] : value.dictionary()) {
        saysWhat = saysWhat || areAll(member, [&form](const Value& action) { return isOneOf(action, form.actions); });
        saysWhere = saysWhere || areAll(member, [](const Value& glob) {
                        return glob.isString() && (glob.stringView().starts_with('/') || glob.stringView() == "**");
                    });
    }
    return saysWhat && saysWhere;
}

bool isRule(const Value& value, const RuleForm& form)
{
    return hasRuleKeys(value, form) || hasRuleValues(value, form);
}

/// Also one without a list around it.
bool isTable(const Value& value, const RuleForm& form)
{
    const Value::Array& rules = value.items();
    return isRule(value, form) ||
           std::any_of(rules.begin(), rules.end(), [&](const Value& rule) { return isRule(rule, form); });
}

/// Objects under nearly the same name, whatever they hold.
bool isNamedLike(std::string_view key, const Value& value, const DocumentPath& place)
{
    const auto isObject = [](const Value& rule) { return !rule.dictionary().empty(); };
    const Value::Array& rules = value.items();
    return (isObject(value) || std::any_of(rules.begin(), rules.end(), isObject)) &&
           !util::nearestName(key, {std::get<std::string>(place.back())}).empty();
}

/// Where rules of any form are read.
bool isReadAt(const DocumentPath& place)
{
    return place == DocumentPath{"access"} || place == DocumentPath{"registry", "policy"};
}

std::optional<DocumentPath> findTable(const Value& root, const DocumentPath& place, const RuleForm& form)
{
    for (const auto& [key, value] : root.dictionary()) {
        if ((isTable(value, form) || isNamedLike(key, value, place)) && !isReadAt({key})) {
            return DocumentPath{key};
        }
        for (const auto& [inner, member] : value.dictionary()) {
            const bool isBeside = place.size() == 2 && DocumentPath{key} == DocumentPath{place.front()};
            if ((isTable(member, form) || (isBeside && isNamedLike(inner, member, place))) && !isReadAt({key, inner})) {
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
    auto found = table.isDefined() ? std::nullopt : findTable(root, place, form);
    if (!found) {
        return std::nullopt;
    }
    return Complaint{Complaint::Severity::eERROR, std::move(*found), "has rules, which nobody reads here",
                     fmt::format("did you mean '{}'?", util::config::toText(place))};
}

} // namespace kesa::access
