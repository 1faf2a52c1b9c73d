#include "askProcesses.h"

#include <backend/ProcessService.h>
#include <comm/Condition.h>
#include <kesa/IClientConnectionListener.h>
#include <kesa/commadapter/createBackend.h>
#include <kesa/ease/handler.h>
#include <obr/ErrorStorage.h>
#include <protocol/Machine.h>
#include <transport/Authority.h>
#include <util/config/Dictionary.h>
#include <util/config/JSONParser.h>

#include <unistd.h>

#include <memory>
#include <mutex>
#include <utility>

namespace kesactl {
namespace {

using kesa::Response;
using kesa::commadapter::IBackend;
using kesa::commadapter::KesaClientApi;
using kesa::commadapter::ProcessService;
using util::config::Dictionary;
using util::config::Value;
using WhyNot = Said::WhyNot;

/// What the asked processes have in common.
struct Answers {
    std::mutex mutex;
    comm::Condition changed;
    std::size_t open = 0; ///< with the mutex held
};

/// One process that is asked. It is asked again when the connection is lost before it has answered. Lives until the
/// backend has been stopped.
class Question final : public kesa::IClientConnectionListener {
public:
    Question(IBackend& backend, const std::string& name, std::shared_ptr<Answers> answers)
        : m_answers(std::move(answers)),
          m_api(backend.connect(kesa::url("ipc://" + name + std::string(ProcessService::PATH)), this))
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
    /// What came; empty when that was no value.
    std::string text() const { return lockedCopy(m_text); }
    bool hasEnded() const { return lockedCopy(m_hasEnded); }
    /// The path was there, so it could be asked.
    bool isAttached() const { return lockedCopy(m_isAttached); }

private:
    template <class T>
    T lockedCopy(const T& member) const
    {
        const std::lock_guard lock(m_answers->mutex);
        return member;
    }
    void end(std::string text)
    {
        const std::lock_guard lock(m_answers->mutex);
        if (!std::exchange(m_hasEnded, true)) {
            m_text = std::move(text);
            --m_answers->open;
            m_answers->changed.notifyAll();
        }
    }

    void clientConnected() override
    {
        {
            const std::lock_guard lock(m_answers->mutex);
            m_isAttached = true;
        }
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

    const std::shared_ptr<Answers> m_answers;
    const std::unique_ptr<KesaClientApi> m_api; ///< null when the name is none
    // With the mutex held.
    bool m_isAttached = false;
    bool m_hasEnded = false;
    std::string m_text;
};

Value parse(const std::string& text)
{
    Value value;
    if (util::config::JSONParser().parseString(text, value)) {
        obr::ErrorStorage::ack();
        return {};
    }
    return value.isDictionary() && value["process"].isString() ? value : Value();
}

/// The process without the connections of this one, which are there only for the question.
Value withoutOwn(const Value& answer, const std::string& ownName)
{
    Value::Array others;
    for (const Value& connection : answer["connections"].items()) {
        if (connection["process"].stringView() != ownName) {
            others.push_back(connection);
        }
    }
    std::uint64_t count = others.size() + 1;
    static_cast<void>(answer["connectionCount"].get(count)); // of all, also where not all are named
    Dictionary edited = answer.dictionary();
    edited.set("connections", Value(std::move(others)));
    edited.set("connectionCount", count - 1);
    return Value(std::move(edited));
}

/// `own`: what this process says of itself.
Said explain(const Question& question, const std::string& name, const Value& own)
{
    if (question.hasEnded()) {
        return {{}, WhyNot::eDOES_NOT_SAY, "it has another service where processes say what they are"};
    }
    for (const Value& connection : own["connections"].items()) {
        if (kesa::commadapter::transport::encodeProcessName(connection["process"].stringView()) != name) {
            continue;
        }
        const std::string reason(connection["reason"].stringView());
        if (connection["connected"] == Value(true)) {
            return question.isAttached() ? Said{{}, WhyNot::eSILENT, "it has not answered in time"}
                                         : Said{{}, WhyNot::eDOES_NOT_SAY, "it does not say what it is"};
        }
        const bool isOtherVersion = reason.find(kesa::commadapter::protocol::NO_COMMON_VERSION) != std::string::npos;
        return {{}, isOtherVersion ? WhyNot::eOTHER_VERSION : WhyNot::eSILENT, reason};
    }
    return {{}, WhyNot::eSILENT, "it was not connected to"};
}

} // namespace

std::map<std::string, Said> askProcesses(const std::vector<std::string>& names, comm::TimeNs deadline)
{
    const std::string ownName = "kesactl-" + std::to_string(::getpid());
    const auto backend = kesa::commadapter::createBackend(ownName, "");
    backend->start();
    const auto answers = std::make_shared<Answers>();
    std::map<std::string, std::unique_ptr<Question>> questions;
    for (const std::string& name : names) {
        questions.emplace(name, std::make_unique<Question>(*backend, name, answers));
    }
    for (const auto& [name, question] : questions) {
        question->start();
    }
    {
        std::unique_lock lock(answers->mutex);
        comm::waitFor(
            answers->changed, lock, [&answers] { return answers->open == 0; }, deadline);
    }
    const Value own = parse(backend->describe());
    std::map<std::string, Said> said;
    for (const auto& [name, question] : questions) {
        const Value answer = parse(question->text());
        said.emplace(name,
                     answer.isDefined() ? Said{withoutOwn(answer, ownName), {}, {}} : explain(*question, name, own));
    }
    backend->stop();
    return said;
}

} // namespace kesactl
