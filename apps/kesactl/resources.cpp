#include "resources.h"

#include "Answers.h"
#include "Failure.h"
#include "output.h"
#include "peerText.h"

#include <kesa/commands.h>
#include <kesa/ease/resources.h>
#include <kesa/headers.h>
#include <obr/ErrorStorage.h>
#include <rules/usersAndGroups.h>
#include <util/config/Dictionary.h>
#include <util/config/JSONParser.h>
#include <util/shellWord.h>

#include <fmt/format.h>

#include <unistd.h>

namespace kesactl {
namespace {

using util::config::Value;

constexpr std::string_view MEMBERS[] = {"resource", "command", "answers"}; ///< that each of the list has

[[noreturn]] void failSilent(const std::string& path, ExitCode code, const std::string& reason, int status = 0)
{
    const std::string advice = status == 403
                                   ? fmt::format("kesactl may {} call {} COMMAND says whether that command is answered",
                                                 kesa::access::userName(::geteuid()), util::shellWord(path))
                                   : fmt::format("kesactl call {} / asks the service itself", util::shellWord(path));
    throw Failure{code, fmt::format("{} does not say which resources it has: {}; {}", path, reason, advice), status};
}

bool isList(const Value& value)
{
    for (const Value& resource : value.items()) {
        for (const std::string_view member : MEMBERS) {
            if (!resource[member].isString()) {
                return false;
            }
        }
    }
    return value.isArray();
}

Value ask(const ServiceConnection::Client& client, const std::string& path, const CommonOptions& options,
          comm::TimeNs deadline)
{
    kesa::Request request(kesa::commands::RETRIEVE, std::string(kesa::resources::PATH));
    kesa::headers::appendTimeout(request, std::chrono::nanoseconds(deadline - comm::now()));
    Answers answers(client, request);
    const ReaderWatch reader([&answers] { answers.interrupt(); });
    const Answers::Answer answer = answers.next(deadline);
    const int status = static_cast<int>(answer.response.getStatus());
    if (answer.kind == Answers::Kind::eINTERRUPTED) {
        ReaderWatch::fail();
    }
    if (answer.kind == Answers::Kind::eTIMED_OUT || status == 504) {
        failSilent(path, ExitCode::eTIMED_OUT, fmt::format("no answer within {} s", options.timeoutSeconds));
    }
    if (answer.kind == Answers::Kind::eERROR) {
        failSilent(path, ExitCode::eFAILED, saidBy(answer.response), status);
    }
    if (answer.kind == Answers::Kind::eCOMPLETED) {
        failSilent(path, ExitCode::eFAILED, "it answers without content");
    }
    Value list;
    const bool failed = util::config::JSONParser().parseString(answer.response.getPayload().text(), list);
    obr::ErrorStorage::ack();
    if (failed || !isList(list)) {
        failSilent(path, ExitCode::eFAILED, fmt::format("its answer at {} is no such list", kesa::resources::PATH));
    }
    return list;
}

std::string asResourceTable(const Value& list)
{
    std::vector<std::vector<std::string>> rows{{"RESOURCE", "COMMAND", "ANSWERS", "TEXT"}};
    for (const Value& resource : list.items()) {
        rows.emplace_back();
        for (const std::string_view member : MEMBERS) {
            rows.back().emplace_back(resource[member].stringView());
        }
        const std::string_view text = resource["text"].stringView();
        rows.back().emplace_back(text.empty() ? "-" : text);
    }
    return aligned(std::move(rows));
}

std::string asResourceLines(const Value& list)
{
    std::string lines;
    for (const Value& resource : list.items()) {
        util::config::Dictionary others = resource.dictionary();
        std::string line = "{";
        for (const std::string_view member : MEMBERS) {
            line += fmt::format(R"({}"{}":{})", line.size() == 1 ? "" : ",", member,
                                asJsonString(resource[member].stringView()));
            others.erase(member);
        }
        const std::string rest = others.empty() ? "}" : "," + Value(others).toText().substr(1);
        lines += line + rest + '\n';
    }
    return lines;
}

} // namespace

void printResources(const ServiceConnection::Client& client, const std::string& path, const CommonOptions& options,
                    comm::TimeNs deadline)
{
    const Value list = ask(client, path, options, deadline);
    print(options.isJson ? asResourceLines(list) : fitted(asResourceTable(list)));
}

} // namespace kesactl
