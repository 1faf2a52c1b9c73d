#include "rules/RuleForm.h"

#include <kesa/commands.h>

namespace kesa::access {

namespace {

const std::vector<std::string_view> COMMANDS = {commands::RETRIEVE, commands::UPDATE, commands::DELETE,
                                                commands::INSERT};

} // namespace

const RuleForm& accessForm()
{
    static const RuleForm& form =
        *new RuleForm{.action = "command",
                      .actions = COMMANDS,
                      .actionsElsewhere = {"register", "see"}, // the registry's policy
                      .mayBeOther = true,
                      .hasResources = true,
                      .example = R"({"user": "media", "may": ["retrieve", "update"], "paths": ["/media/**"]})"};
    return form;
}

const RuleForm& serviceForm()
{
    static const RuleForm& form = *new RuleForm{.action = "command",
                                                .actions = COMMANDS,
                                                .mayBeOther = true,
                                                .hasProcesses = false,
                                                .hasPaths = false,
                                                .hasResources = true,
                                                .example = R"({"user": "media", "may": "*", "resources": "/volume"})"};
    return form;
}

} // namespace kesa::access
