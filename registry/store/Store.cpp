#include "store/Store.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace kesa::registry {

namespace {

/// What looking at a record counts like, besides the steps that it takes to match its path: one of them takes about as
/// long as a byte takes that is written.
constexpr std::size_t LOOK_BYTES = 32;

} // namespace

// ---- registrations ------------------------------------------------------------------------------------------------

void Store::registerService(StreamId stream, const Claim& claim)
{
    Registration& registration = m_registrations[stream];
    registration = {claim.owner, claim.isPatient, State::eCLAIMS, claim.record};
    const auto held = m_records.find(registration.record->path());
    if (held == m_records.end()) {
        accept(stream, registration);
    } else if (m_registrations.at(held->second.holder).owner == registration.owner) {
        takeOver(stream, registration, claim, held);
    } else {
        contest(stream, registration);
    }
}

void Store::accept(StreamId stream, Registration& registration)
{
    registration.state = State::eHOLDS;
    const RecordPtr record = registration.record;
    m_records.emplace(record->path(), Held{record, stream});
    say(Effect::Kind::eREGISTERED, stream, record);
    announce(UpdateType::ADDED, record);
}

void Store::takeOver(StreamId stream, Registration& registration, const Claim& claim, Records::iterator held)
{
    const RecordPtr old = held->second.record;
    supersede(held->second.holder);
    if (!claim.keepsId) {
        claim.record->serviceDef.id = old->serviceDef.id;
    }
    const bool isEqual = claim.record->serviceDef == old->serviceDef;
    registration.state = State::eHOLDS;
    registration.record = isEqual ? old : claim.record;
    m_records.erase(held);
    m_records.emplace(registration.record->path(), Held{registration.record, stream});
    say(Effect::Kind::eREGISTERED, stream, registration.record);
    m_effects.back().isTakenOver = true;
    if (!isEqual) {
        announce(UpdateType::REMOVED, old);
        announce(UpdateType::ADDED, registration.record);
    }
    judgeAnew(old->path());
}

void Store::supersede(StreamId stream)
{
    Registration& registration = m_registrations.at(stream);
    registration.state = State::eSUPERSEDED;
    m_superseded[registration.record->path()].push_back(stream);
}

/// With all of the same process on this path that were superseded before.
void Store::supersedeForGood(const std::string& path, StreamId stream)
{
    supersede(stream);
    const Owner owner = m_registrations.at(stream).owner;
    while (const StreamId each = takeSuperseded(path, owner)) {
        m_registrations.at(each).record.reset();
    }
}

/// The last one of the process; 0: none.
StreamId Store::takeSuperseded(const std::string& path, const Owner& owner)
{
    const auto found = m_superseded.find(path);
    if (found == m_superseded.end()) {
        return 0;
    }
    auto& streams = found->second;
    const auto last = std::find_if(streams.rbegin(), streams.rend(),
                                   [&](StreamId each) { return m_registrations.at(each).owner == owner; });
    if (last == streams.rend()) {
        return 0;
    }
    const StreamId stream = *last;
    streams.erase(std::next(last).base());
    if (streams.empty()) {
        m_superseded.erase(found);
    }
    return stream;
}

void Store::forgetSuperseded(const std::string& path, StreamId stream)
{
    const auto found = m_superseded.find(path);
    if (found == m_superseded.end()) {
        return;
    }
    // Requests end in the order in which they came, mostly, so the first one it is.
    auto& streams = found->second;
    const auto place = std::find(streams.begin(), streams.end(), stream);
    if (place != streams.end()) {
        streams.erase(place);
    }
    if (streams.empty()) {
        m_superseded.erase(found);
    }
}

/// The holder has ended. True when an earlier registration of its process goes on in its place.
bool Store::giveBack(const std::string& path, const Owner& owner)
{
    const StreamId stream = takeSuperseded(path, owner);
    if (stream == 0) {
        return false;
    }
    Registration& registration = m_registrations.at(stream);
    registration.state = State::eHOLDS;
    const auto held = m_records.find(path);
    const RecordPtr old = held->second.record;
    m_records.erase(held);
    m_records.emplace(registration.record->path(), Held{registration.record, stream});
    say(Effect::Kind::eREGISTERED, stream, registration.record);
    m_effects.back().isTakenOver = true;
    if (registration.record->serviceDef != old->serviceDef) {
        announce(UpdateType::REMOVED, old);
        announce(UpdateType::ADDED, registration.record);
    }
    judgeAnew(path);
    return true;
}

void Store::contest(StreamId stream, const Registration& registration)
{
    const std::string& path = registration.record->path();
    Contest& contest = m_contests[path];
    // An earlier claim of the same process is superseded.
    const auto earlier = std::find_if(contest.claims.begin(), contest.claims.end(), [&](StreamId each) {
        return m_registrations.at(each).owner == registration.owner;
    });
    if (earlier != contest.claims.end()) {
        supersede(*earlier);
        contest.proof = *earlier == contest.judged ? 0 : contest.proof;
        contest.claims.erase(earlier);
    }
    contest.claims.push_back(stream);
    if (contest.proof == 0) {
        judgeNext(path, contest);
    }
}

