#include "DoctorPage.h"

#include <fmt/format.h>
#include <obr/visible.h>

#include <algorithm>
#include <utility>

namespace kesactl {

using obr::visible;

using util::config::Dictionary;
using util::config::Value;

void DoctorPage::addLine(std::string_view name, std::string_view value)
{
    text +=
        value.empty() ? fmt::format("{}\n", visible(name)) : fmt::format("{:<17} {}\n", visible(name), visible(value));
}

void DoctorPage::add(std::string_view name, const std::string& value)
{
    addLine(name, value);
    std::string key(name);
    std::replace(key.begin(), key.end(), ' ', '_');
    facts.set(key, value);
}

void DoctorPage::find(std::vector<std::string>& kind, std::string_view whatMore)
{
    const std::size_t size = kind.size();
    kind.resize(std::min(size, MOST));
    findings.insert(findings.end(), kind.begin(), kind.end());
    if (size > MOST) {
        findings.push_back(fmt::format("{} more {}", size - MOST, whatMore));
    }
}

std::string DoctorPage::asText() const
{
    std::string whole = text + (findings.empty() ? "nothing is wrong\n" : "\n");
    for (std::size_t i = 0; i < findings.size(); ++i) {
        whole += fmt::format("{}. {}\n", i + 1, visible(findings[i]));
    }
    return whole;
}

std::string DoctorPage::asJson() const
{
    Value::Array sentences;
    for (const std::string& finding : findings) {
        sentences.emplace_back(finding);
    }
    const Value whole(Dictionary{{"findings", std::move(sentences)}, {"facts", facts}});
    return whole.toText() + '\n';
}

} // namespace kesactl
