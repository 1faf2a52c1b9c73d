#include "rules/RuleForm.h"

#include "rules/Rule.h"

#include <kesa/commands.h>

namespace kesa::access {

namespace {

const std::vector<std::string_view> COMMANDS = {commands::RETRIEVE, commands::UPDATE, commands::DELETE,
                                                commands::INSERT};

// Of the registry's policy.
const std::vector<std::string_view> RIGHTS = {"register", "see"};
constexpr std::string_view POLICY =
    R"(who may register and see a service is said in "registry", "policy", of the registry's document)";

std::vector<std::string_view> commandsAndAnything()
{
    std::vector<std::string_view> all = COMMANDS;
    all.emplace_back(Rule::ANYTHING);
    return all;
}

} // namespace

const RuleForm& accessForm()
{
    static const RuleForm& form =
        *new RuleForm{.name = "\"access\"",
                      .action = "command",
                      .actions = COMMANDS,
                      .actionsElsewhere = RIGHTS,
                      .elsewhere = POLICY,
                      .mayBeOther = true,
                      .hasResources = true,
                      .example = R"({"user": "media", "may": ["retrieve", "update"], "paths": ["/media/**"]})"};
    return form;
}

const RuleForm& policyForm()
{
    static const RuleForm& form =
        *new RuleForm{.name = R"("registry", "policy")",
                      .action = "right",
                      .actions = RIGHTS,
                      .actionsElsewhere = commandsAndAnything(),
                      .elsewhere = R"(what may be asked of a service is said in "access" of its provider's document)",
                      .mostDocumentBytes = MOST_POLICY_BYTES,
                      .example = R"({"user": "media", "may": ["register", "see"], "paths": ["/media/**"]})"};
    return form;
}

const RuleForm& serviceForm()
{
    static const RuleForm& form = *new RuleForm{.name = "a service",
                                                .action = "command",
                                                .actions = COMMANDS,
                                                .actionsElsewhere = RIGHTS,
                                                .elsewhere = POLICY,
                                                .mayBeOther = true,
                                                .hasProcesses = false,
                                                .hasPaths = false,
                                                .hasResources = true,
                                                .example = R"({"user": "media", "may": "*", "resources": "/volume"})"};
    return form;
}

} // namespace kesa::access