RecordPtr Store::end(StreamId stream)
{
    const auto found = m_registrations.find(stream);
    if (found == m_registrations.end()) {
        m_watchers.erase(stream);
        return nullptr;
    }
    const Registration registration = std::move(found->second);
    m_registrations.erase(found);
    switch (registration.state) {
    case State::eHOLDS:
        if (!giveBack(registration.record->path(), registration.owner)) {
            return release(registration.record->path());
        }
        break;
    case State::eCLAIMS:
    case State::eWAITS:
        endClaim(registration.record->path(), stream, registration.owner);
        break;
    case State::eSUPERSEDED:
        if (registration.record) {
            forgetSuperseded(registration.record->path(), stream);
        }
        break;
    }
    return nullptr;
}

/// The latest claim of its process that it superseded is one again. Also when it was refused: the refusal may have gone
/// to a lost connection, and the other claim, made over the new one, has to be answered, too.
void Store::endClaim(const std::string& path, StreamId stream, const Owner& owner)
{
    withdrawClaim(path, stream);
    if (const StreamId earlier = takeSuperseded(path, owner)) {
        Registration& registration = m_registrations.at(earlier);
        registration.state = State::eCLAIMS;
        contest(earlier, registration);
    }
}

void Store::withdrawClaim(const std::string& path, StreamId stream)
{
    const auto found = m_contests.find(path);
    Contest& contest = found->second;
    std::erase(contest.claims, stream);
    if (contest.claims.empty()) {
        m_contests.erase(found);
    } else if (contest.judged == stream) {
        judgeNext(path, contest);
    }
}

/// The path is free again: the first who claims it gets it.
RecordPtr Store::release(const std::string& path)
{
    const auto held = m_records.find(path);
    RecordPtr record = held->second.record;
    m_records.erase(held);
    announce(UpdateType::REMOVED, record);
    const auto contest = m_contests.find(path);
    if (contest != m_contests.end()) {
        const StreamId first = contest->second.claims.front();
        contest->second.claims.pop_front();
        accept(first, m_registrations.at(first));
        judgeAnew(path);
    }
    return record;
}

const Store::Held* Store::find(const std::string& path) const
{
    const auto held = m_records.find(path);
    return held == m_records.end() ? nullptr : &held->second;
}

std::string Store::pathOf(StreamId registration) const
{
    const auto found = m_registrations.find(registration);
    return found == m_registrations.end() || !found->second.record ? std::string() : found->second.record->path();
}

bool Store::holds(StreamId registration) const
{
    const auto found = m_registrations.find(registration);
    return found != m_registrations.end() && found->second.state == State::eHOLDS;
}

/// The path has another holder.
void Store::judgeAnew(const std::string& path)
{
    const auto found = m_contests.find(path);
    if (found == m_contests.end()) {
        return;
    }
    if (found->second.claims.empty()) {
        m_contests.erase(found);
        return;
    }
    for (const StreamId each : found->second.claims) {
        m_registrations.at(each).state = State::eCLAIMS;
    }
    judgeNext(path, found->second);
}

void Store::judgeNext(const std::string& path, Contest& contest)
{
    const auto next = std::find_if(contest.claims.begin(), contest.claims.end(),
                                   [this](StreamId each) { return m_registrations.at(each).state == State::eCLAIMS; });
    contest.proof = 0;
    contest.judged = 0;
    if (next == contest.claims.end()) {
        return;
    }
    contest.proof = ++m_lastProof;
    contest.judged = *next;
    const Held& held = m_records.at(path);
    say(Effect::Kind::eASK_HOLDER, held.holder, held.record, contest.proof);
    m_effects.back().isPatient = m_registrations.at(held.holder).isPatient;
}

void Store::proved(const std::string& path, std::uint64_t proof, bool isAlive)
{
    const auto found = m_contests.find(path);
    if (found == m_contests.end() || found->second.proof != proof) {
        return;
    }
    const StreamId holder = m_records.at(path).holder;
    if (!isAlive) {
        supersedeForGood(path, holder); // its request may not have ended yet
        release(path);
        return;
    }
    Contest& contest = found->second;
    const StreamId judged = contest.judged;
    Registration& claimant = m_registrations.at(judged);
    if (claimant.isPatient) {
        claimant.state = State::eWAITS;
        say(Effect::Kind::eKEEPS_WAITING, holder, claimant.record);
        judgeNext(path, contest);
        return;
    }
    say(Effect::Kind::eREFUSED, judged, claimant.record);
    const Owner owner = claimant.owner;
    m_registrations.erase(judged);
    endClaim(path, judged, owner);
}

// ---- watchers -----------------------------------------------------------------------------------------------------

