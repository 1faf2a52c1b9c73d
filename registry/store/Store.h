#ifndef KESA_REGISTRY_STORE_STORE_H
#define KESA_REGISTRY_STORE_STORE_H

#include "store/Owner.h"
#include "store/Record.h"
#include "store/Watchers.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kesa::registry {

/// What a command brought about, for one stream.
struct Effect {
    enum class Kind {
        eUPDATE,       ///< to a tracking or a query
        eREGISTERED,   ///< the answer to a registration: the record
        eREFUSED,      ///< the end of a registration: another living process has the path
        eASK_HOLDER,   ///< `stream` holds the path of `record`: does it live? `proved` with the number `proof`
        eKEEPS_WAITING ///< a patient claim on the path of `record` learned that the holder `stream` lives
    };
    Kind kind = Kind::eUPDATE;
    StreamId stream = 0;
    UpdateType type = UpdateType::ADDED;
    RecordPtr record;
    std::uint64_t proof = 0;
    bool isTakenOver = false; ///< of `eREGISTERED`: its process had the path already
    bool isPatient = false;   ///< of `eASK_HOLDER`: what the holder has was claimed with patience
};

/// A wish to register.
struct Claim {
    Owner owner; ///< the process that makes it
    std::shared_ptr<Record> record;
    bool keepsId = true;    ///< its `id` was given, not made for it
    bool isPatient = false; ///< waits for a path that a living process holds, instead of being refused
};

/// The state of the registry: records, who holds them, who claims them, who watches. No I/O, no threads, no clock:
/// commands go in, what they bring about comes out of `next`, in the order in which it has to be written.
///
/// Every path is held by one registration at most. A claim of the holder's own process takes the path over; the
/// registration that had it is superseded: nothing is said to it any more, and its end changes nothing. Should the one
/// that took over end before it, it has the path again: what a lost connection still brought may be read after the
/// same request over the new connection, and ends with the lost one. Claims of
/// others wait in order while it is asked whether the holder lives, one claim at a time, each by a question of its own.
class Store {
public:
    void registerService(StreamId stream, const Claim& claim);
    void trackService(StreamId stream, const std::string& path, const Viewer& viewer);
    /// The first answer is fetched with `list`.
    void queryRegistry(StreamId stream, const Query& query, const PathPatterns& patterns, const Viewer& viewer);
    /// What any of these trackings and queries would see otherwise.
    std::vector<RecordPtr> seenOtherwise(const Watchers::Sights& sights) const;
    /// They do from now on: they are told of what comes into their sight, and goes, which is among `records`.
    void changeSights(const Watchers::Sights& sights, const std::vector<RecordPtr>& records);
    /// Ends a request of any kind. One it does not know is ignored. Answers the record that is there no longer because
    /// of that, if any.
    RecordPtr end(StreamId stream);
    /// The answer to `eASK_HOLDER`. One whose question has lost its meaning is ignored.
    void proved(const std::string& path, std::uint64_t proof, bool isAlive);

    /// The next part of a query's first answer: records of together less than `maxBytes`, which one record with its
    /// update always is. What is only looked at counts a little, so that a call stays short. `bytes`: how much it was.
    /// False when the first answer is complete with it.
    [[nodiscard]] bool list(StreamId query, std::size_t maxBytes, std::vector<RecordPtr>& records, std::size_t& bytes);

    /// Who holds a path, and what; null: nobody.
    struct Held {
        RecordPtr record;
        StreamId holder = 0;
    };
    const Held* find(const std::string& path) const;
    /// Of a registration that has a path, claims it, or may have it again; else empty.
    std::string pathOf(StreamId registration) const;
    /// Whether a path is held by this registration.
    bool holds(StreamId registration) const;
    /// Appends the paths that are there and begin with `prefix`, at most `most`. Valid until the next change.
    void below(const std::string& prefix, std::size_t most, std::vector<std::string_view>& paths) const;
    /// Appends what follows the last "/" of `prefix` in the paths that begin with it, up to their next "/": each once
    /// where there are many below it, at most `most`.
    void children(const std::string& prefix, std::size_t most, std::vector<std::string>& names) const;
    /// Who asks for a path, whether or not it is there and they are told of it.
    void asking(const std::string& path, std::vector<StreamId>& streams) { m_watchers.asking(path, streams); }
    const QueryWatch* findQuery(StreamId query) { return m_watchers.findQuery(query); }

    /// Takes the next effect. False when there is none.
    bool next(Effect& effect);

    std::size_t size() const noexcept { return m_records.size(); }

private:
    enum class State { eHOLDS, eCLAIMS, eWAITS, eSUPERSEDED };
    struct Registration {
        Owner owner;
        bool isPatient = false;
        State state = State::eCLAIMS;
        RecordPtr record; ///< null when superseded for good
    };
    /// Claims on a path that is held.
    struct Contest {
        std::deque<StreamId> claims; ///< in order
        StreamId judged = 0;         ///< the claim for which the holder is asked
        std::uint64_t proof = 0;     ///< the question's number; 0: none
    };
    using Records = std::map<std::string_view, Held>; // the keys lie in the records

    void accept(StreamId stream, Registration& registration);
    void takeOver(StreamId stream, Registration& registration, const Claim& claim, Records::iterator held);
    void contest(StreamId stream, const Registration& registration);
    void supersede(StreamId stream);
    void supersedeForGood(const std::string& path, StreamId stream);
    StreamId takeSuperseded(const std::string& path, const Owner& owner);
    void forgetSuperseded(const std::string& path, StreamId stream);
    [[nodiscard]] bool giveBack(const std::string& path, const Owner& owner);
    void endClaim(const std::string& path, StreamId stream, const Owner& owner);
    void withdrawClaim(const std::string& path, StreamId stream);
    RecordPtr release(const std::string& path);
    void judgeAnew(const std::string& path);
    void judgeNext(const std::string& path, Contest& contest);
    void announce(UpdateType type, const RecordPtr& record);
    void say(Effect::Kind kind, StreamId stream, RecordPtr record, std::uint64_t proof = 0);

    Records m_records;
    std::unordered_map<StreamId, Registration> m_registrations;
    std::map<std::string, Contest> m_contests;
    std::map<std::string, std::deque<StreamId>> m_superseded; ///< by path, those that may have it again
    Watchers m_watchers;
    std::uint64_t m_lastProof = 0;

    std::vector<Effect> m_effects; ///< from `m_taken` on
    std::size_t m_taken = 0;
    std::vector<StreamId> m_concerned; ///< only inside `announce`
};

} // namespace kesa::registry

#endif
