#include "Verdict.h"

#include "ProcessReport.h"
#include "output.h"

#include <obr/visible.h>
#include <util/config/Dictionary.h>

#include <fmt/format.h>

namespace kesactl {

using obr::visible;

using util::config::Dictionary;
using util::config::Value;

std::string asLines(const std::string& path, const Verdict& verdict)
{
    std::string text = fmt::format("{}: {}\n  {}\n", visible(path), verdict.cause, visible(verdict.text));
    if (!verdict.advice.empty()) {
        text += fmt::format("  -> {}\n", visible(verdict.advice));
    }
    for (const std::string& note : verdict.notes) {
        text += fmt::format("  {}\n", visible(note));
    }
    return text;
}

std::string asJson(const std::string& path, const Verdict& verdict, const Value& explanation)
{
    Value::Array notes;
    for (const std::string& note : verdict.notes) {
        notes.emplace_back(note);
    }
    Dictionary line{{"path", path},         {"works", verdict.isGood()}, {"cause", verdict.cause},
                    {"text", verdict.text}, {"advice", verdict.advice},  {"notes", std::move(notes)}};
    if (explanation.isDefined()) {
        line.set("registry", explanation);
    }
    return asJsonLine(Value(std::move(line)).toText(), "the answer cannot be shown as JSON") + '\n';
}

std::int64_t integerOf(const Value& value)
{
    std::int64_t number = 0;
    static_cast<void>(value.get(number));
    return number;
}

std::string timeText(const Value& milliseconds)
{
    return asLocalTime(timeOf(milliseconds));
}

std::string whoText(const Value& who)
{
    const std::string name = who["provider"].toText();
    return !who["pid"].isInteger() ? name
           : name.empty()          ? fmt::format("process {}", integerOf(who["pid"]))
                                   : fmt::format("{} (process {})", name, integerOf(who["pid"]));
}

std::string eventText(const Value& event)
{
    const std::string time = timeText(event["when"]);
    const std::string who = whoText(event);
    const std::string_view what = event["what"].stringView();
    const std::string reason = event["reason"].isDefined() ? ": " + event["reason"].toText() : std::string();
    return fmt::format("{}: {} {}{}", time, who,
                       what == "refused"     ? "was refused it"
                       : what == "withdrawn" ? "withdrew it"
                       : what == "forbidden" ? "was forbidden it"
                                             : "was lost",
                       reason);
}

} // namespace kesactl