void Store::trackService(StreamId stream, const std::string& path, const Viewer& viewer)
{
    m_watchers.addTracker(stream, path, viewer);
    const auto held = m_records.find(path);
    if (held != m_records.end() && isVisible(held->second.record->serviceDef, viewer.realm) &&
        sees(viewer.sight, *held->second.record)) {
        m_effects.push_back({Effect::Kind::eUPDATE, stream, UpdateType::ADDED, held->second.record, 0, false});
    }
}

void Store::queryRegistry(StreamId stream, const Query& query, const PathPatterns& patterns, const Viewer& viewer)
{
    m_watchers.addQuery(stream, query, patterns, viewer);
}

std::vector<RecordPtr> Store::seenOtherwise(const Watchers::Sights& sights) const
{
    const Watchers::Exchanges exchanges = m_watchers.exchanges(sights);
    std::vector<RecordPtr> records;
    for (const auto& [path, held] : m_records) {
        if (std::any_of(exchanges.begin(), exchanges.end(), [&record = *held.record](const auto& exchange) {
                return sees(exchange.first, record) != sees(exchange.second, record);
            })) {
            records.push_back(held.record);
        }
    }
    return records;
}

void Store::changeSights(const Watchers::Sights& sights, const std::vector<RecordPtr>& records)
{
    std::vector<StreamId> lost;
    std::vector<StreamId> gained;
    for (const RecordPtr& record : records) {
        lost.clear();
        gained.clear();
        m_watchers.compare(*record, sights, lost, gained);
        for (const StreamId stream : lost) {
            m_effects.push_back({Effect::Kind::eUPDATE, stream, UpdateType::REMOVED, record, 0, false});
        }
        for (const StreamId stream : gained) {
            m_effects.push_back({Effect::Kind::eUPDATE, stream, UpdateType::ADDED, record, 0, false});
        }
    }
    m_watchers.change(sights);
}

bool Store::list(StreamId query, std::size_t maxBytes, std::vector<RecordPtr>& records, std::size_t& bytes)
{
    QueryWatch* const watch = m_watchers.findQuery(query);
    if (watch == nullptr) {
        return false;
    }
    bytes = 0;
    const Selection& selection = watch->selection;
    const bool hasBegun = !watch->listedUpTo.empty();
    auto at = hasBegun ? m_records.upper_bound(watch->listedUpTo) : m_records.lower_bound(selection.pathPrefix);
    std::string_view last;
    for (; at != m_records.end() && selection.covers(at->first); ++at) {
        const RecordPtr& record = at->second.record;
        std::size_t cost = 0; // first the steps
        const bool isFull = bytes >= maxBytes;
        const bool isMatch = !isFull && selection.patterns.match(record->path(), cost) && selection.wants(*record);
        cost += isMatch ? record->bytes + UPDATE_BYTES : LOOK_BYTES;
        if (isFull || (isMatch && bytes + cost >= maxBytes && !records.empty())) {
            watch->listedUpTo = std::string(last);
            return true;
        }
        bytes += cost;
        last = at->first;
        if (isMatch) {
            records.push_back(record);
        }
    }
    watch->isListing = false;
    return false;
}

void Store::below(const std::string& prefix, std::size_t most, std::vector<std::string_view>& paths) const
{
    for (auto at = m_records.lower_bound(prefix); at != m_records.end() && most > 0; ++at, --most) {
        if (at->first.substr(0, prefix.size()) != prefix) {
            break;
        }
        paths.push_back(at->first);
    }
}

/// What is below a child is skipped, whatever its size: '0' is the character after '/'.
void Store::children(const std::string& prefix, std::size_t most, std::vector<std::string>& names) const
{
    const std::size_t begin = prefix.rfind('/') + 1;
    auto at = m_records.lower_bound(prefix);
    while (at != m_records.end() && most > 0 && at->first.substr(0, prefix.size()) == prefix) {
        const std::size_t end = at->first.find('/', begin);
        std::string name(at->first.substr(begin, end - begin));
        at =
            end == std::string_view::npos ? std::next(at) : m_records.lower_bound(prefix.substr(0, begin) + name + '0');
        names.push_back(std::move(name));
        --most;
    }
}

// ---- effects ------------------------------------------------------------------------------------------------------

void Store::announce(UpdateType type, const RecordPtr& record)
{
    m_concerned.clear();
    m_watchers.concerned(*record, m_concerned);
    for (const StreamId stream : m_concerned) {
        m_effects.push_back({Effect::Kind::eUPDATE, stream, type, record, 0, false});
    }
}

void Store::say(Effect::Kind kind, StreamId stream, RecordPtr record, std::uint64_t proof)
{
    m_effects.push_back({kind, stream, UpdateType::ADDED, std::move(record), proof, false});
}

bool Store::next(Effect& effect)
{
    if (m_taken == m_effects.size()) {
        m_effects.clear();
        m_taken = 0;
        return false;
    }
    effect = std::move(m_effects[m_taken++]);
    return true;
}

} // namespace kesa::registry
