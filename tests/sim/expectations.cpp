// What has to be true of everybody's belief once nothing moves any more.

#include "World.h"

#include <kesa/PathPatterns.h>

#include <algorithm>

namespace kesa::sim {

namespace {

std::string colourAsked(const serviceregistry::Query& query)
{
    return query.metadata ? std::string((*query.metadata)["colour"].stringView()) : std::string();
}

} // namespace

void World::settle()
{
    for (auto& process : m_processes) {
        resume(*process);
    }
    handleFeeds();
    auto lock = runUntil(30 * comm::SECOND, [this] { return differences().empty(); });
    for (const std::string& difference : differences()) {
        m_verdict->fail("everybody believes what is true", difference);
    }
    checkRefusals();
    lock.unlock();
    if (!m_verdict->failed()) {
        askAll();
    }
}

/// Simulated, lets so much time pass. Threads come to what is true by themselves; a minute without it is reported.
/// Returns with the verdict's mutex held.
std::unique_lock<std::mutex> World::runUntil(comm::TimeNs simulated, const std::function<bool()>& isTrue)
{
    if (m_scheduler) {
        m_scheduler->runFor(simulated);
    }
    std::unique_lock<std::mutex> lock(m_verdict->mutex);
    if (!m_scheduler) {
        comm::waitFor(m_verdict->changed, lock, isTrue, comm::now() + 60 * comm::SECOND);
    }
    return lock;
}

std::vector<std::string> World::differences()
{
    std::vector<std::string> found;
    if (hasRegistry()) {
        found = registryDifferences();
    }
    for (std::string& difference : callDifferences()) {
        found.push_back(std::move(difference));
    }
    for (const auto& process : m_processes) {
        for (const auto& subscription : process->subscriptions) {
            std::string difference = differenceOf(*process, subscription);
            if (!difference.empty()) {
                found.push_back(subscription.belief->name + ": " + difference);
            }
        }
    }
    return found;
}

/// The registry lists what is provided, by whom, and nothing else.
std::vector<std::string> World::registryDifferences()
{
    std::vector<std::string> found;
    std::map<std::string, std::string> listed;
    for (const auto& [path, isPresent] : registry().list->present) {
        if (isPresent) {
            listed.emplace(path, registry().list->claims.at(path));
        }
    }
    if (listed.erase(REGISTRY_PATH) == 0) {
        found.emplace_back("the registry does not list itself");
    }
    auto unknown = listed;
    for (const auto& process : m_processes) {
        for (const Registration& registration : process->registrations) {
            if (!registration.belief->isInForce()) {
                continue;
            }
            const auto record = listed.find(registration.path);
            if (record != listed.end() && record->second == registration.belief->claim) {
                unknown.erase(registration.path);
            } else if (record == listed.end() || !process->isRegistry) {
                found.push_back(registration.belief->name + ": is not listed by the registry");
            }
        }
    }
    for (const auto& [path, claim] : unknown) {
        found.push_back("the registry lists " + path + " as registered by #" + claim + ", which is gone");
    }
    return found;
}

/// What the process is to know of: everything that the registry lists, and what it has registered itself.
World::Truth World::truthOf(const Process& process)
{
    Truth truth;
    if (hasRegistry() && !process.isRegistry) {
        for (const auto& [path, isPresent] : registry().list->present) {
            if (isPresent) {
                const std::string& claim = registry().list->claims.at(path);
                const auto claimed = std::find_if(m_claims.begin(), m_claims.end(),
                                                  [&claim](const Claim& each) { return each.belief->claim == claim; });
                truth.emplace(path, claimed == m_claims.end() ? nullptr : claimed->belief);
            }
        }
        return truth;
    }
    if (process.isRegistry) {
        truth.emplace(REGISTRY_PATH, nullptr);
    }
    for (const Registration& registration : process.registrations) {
        if (registration.belief->isInForce()) {
            truth.emplace(registration.path, registration.belief);
        }
    }
    return truth;
}

World::Truth World::expectedOf(const Process& process, const Subscription& subscription)
{
    const std::string& target = subscription.target;
    const Truth truth = truthOf(process);
    const auto found = truth.find(target);
    const bool isConfigured = !hasRegistry() && isStatic(target);
    Truth expected;
    const auto expectFrom = [&](const std::string& owner, const std::string& path) {
        if (const auto service = provided(owner, path)) {
            expected.emplace("", service);
        }
    };
    switch (subscription.kind) {
    case Stream::eTRACK:
        if (isConfigured && ownerOf(target) != process.name) {
            expected.emplace(target, nullptr);
        } else if (found != truth.end()) {
            expected.insert(*found);
        }
        break;
    case Stream::eRESOLVE: {
        const url locator(target);
        expectFrom(std::string(locator.authority()), std::string(locator.path()));
        break;
    }
    case Stream::eTRACK_RESOLVE:
        if (isConfigured) {
            expectFrom(ownerOf(target), target);
        } else if (found != truth.end()) {
            expected.emplace("", found->second);
        }
        break;
    case Stream::eQUERY:
    case Stream::eQUERY_RESOLVE: {
        const auto patterns = PathPatterns::createFromGlob(target);
        const std::string colour = colourAsked(subscription.query);
        for (const auto& [path, service] : truth) {
            if (patterns && patterns->match(path) && (colour.empty() || (service && service->colour == colour))) {
                expected.emplace(path, service);
            }
        }
        break;
    }
    }
    return expected;
}

std::string World::endOf(const Process&, const Subscription& subscription) const
{
    const Belief& belief = *subscription.belief;
    const bool malformed = subscription.target == MALFORMED_PATTERN;
    const bool unreachable = subscription.target.compare(0, 6, "tcp://") == 0;
    if (belief.terminal) {
        const unsigned short expected = malformed ? 400 : unreachable || m_isRefusing ? 404 : 0;
        return belief.error == expected ? "" : "ended with " + std::to_string(belief.error);
    }
    if (subscription.disposed) {
        return belief.destroyed ? "" : "disposed and still there";
    }
    if (belief.destroyed) {
        return "was ended by nobody";
    }
    return malformed || unreachable ? "has not ended" : "";
}

std::string World::differenceOf(const Process& process, const Subscription& subscription)
{
    std::string end = endOf(process, subscription);
    if (!end.empty() || subscription.disposed || subscription.belief->terminal) {
        return end;
    }
    return shownBy(subscription, expectedOf(process, subscription));
}

std::string World::shownBy(const Subscription& subscription, const Truth& expected) const
{
    const Belief& belief = *subscription.belief;
    // A record gets its id after it was shown: who asks for records without one may have been shown it or not.
    const bool isLoose = subscription.query.metadata && (*subscription.query.metadata)["id"].isDefined();
    for (const auto& [path, isPresent] : belief.present) {
        const auto truth = expected.find(path);
        if (isPresent && truth == expected.end()) {
            return path + " is shown and is gone";
        }
        if (!isPresent && truth != expected.end() && !isLoose) {
            return path + " is there and is not shown";
        }
        const auto shown = belief.claims.find(path);
        if (isPresent && hasRegistry() && truth->second && shown != belief.claims.end() &&
            shown->second != truth->second->claim) {
            return path + " is shown as #" + shown->second + ", and is #" + truth->second->claim;
        }
    }
    for (const auto& [path, service] : expected) {
        if (belief.present.count(path) == 0 && !isLoose) {
            return path + " is there and was never shown";
        }
    }
    return "";
}

/// The registration of that path that is in force in the process.
std::shared_ptr<Belief> World::registered(const Process& process, const std::string& path)
{
    const auto found = std::find_if(process.registrations.begin(), process.registrations.end(),
                                    [&path](const Registration& registration) {
                                        return registration.path == path && registration.belief->isInForce();
                                    });
    return found == process.registrations.end() ? nullptr : found->belief;
}

std::shared_ptr<Belief> World::provided(const std::string& name, const std::string& path) const
{
    for (const auto& process : m_processes) {
        if (process->name == name && process->runtime) {
            return registered(*process, path);
        }
    }
    return nullptr;
}

/// Every client object leads to the present service.
void World::askAll()
{
    struct Question {
        std::shared_ptr<Belief> expected;
        std::shared_ptr<Belief> answer;
    };
    std::vector<Question> questions;
    for (auto& process : m_processes) {
        for (const Subscription& subscription : process->subscriptions) {
            std::unique_lock<std::mutex> lock(m_verdict->mutex);
            const Truth expected = expectedOf(*process, subscription);
            auto clients = subscription.belief->clients;
            if (subscription.belief->client) {
                clients.emplace("", subscription.belief->client);
            }
            lock.unlock();
            for (const auto& [path, client] : clients) {
                const auto found = expected.find(path);
                if (found != expected.end() && found->second) {
                    questions.push_back({found->second, issue(*process, client, Wish::of(Wish::WHO)).call->belief()});
                }
            }
        }
    }
    const auto isAnswered = [&questions] {
        return std::all_of(questions.begin(), questions.end(),
                           [](const Question& question) { return question.answer->terminal; });
    };
    const auto lock = runUntil(5 * comm::SECOND, isAnswered);
    for (const Question& question : questions) {
        // With real threads a connection that was cut may not have been noticed before it was used.
        const bool isLate = !m_scheduler && question.answer->error == 503;
        if (question.answer->answer != question.expected->claim && !isLate) {
            m_verdict->fail("a client object leads to the present service",
                            question.answer->name + ": expected #" + question.expected->claim + ", answered by #" +
                                question.answer->answer + ", status " + std::to_string(question.answer->error));
        }
    }
}

} // namespace kesa::sim
