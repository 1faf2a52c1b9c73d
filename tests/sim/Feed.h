#ifndef KESA_TESTS_SIM_FEED_H
#define KESA_TESTS_SIM_FEED_H

#include "Observers.h"

#include <kesa/IPeer.h>
#include <kesa/IStreamControl.h>
#include <kesa/Receipt.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::sim {

/// How much of feeds may be under way.
struct FeedBounds {
    std::size_t largest = 6000; ///< value
    std::size_t queue = 0;      ///< that is full before a stream is cut; 0: is not known, as the others
    std::size_t beyond = 0;     ///< the queue may be, when a value is taken, and of all once nothing is queued
};

/// A persistent stream whose service gives values as fast as it likes, and whose asker handles them when it likes:
/// what of it has to arrive. With the verdict's mutex held.
class Feed {
public:
    /// `isSlow`: keeps its receipts.
    Feed(Verdict& verdict, std::string name, bool isSlow, const FeedBounds& bounds)
        : m_verdict(verdict), m_name(std::move(name)), m_isSlow(isSlow), m_bounds(bounds)
    {}

    // Its service.
    void setPolicy(QueuePolicy policy) { m_policy = policy; }
    /// The text of the next value, which counts as taken unless it is `refused`.
    std::string next(std::size_t bytes);
    void accepted();
    /// With so much under way from its process to its asker's, at most.
    void refused(std::size_t mostUnderWay);
    bool isRefused() const { return m_isRefused; }
    /// It was told of a cancel: nothing of it is queued any more.
    void cancelled() { m_isCancelled = true; }
    /// Given and not heard; of what is skipped nobody knows.
    std::size_t mostUnderWay() const { return m_isCancelled ? 0 : m_givenBytes - m_heardBytes; }
    std::size_t underWay() const { return isLatest() ? 0 : mostUnderWay(); }

    // Its asker.
    void value(std::string_view text);
    /// Its end came behind all values.
    void ended();
    void tooSlow();
    /// Appends the oldest receipts, to be destroyed without the mutex.
    void handle(std::size_t most, std::deque<Receipt>& handled);
    void handleAtOnce() { m_isSlow = false; }
    /// Why it is not all that was given, unless it is.
    std::string difference() const;

private:
    bool isLatest() const { return m_policy == QueuePolicy::eKEEP_LATEST; }
    void check(bool holds, const char* rule, const std::string& what = {});

    Verdict& m_verdict;
    const std::string m_name;
    bool m_isSlow;
    const FeedBounds m_bounds;
    QueuePolicy m_policy = QueuePolicy::eCUT_STREAM;
    bool m_isRefused = false;
    bool m_isCancelled = false;
    std::size_t m_underWayThen = 0;
    struct Given {
        std::size_t bytes;
        std::size_t heardThen; ///< how much had been heard
    };
    std::vector<Given> m_given;
    std::size_t m_givenBytes = 0;
    std::size_t m_heard = 0; ///< the number of the next value that may come
    std::size_t m_heardBytes = 0;
    std::deque<Receipt> m_receipts;
};

/// What a service has waiting until nothing is queued for its peers: each task runs once and in its turn, or is dropped
/// with its connection. With the verdict's mutex held, but for `end`.
class DrainedTasks {
public:
    explicit DrainedTasks(Verdict& verdict) : m_verdict(verdict) {}

    /// To be kept by the task, and by nobody else.
    std::shared_ptr<void> add(const std::shared_ptr<IPeer>& peer);
    /// `underWayTo`: so much has been given to the peer and not heard there, of `bound`; 0: none is known.
    void runs(const std::shared_ptr<void>& task, const std::function<std::size_t(const IPeer&)>& underWayTo,
              std::size_t bound);
    /// Whether one was not run, and its connection lives.
    bool isForgotten() const;

private:
    struct Task {
        std::shared_ptr<IPeer> peer;
        std::weak_ptr<void> isThere;
        bool hasRun = false;
    };
    Verdict& m_verdict;
    std::vector<Task> m_tasks;
};

} // namespace kesa::sim

#endif
