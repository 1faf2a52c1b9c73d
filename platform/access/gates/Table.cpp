#include "gates/Table.h"

#include <obr/visible.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace kesa::access {

namespace {

constexpr std::array<std::string_view, 2> ALWAYS_OPEN = {"/registry", "/.well-known/process"};

/// Of services, and of identities with one.
constexpr std::size_t MOST_KNOWN = 4096;

/// Of services in one trace.
constexpr std::size_t MOST_SAID = 10;

bool isAlwaysOpen(const std::string& service)
{
    return std::find(ALWAYS_OPEN.begin(), ALWAYS_OPEN.end(), service) != ALWAYS_OPEN.end();
}

bool matchesAny(const std::vector<Rule::Glob>& globs, const std::string& path)
{
    return std::any_of(globs.begin(), globs.end(), [&path](const Rule::Glob& glob) { return glob.second.match(path); });
}

} // namespace

Table::Table(std::int64_t ownUid, std::vector<Rule> rules, std::string name, const IAccounts& accounts)
    : m_ownUid(ownUid), m_rules(std::move(rules)), m_name(std::move(name)), m_names(&accounts)
{
    for (std::size_t i = 0; i < m_rules.size(); ++i) {
        m_asksForProcess = m_asksForProcess || m_rules[i].processes.has_value();
        if (!m_rules[i].paths.empty()) {
            m_idle.push_back(i);
        }
    }
}

Table::Table(std::int64_t ownUid, std::string problem, const IAccounts& accounts)
    : m_ownUid(ownUid), m_problem(std::move(problem)), m_names(&accounts)
{}

bool Table::isTrusted(const Identity& identity) const noexcept
{
    return identity.uid == 0 || (identity.uid >= 0 && identity.uid == m_ownUid);
}

bool Table::noteService(const std::string& path)
{
    if (!m_idle.empty() && m_atNoRule.size() < MOST_SAID && rulesFor(path).empty()) {
        m_atNoRule.insert(path);
    }
    std::erase_if(m_idle, [&](std::size_t number) { return matchesAny(m_rules[number].paths, path); });
    return !m_idle.empty();
}

std::string Table::takeIdleRules()
{
    const Numbers idle = std::exchange(m_idle, {});
    const std::set<std::string> open = std::exchange(m_atNoRule, {});
    if (idle.empty()) {
        return {};
    }
    std::string text = fmt::format(
        "{} of {} {} no service that this process provides so far: \"paths\" are those of services, and what is inside "
        "of one stands in \"resources\"",
        placesOf(m_rules, idle), m_name, idle.size() == 1 ? "fits" : "fit");
    for (const std::string& path : open) {
        text.append(path == *open.begin() ? "; at no rule, and so open to everybody: " : ", ")
            .append(obr::glimpse(path));
    }
    return text;
}

const Table::Numbers& Table::rulesFor(const std::string& service)
{
    if (m_ofServices.size() >= MOST_KNOWN) {
        m_ofServices.clear();
    }
    const auto [known, isNew] = m_ofServices.try_emplace(service);
    for (std::size_t i = 0; isNew && i < m_rules.size(); ++i) {
        if (m_rules[i].paths.empty() || matchesAny(m_rules[i].paths, service)) {
            known->second.push_back(i);
        }
    }
    return known->second;
}

Table::Numbers Table::ofThose(const Numbers& numbers, const Identity& identity) const
{
    Numbers fitting;
    std::copy_if(numbers.begin(), numbers.end(), std::back_inserter(fitting),
                 [&](std::size_t number) { return m_rules[number].fits(identity); });
    return fitting;
}

Table::Known& Table::know(const Identity& identity, const std::string& service)
{
    if (m_known.size() >= MOST_KNOWN) { // they are found again
        m_known.clear();
        std::erase_if(m_gates, [](const auto& each) { return each.second.expired(); });
    }
    const auto [known, isNew] = m_known.try_emplace({identity, service});
    if (isNew) {
        const Numbers fitting = ofThose(rulesFor(service), identity);
        std::weak_ptr<Gate>& shared = m_gates[fitting];
        known->second.gate = shared.lock();
        if (!known->second.gate) {
            known->second.gate = std::make_shared<Gate>(m_rules, fitting);
            shared = known->second.gate;
        }
    }
    return known->second;
}

