// Each process is asked over one connection, while another one finds out whether it can be asked at all: it is that one
// which ends the waiting for a process of another version, another program, or one that does not say what it is.
#include "askProcesses.h"

#include "descriptors.h"
#include "peerText.h"
#include "waitAwake.h"

#include <backend/ProcessService.h>
#include <comm/Condition.h>
#include <comm/wallClock.h>
#include <kesa/IClientConnectionListener.h>
#include <kesa/commadapter/createBackend.h>
#include <kesa/commadapter/whyUnreachable.h>
#include <kesa/ease/handler.h>
#include <obr/ErrorStorage.h>
#include <util/config/Dictionary.h>
#include <util/config/JSONParser.h>

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <utility>

namespace kesactl {
namespace {

using kesa::Response;
using kesa::commadapter::IBackend;
using kesa::commadapter::KesaClientApi;
using kesa::commadapter::ProcessService;
using kesa::commadapter::Unreachable;
using util::config::Dictionary;
using util::config::Value;

/// What the asked processes have in common.
struct Replies {
    std::mutex mutex; ///< of the replies too: the loop gives them, the main thread waits
    comm::Condition changed;
    std::size_t open = 0; ///< with the mutex held
};

/// By so much a wait of this process ends late only when it was stopped.
constexpr comm::TimeNs STOOD_STILL = 100 * comm::MILLISECOND;

constexpr std::string_view PROBE = "probe"; ///< how the other connection calls this process

/// One process that is asked. It is asked again when the connection is lost before it has answered. Lives until the
/// backend has been stopped.
class Question final : public kesa::IClientConnectionListener {
public:
    Question(IBackend& backend, kesa::url locator, std::shared_ptr<Replies> answers)
        : m_answers(std::move(answers)), m_locator(std::move(locator)), m_api(backend.connect(m_locator, this))
    {
        if (m_api) {
            ++m_answers->open;
        }
    }
    void start()
    {
        if (m_api) {
            m_api->startConnect();
        }
    }
    bool hasEnded() const
    {
        const std::lock_guard lock(m_answers->mutex);
        return m_hasEnded;
    }
    const kesa::url& locator() const noexcept { return m_locator; }
    /// What came; empty when that was no value.
    std::string text() const
    {
        const std::lock_guard lock(m_answers->mutex);
        return m_text;
    }
    comm::TimeNs after() const
    {
        const std::lock_guard lock(m_answers->mutex);
        return m_after;
    }
    Unreachable found() const
    {
        const std::lock_guard lock(m_answers->mutex);
        return m_found;
    }
    /// What the other connection has found.
    void probed(Unreachable found)
    {
        using Cause = Unreachable::Cause;
        const bool mayAnswer = found.cause == Cause::eNONE || found.cause == Cause::eSILENT;
        {
            const std::lock_guard lock(m_answers->mutex);
            m_found = std::move(found);
        }
        if (!mayAnswer) {
            end({});
        }
    }

private:
    void end(std::string text)
    {
        const std::lock_guard lock(m_answers->mutex);
        if (!std::exchange(m_hasEnded, true)) {
            m_after = comm::now() - m_begin;
            m_text = std::move(text);
            --m_answers->open;
            m_answers->changed.notifyAll();
        }
    }

    void clientConnected() override
    {
        m_api->request(
            kesa::Request("retrieve", "/"),
            kesa::handler<Response>([this](const Response& value) { end(std::string(value.getPayload().text())); },
                                    [this](const Response& error) {
                                        if (error.getStatus() != 503) { // which is of the connection
                                            end({});
                                        }
                                    }));
    }
    void clientDisconnected() override {}
    void clientError(unsigned short /*code*/, const std::string& /*message*/) override {}

