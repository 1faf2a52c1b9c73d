#ifndef KESA_TESTS_SIM_CALL_H
#define KESA_TESTS_SIM_CALL_H

#include "Feed.h"
#include "Observers.h"

#include <comm/Clock.h>
#include <kesa/Request.h>
#include <kesa/responsesemantics.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kesa::sim {

class Calls;

/// Of a client, what a service has given at once and it has not seen yet.
struct Flow {
    std::size_t unread = 0;
    std::size_t bound = 0; ///< 0: none is known
};

/// How a request is issued.
struct Wish {
    static constexpr const char* WHO = "/who";     ///< is answered with the claim's number
    static constexpr const char* LARGE = "/large"; ///< is answered at once, with the request's number and much more
    static constexpr const char* FEED = "/feed";   ///< is answered with more values than its asker may handle

    std::string resource = "/";
    std::optional<std::uint64_t> timeLimitMs;
    bool isMalformed = false; ///< a time limit that is none
    std::string_view semantic;
    std::size_t bodyBytes = 0;
    bool isOfLiar = false;                         ///< who may answer anything
    QueuePolicy policy = QueuePolicy::eCUT_STREAM; ///< of a feed
    bool isSlow = false;                           ///< its asker handles values later

    bool isLarge() const { return resource == LARGE; }
    static Wish of(std::string resource)
    {
        Wish wish;
        wish.resource = std::move(resource);
        return wish;
    }
};

/// A request as its asker and its service know it, and the rules of its course. With the verdict's mutex held.
class Call {
public:
    /// Without a number: whatever a stranger asks.
    Call(Verdict& verdict, const Calls& calls, Wish wish, std::string number, std::shared_ptr<Belief> belief);

    // How its asker issues it.
    Request request() const;
    /// By process `group`; `isTimed`: with simulated time.
    void issued(std::uint64_t group, bool isTimed);

    // What its asker hears.
    void value(const Response& response);
    void error(const Response& error);
    void completed();
    void destroyed();

    // What its service does.
    /// Process `by`; `deadline`: as the service sees it.
    void asked(std::uint64_t by, std::optional<comm::TimeNs> deadline);
    /// `bytes` on their way, unless the asker has its end already.
    void given(std::size_t bytes, Flow& flow);
    /// Not refused, as on a connection that has ended.
    void accepted();
    void taken();
    /// Has ended it, or has heard of its end.
    void left() { m_isLeft = true; }

    const std::string& number() const { return m_number; }
    const std::shared_ptr<Belief>& belief() const { return m_belief; }
    std::uint64_t group() const { return m_group; }
    const Wish& wish() const { return m_wish; }
    /// For its asker.
    bool isOver() const;
    bool isAsked() const { return m_isAsked; }
    std::uint64_t asks() const { return m_asks; }
    /// Null: its service gives no more than its asker takes.
    const std::unique_ptr<Feed>& feed() const { return m_feed; }
    /// What is wrong with it once nothing moves any more; empty: nothing.
    std::string difference() const;

private:
    void check(bool holds, const char* rule, const std::string& what = {});
    void checkReason(const std::string& text);
    void checkNotAnswered();
    void checkInTime();
    void mark(const char* what) const;
    bool hasLimit() const { return m_deadline != comm::NEVER; }
    bool isValueEnough() const { return !m_wish.semantic.empty(); }
    comm::TimeNs latestEnd() const;

    Verdict& m_verdict;
    const Calls& m_calls;
    const Wish m_wish;
    const std::string m_number;
    const std::shared_ptr<Belief> m_belief;
    std::uint64_t m_group = 0;
    std::uint64_t m_asks = 0; ///< the process that was asked
    bool m_isTimed = false;
    comm::TimeNs m_deadline = comm::NEVER;
    bool m_isAsked = false;
    comm::TimeNs m_given = comm::NEVER; ///< when its answer was
    Flow* m_flow = nullptr;
    std::size_t m_unread = 0;
    bool m_isLeft = false;
    std::unique_ptr<Feed> m_feed;
};

/// All of a run, by the number that a request carries. With the verdict's mutex held.
class Calls {
public:
    void add(const std::shared_ptr<Call>& call) { m_calls.emplace(call->number(), call); }
    std::shared_ptr<Call> find(const std::string& number) const;
    void setStranger(std::shared_ptr<Call> call) { m_calls[""] = std::move(call); }
    /// The one that a request is of: what has no number of ours is the stranger's.
    std::shared_ptr<Call> of(const Request& request) const;
    const std::map<std::string, std::shared_ptr<Call>>& all() const { return m_calls; }
    /// From process `to` back to the one that asks it.
    Flow& flow(std::uint64_t from, std::uint64_t to);
    /// What process `group` may have under way to each other one.
    void bound(std::uint64_t group, std::size_t bytes) { m_bounds[group] = bytes; }
    /// Until when the I/O loop of process `group` stands still, or did last; `comm::NEVER` while nobody knows.
    void standsStill(std::uint64_t group, comm::TimeNs until) { m_still[group] = until; }
    comm::TimeNs stillUntil(std::uint64_t group) const;
    void boundFeeds(const FeedBounds& bounds) { m_feedBounds = bounds; }
    const FeedBounds& feedBounds() const { return m_feedBounds; }
    /// Of all feeds from process `from` to process `to`.
    std::size_t mostUnderWay(std::uint64_t from, std::uint64_t to) const;
    /// Whether another one does, or did after `since`.
    bool hasOtherStood(std::uint64_t group, comm::TimeNs since) const;

private:
    FeedBounds m_feedBounds;
    std::map<std::uint64_t, comm::TimeNs> m_still;
    std::map<std::uint64_t, std::size_t> m_bounds;
    std::map<std::string, std::shared_ptr<Call>> m_calls;
    std::map<std::pair<std::uint64_t, std::uint64_t>, Flow> m_flows;
};

/// What a request is answered through: the rules of a stream, and of the call.
std::unique_ptr<IResponseHandler<Response>> makeCaller(Verdict& verdict, std::shared_ptr<Call> call);

} // namespace kesa::sim

#endif
