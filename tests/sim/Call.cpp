#include "Call.h"

#include <backend/CommBackend.h>
#include <kesa/headers.h>
#include <tracing/Channel.h>

#include <algorithm>
#include <mutex>
#include <vector>

namespace kesa::sim {

namespace {

const tracing::Channel CHANNEL("SIM");

/// A loop that stood still looks for late answers for so long before it judges anybody.
constexpr comm::TimeNs LOOKS = comm::SECOND + 50 * comm::MILLISECOND;
/// A loop that stood still for less does not notice it.
constexpr comm::TimeNs NOTICED = 10 * comm::MILLISECOND;
const comm::TimeNs HEARTBEAT = commadapter::CommSettings().heartbeat;

constexpr std::string_view DROPPED = "the service dropped the request";
constexpr std::string_view TOO_SLOW = "too slow";

const std::vector<std::string_view> REASONS = {
    DROPPED,
    "the service is not provided",
    "the service was withdrawn",
    "the service is not connected",
    "the client object was released",
    "shutting down",
    "the connection was lost: the connection was cut",
    "the connection was lost: the peer closed the connection",
    "the connection was lost: the peer's process has ended",
    "the connection was lost: the other end in this process was closed",
    "the connection was lost: no longer used",
    "the connection was lost: shutting down",
};

const std::vector<std::string_view> REASONS_OF_STANDING = {
    "the service is too slow",
    "the connection was lost: it does not take what is sent to it",
    "the connection was lost: silent for ",
    "the connection was lost: no hello ",
};

bool startsWithOneOf(const std::string& text, const std::vector<std::string_view>& beginnings)
{
    return std::any_of(beginnings.begin(), beginnings.end(),
                       [&text](std::string_view begin) { return text.compare(0, begin.size(), begin) == 0; });
}

class Caller final : public IResponseHandler<Response> {
public:
    Caller(Verdict& verdict, std::shared_ptr<Call> call)
        : m_verdict(verdict), m_call(std::move(call)), m_observer(verdict, m_call->belief())
    {}
    ~Caller() override
    {
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        m_call->destroyed();
    }
    bool onNext(const Response& response) override
    {
        tell([&] { m_call->value(response); });
        return m_observer.onNext(response);
    }
    void onError(const Response& error) override
    {
        tell([&] { m_call->error(error); });
        m_observer.onError(error);
    }
    void onCompleted() override
    {
        tell([&] { m_call->completed(); });
        m_observer.onCompleted();
    }

private:
    template <class Work>
    void tell(const Work& work)
    {
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        work();
    }