    const std::shared_ptr<Replies> m_answers;
    const kesa::url m_locator;
    const comm::TimeNs m_begin = comm::now();
    const std::unique_ptr<KesaClientApi> m_api; ///< null when the name is none
    // With the mutex held.
    bool m_hasEnded = false;
    comm::TimeNs m_after = 0;
    std::string m_text;
    Unreachable m_found;
};

Value parse(const std::string& text)
{
    Value value;
    if (util::config::JSONParser().parseString(text, value)) {
        obr::ErrorStorage::ack();
        return {};
    }
    return value.isDictionary() && value["process"].isString() ? withShortTexts(value) : Value();
}

/// The process without the connections of this one, which are there only for the question. One made since `begin` that
/// has not said its name yet is of this one, too. `begin`: on the wall clock.
Value withoutOwn(const Value& answer, const std::string& ownName, comm::TimeNs begin)
{
    const auto isOwn = [&ownName, begin](const Value& connection) {
        const std::string_view name = connection["process"].stringView();
        std::int64_t since = 0;
        return name == ownName || (name == PROBE && connection["pid"] == Value(std::int64_t{::getpid()})) ||
               (name.empty() && !connection["since"].get(since) && since >= begin / comm::MILLISECOND);
    };
    Value::Array others;
    for (const Value& connection : answer["connections"].items()) {
        if (!isOwn(connection)) {
            others.push_back(connection);
        }
    }
    std::uint64_t all = answer["connections"].arraySize();
    const std::uint64_t own = all - others.size();
    static_cast<void>(answer["connectionCount"].get(all)); // also where not all are named
    Dictionary edited = answer.dictionary();
    edited.set("connections", Value(std::move(others)));
    edited.set("connectionCount", all - own);
    return Value(std::move(edited));
}

/// Of one that has not answered.
Unreached explain(const Question& question)
{
    using Cause = Unreachable::Cause;
    Unreachable found = question.found();
    if (found.cause == Cause::eNONE && question.hasEnded()) {
        found.cause = Cause::eNOT_PROVIDED;
        found.reason = "it has another service where processes say what they are";
    } else if (found.cause == Cause::eNONE) {
        found.cause = Cause::eSILENT;
        found.reason = "it has not answered in time";
    }
    return kesactl::explain(question.locator(), found);
}

std::map<std::string, Said> askAtOnce(const std::vector<std::string>& names, comm::TimeNs deadline)
{
    const comm::TimeNs begin = comm::wallClock();
    const comm::TimeNs within = std::max<comm::TimeNs>(deadline - comm::now(), 0);
    const std::string ownName = "kesactl-" + std::to_string(::getpid());
    const auto backend = kesa::commadapter::createBackend(ownName, "");
    backend->start();
    const auto answers = std::make_shared<Replies>();
    std::vector<std::unique_ptr<Question>> questions;
    std::vector<kesa::url> locators;
    for (const std::string& name : names) {
        locators.emplace_back("ipc://" + name + std::string(ProcessService::PATH));
        questions.push_back(std::make_unique<Question>(*backend, locators.back(), answers));
    }
    for (const auto& question : questions) {
        question->start();
    }
    kesa::commadapter::whyUnreachable(locators, within, [&questions](std::size_t number, Unreachable found) {
        questions[number]->probed(std::move(found));
    });
    {
        std::unique_lock lock(answers->mutex);
        if (const comm::TimeNs late = comm::now() - deadline; late > STOOD_STILL) {
            deadline = comm::now() + std::min(within, late); // they may not have been asked yet
        }
        waitAwake(
            answers->changed, lock, [&answers] { return answers->open == 0; }, deadline);
    }
    std::map<std::string, Said> said;
    for (std::size_t number = 0; number < names.size(); ++number) {
        const Value answer = parse(questions[number]->text());
        said.emplace(names[number], answer.isDefined()
                                        ? Said{withoutOwn(answer, ownName, begin), {}, questions[number]->after()}
                                        : Said{{}, explain(*questions[number]), 0});
    }
    backend->stop();
    return said;
}

} // namespace

std::map<std::string, Said> askProcesses(const std::vector<std::string>& names, comm::TimeNs deadline)
{
    constexpr comm::TimeNs LEAST = 200 * comm::MILLISECOND; // who is given none would be called silent
    const std::size_t most = names.empty() ? 0 : countAskableAtOnce();
    std::map<std::string, Said> said;
    for (std::size_t first = 0; first < names.size(); first += most) {
        const auto begin = names.begin() + static_cast<std::ptrdiff_t>(first);
        const auto count = static_cast<std::ptrdiff_t>(std::min(most, names.size() - first));
        const std::size_t turns = (names.size() - first + most - 1) / most;
        const comm::TimeNs share = std::max((deadline - comm::now()) / static_cast<comm::TimeNs>(turns), LEAST);
        said.merge(askAtOnce({begin, begin + count}, comm::now() + share));
    }
    return said;
}

} // namespace kesactl