GatePtr Table::gateOf(const Identity& identity, const std::string& service)
{
    if (isTrusted(identity) || isAlwaysOpen(service) || (m_problem.empty() && rulesFor(service).empty())) {
        return nullptr;
    }
    return know(identity, service).gate;
}

/// What the rules of a service are for that refuse somebody; his own ones, where there are any.
std::string Table::whichOthers(const Numbers& all, const Identity& identity) const
{
    const Numbers fitting = ofThose(all, identity);
    Numbers ofProcesses;
    std::copy_if(all.begin(), all.end(), std::back_inserter(ofProcesses), [&](std::size_t number) {
        return m_rules[number].fitsUser(identity) && !m_rules[number].fits(identity);
    });
    const std::string byCommand = areFor(m_rules, fitting, "other commands or resources");
    const std::string byProcess = areFor(m_rules, ofProcesses, otherProcesses(identity));
    return byCommand.empty() && byProcess.empty()
               ? areFor(m_rules, all, "others")
               : byCommand + (byCommand.empty() || byProcess.empty() ? "" : "; ") + byProcess;
}

std::string Table::whyRefused(const Identity& identity, const Question& question)
{
    if (!m_problem.empty()) {
        return fmt::format("{}{}", CLOSED, m_problem);
    }
    Known& known = know(identity, question.service);
    if (known.who.empty()) {
        const Numbers& all = rulesFor(question.service);
        known.isProcessAsked = std::any_of(
            all.begin(), all.end(), [this](std::size_t number) { return m_rules[number].processes.has_value(); });
        known.who = m_names.describe(identity);
        known.others = whichOthers(all, identity);
    }
    std::string what = obr::glimpse(question.command);
    if (question.resource) {
        what.append(fmt::format(" \"{}\"{}", obr::glimpse(*question.resource), question.service.empty() ? "" : " of"));
    }
    if (!question.service.empty()) {
        what.append(fmt::format(" \"{}\"", obr::glimpse(question.service)));
    }
    const bool isUnproven = known.isProcessAsked && identity.process.empty() && !question.claimedName.empty();
    return fmt::format(
        "no rule of {} lets {} {}: {}{}", m_name, known.who, what, known.others,
        isUnproven ? fmt::format("; that it is process {} is not proven", obr::glimpse(question.claimedName)) : "");
}

Table::Verdict Table::judge(const Identity& identity, const Question& question)
{
    if (isTrusted(identity)) {
        return {true, "root and the process's own user may everything"};
    }
    if (isAlwaysOpen(question.service)) {
        return {true, "everybody may: by this service processes find each other"};
    }
    if (!m_problem.empty()) {
        return {false, whyRefused(identity, question)};
    }
    const Numbers& numbers = rulesFor(question.service);
    if (numbers.empty()) {
        return {true, fmt::format("no rule of {} is for this service: it is open to all", m_name)};
    }
    const std::string resource = question.resource ? resourcePath(*question.resource) : std::string();
    constexpr std::size_t ENOUGH = 1000;
    std::string some; // rules that let him in at some resources, where none is named
    for (const std::size_t number : numbers) {
        const Rule& rule = m_rules[number];
        if (!rule.fits(identity) || !rule.lets(question.command)) {
            continue;
        }
        const std::string because = fmt::format("{}: {} {}", placeOf(m_rules, number), rule.who, rule.what);
        if (rule.resources.empty() || (!resource.empty() && matchesAny(rule.resources, resource))) {
            return {true, because};
        }
        if (!question.resource && some.size() < ENOUGH) {
            some.append(some.empty() ? "at some of its resources only: " : "; ").append(because);
        }
    }
    return some.empty() ? Verdict{false, whyRefused(identity, question)} : Verdict{true, some};
}

} // namespace kesa::access