    Verdict& m_verdict;
    const std::shared_ptr<Call> m_call;
    Observer<Response> m_observer;
};

} // namespace

std::unique_ptr<IResponseHandler<Response>> makeCaller(Verdict& verdict, std::shared_ptr<Call> call)
{
    return std::make_unique<Caller>(verdict, std::move(call));
}

Call::Call(Verdict& verdict, const Calls& calls, Wish wish, std::string number, std::shared_ptr<Belief> belief)
    : m_verdict(verdict), m_calls(calls), m_wish(std::move(wish)), m_number(std::move(number)),
      m_belief(std::move(belief))
{
    if (m_wish.resource == Wish::FEED && !m_wish.isOfLiar) {
        m_feed = std::make_unique<Feed>(verdict, m_belief->name, m_wish.isSlow, calls.feedBounds());
    }
}

void Call::check(bool holds, const char* rule, const std::string& what)
{
    if (!holds) {
        m_verdict.fail(rule, m_belief->name + (what.empty() ? "" : ": ") + what);
    }
}

void Call::mark(const char* what) const
{
    KESA_TRACE(CHANNEL, 1, "[call] %s", what);
}

bool Call::isOver() const
{
    return m_belief->terminal || m_belief->destroyed || m_belief->processDead;
}

// ---- the asker ----------------------------------------------------------------------------------------------------

Request Call::request() const
{
    std::string body = m_number;
    if (m_wish.bodyBytes > 0) {
        body += ' ' + std::string(m_wish.bodyBytes, 'r');
    }
    Request request("retrieve", m_wish.resource, Payload::createFromString(std::move(body), "plain/text"));
    if (m_wish.isMalformed) {
        request.setHeader(headers::TIMEOUT, "soon");
    } else if (m_wish.timeLimitMs) {
        request.setHeader(headers::TIMEOUT, *m_wish.timeLimitMs);
    }
    if (!m_wish.semantic.empty()) {
        headers::appendResponseSemantic(request, m_wish.semantic);
    }
    return request;
}

void Call::issued(std::uint64_t group, bool isTimed)
{
    m_group = group;
    m_isTimed = isTimed;
    if (m_wish.timeLimitMs && *m_wish.timeLimitMs < static_cast<std::uint64_t>(comm::NEVER / comm::SECOND)) {
        m_deadline = comm::now() + static_cast<comm::TimeNs>(*m_wish.timeLimitMs) * comm::MILLISECOND;
    }
}

/// A loop that stands still is late by that, and then looks for answers that were given meanwhile.
comm::TimeNs Call::latestEnd() const
{
    const comm::TimeNs stood = m_calls.stillUntil(m_group);
    return stood == comm::NEVER ? comm::NEVER : std::max(m_deadline, stood > 0 ? stood + LOOKS : 0);
}

void Call::checkInTime()
{
    if (!m_isTimed || !hasLimit() || m_belief->processDead || (isValueEnough() && m_belief->values > 0)) {
        return;
    }
    const comm::TimeNs now = comm::now();
    check(now <= latestEnd(), "a request with a time limit is over by then",
          std::to_string((now - m_deadline) / comm::MILLISECOND) + " ms late");
    if (now > m_deadline && m_belief->error == 0) {
        mark("answered after its time, which this process spent standing still");
    }
}

void Call::value(const Response& response)
{
    checkInTime();
    taken();
    check(!m_wish.isMalformed, "a malformed time limit is refused");
    if (m_wish.isLarge() && !m_wish.isOfLiar) {
        const std::string_view text = response.getPayload().text();
        check(text.substr(0, text.find(' ')) == m_number, "an answer reaches who asked",
              std::string(text.substr(0, text.find(' '))));
    }
    if (m_feed) {
        m_feed->value(response.getPayload().text());
    }
}

void Call::completed()
{
    checkInTime();
    check(!m_wish.isLarge() || m_wish.isOfLiar || m_belief->values == 1, "no answer is lost");
    if (m_feed) {
        m_feed->ended();
    }
    if (hasLimit() && isValueEnough() && m_isTimed && comm::now() > m_deadline) {
        mark("had its value in time, and went on");
    }
}

void Call::error(const Response& error)
{
    const unsigned short status = error.getStatus();
    const std::string text = error.getErrorMessage();
    m_belief->error = status;
    if (m_wish.isOfLiar) {
        checkInTime();
        return;
    }
    if (status == 504) {
        check(hasLimit() && !(isValueEnough() && m_belief->values > 0), "504 is of a time limit", text);
        check(!m_isTimed || comm::now() >= m_deadline, "504 comes no sooner than the time is over", text);
        checkNotAnswered();
        mark(m_isAsked ? "504 while the service had it" : "504 before the service had it");
    } else {
        check(status == 503 || status == 418 || (status == 400 && m_wish.isMalformed), "a call has a reason to fail",
              Response::getErrorMessageWithCode(error));
    }
    if (status == 503) {
        checkReason(text);
    }
    if (m_feed && text == TOO_SLOW) {
        m_feed->tooSlow();
    } else if (m_feed && (status == 418 || text == DROPPED)) {
        m_feed->ended();
    }
    checkInTime();
}

/// What was answered in time while the asker stood still is on its way, unless somebody else stands still. It may come
/// in more pieces than the asker waits for.
void Call::checkNotAnswered()
{
    const comm::TimeNs stood = m_calls.stillUntil(m_group);
    if (m_isTimed && m_given <= m_deadline && stood > m_deadline + NOTICED) {
        const bool isStillComing = comm::now() >= stood + comm::SECOND || m_calls.hasOtherStood(m_group, m_given);
        check(isStillComing, "what was answered in time counts");
    }
}

/// A persistent stream may be cut for what it is; nobody is refused for being one of many.
void Call::checkReason(const std::string& text)
{
    const bool isOfStanding = startsWithOneOf(text, REASONS_OF_STANDING) &&
                              (!m_isTimed || m_calls.hasOtherStood(m_group, comm::now() - HEARTBEAT));
    const bool isCut = text == TOO_SLOW && m_wish.semantic == responsesemantics::PERSISTENT_STREAM;
    check(startsWithOneOf(text, REASONS) || isOfStanding || isCut, "a call has a reason to fail", text);
}

void Call::destroyed()
{
    if (!m_belief->terminal) {
        checkInTime();
    }
    taken();
}

// ---- the service --------------------------------------------------------------------------------------------------

void Call::asked(std::uint64_t by, std::optional<comm::TimeNs> deadline)
{
    m_asks = by;
    if (m_number.empty()) {
        return;
    }
    check(!m_isAsked, "a request reaches its service once");
    m_isAsked = true;
    check(deadline.has_value() == hasLimit(), "the service knows of the time limit");
    check(!deadline || !m_isTimed || *deadline >= m_deadline, "the service has the time that is left");
    if (m_belief->error == 504) {
        mark("reached the service after its 504");
    }
}

void Call::given(std::size_t bytes, Flow& flow)
{
    if (isOver() || m_number.empty()) {
        return;
    }
    m_given = comm::now();
    m_flow = &flow;
    m_unread = bytes;
    flow.unread += bytes;
}

void Call::accepted()
{
    if (m_unread > 0) {
        check(m_flow->bound == 0 || m_flow->unread <= m_flow->bound, "what is queued for one client is bounded",
              std::to_string(m_flow->unread) + " bytes");
    }
}

void Call::taken()
{
    if (m_flow != nullptr) {
        m_flow->unread -= std::exchange(m_unread, 0);
    }
}

std::string Call::difference() const
{
    if (isOver() || m_number.empty()) {
        return "";
    }
    if (m_isLeft || (m_feed && m_feed->isRefused())) {
        return "its service has done with it, and its asker has not heard of that";
    }
    return m_wish.isLarge() ? "is not answered" : m_feed ? m_feed->difference() : "";
}

std::shared_ptr<Call> Calls::find(const std::string& number) const
{
    const auto found = m_calls.find(number);
    return found == m_calls.end() ? nullptr : found->second;
}

Flow& Calls::flow(std::uint64_t from, std::uint64_t to)
{
    const auto [flow, isNew] = m_flows.try_emplace({from, to});
    if (isNew && from != to) {
        flow->second.bound = m_bounds[to];
    }
    return flow->second;
}

std::size_t Calls::mostUnderWay(std::uint64_t from, std::uint64_t to) const
{
    std::size_t bytes = 0;
    for (const auto& [number, call] : m_calls) {
        bytes += call->feed() && call->asks() == from && call->group() == to ? call->feed()->mostUnderWay() : 0;
    }
    return bytes;
}

comm::TimeNs Calls::stillUntil(std::uint64_t group) const
{
    const auto found = m_still.find(group);
    return found == m_still.end() ? 0 : found->second;
}

bool Calls::hasOtherStood(std::uint64_t group, comm::TimeNs since) const
{
    return std::any_of(m_still.begin(), m_still.end(),
                       [&](const auto& still) { return still.first != group && still.second > since; });
}

std::shared_ptr<Call> Calls::of(const Request& request) const
{
    const std::string_view body = request.getPayload().text();
    const auto call = find(std::string(body.substr(0, body.find(' '))));
    return call ? call : find("");
}

} // namespace kesa::sim
