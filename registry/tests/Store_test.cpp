// Random commands against a plain model: who holds each path, and what each watcher believes, is what looking at all
// records one by one says. Each watcher's stream is checked step by step: added only what is absent, removed only what
// is there, and the very record that was added.
#include "tests/support.h"

#include "store/Store.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>

namespace kesa::registry::test {
namespace {

/// What the registry has to come to, kept in the plainest way: who wishes for a path, in order; the first one holds it.
/// Each process has a stack of requests, of which the last one counts until it ends.
class Model {
public:
    struct Wish {
        StreamId stream;
        std::string locator;
    };
    struct Place {
        std::vector<int> processes;
        std::map<int, std::vector<Wish>> wishes;
    };
    std::map<std::string, Place> places;

    const Wish* holder(const std::string& path)
    {
        Place& place = places[path];
        return place.processes.empty() ? nullptr : &place.wishes[place.processes.front()].back();
    }
    void registerService(const std::string& path, int process, const Wish& wish)
    {
        Place& place = places[path];
        place.wishes[process].push_back(wish);
        wishLast(place, process);
    }
    /// An earlier wish of the process takes its place.
    void end(StreamId stream)
    {
        for (auto& [path, place] : places) {
            for (auto& [process, wishes] : place.wishes) {
                const bool counts = !wishes.empty() && wishes.back().stream == stream;
                std::erase_if(wishes, [stream](const Wish& each) { return each.stream == stream; });
                if (counts && wishes.empty()) {
                    std::erase(place.processes, process);
                } else if (counts && std::count(place.processes.begin(), place.processes.end(), process) != 0) {
                    wishLast(place, process);
                }
            }
        }
    }
    void lose(const std::string& path)
    {
        Place& place = places[path];
        place.wishes.erase(place.processes.front());
        place.processes.erase(place.processes.begin());
    }

private:
    static void wishLast(Place& place, int process)
    {
        if (place.processes.empty() || place.processes.front() != process) {
            std::erase(place.processes, process);
            place.processes.push_back(process);
        }
    }
};

class StoreTest : public testing::Test {
protected:
    struct Watcher {
        std::string path; ///< or glob
        bool isQuery;
        PathPatterns patterns; ///< of what it watches
        Realm realm;
        bool isListing;
        std::map<std::string, RecordPtr> believed;
    };
    struct Question {
        std::string path;
        std::uint64_t proof;
    };

    std::size_t draw(std::size_t bound) { return m_random() % bound; }
    std::string drawPath()
    {
        std::string path;
        for (std::size_t count = 1 + draw(3); count > 0; --count) {
            path += std::string("/") + "abc"[draw(3)];
        }
        return path;
    }

    void registerService()
    {
        const std::string path = drawPath();
        const std::size_t process = draw(4);
        const std::string locator = draw(2) == 0 ? "ipc://p+here/s" : draw(2) == 0 ? "ipc://p+there/s" : "tcp://p:1/s";
        Claim claim;
        claim.owner.instance = process == 0 ? obr::UUID() : obr::UUID({static_cast<std::uint8_t>(process)});
        claim.record = std::make_shared<Record>(Record{service(path, locator), 300});
        claim.record->serviceDef.id = obr::UUID({static_cast<std::uint8_t>(++m_lastStream % 256), 1});
        claim.keepsId = false;
        claim.isPatient = process == 0;
        m_model.registerService(path, static_cast<int>(process), {m_lastStream, locator});
        m_registrations.insert(m_lastStream);
        m_store.registerService(m_lastStream, std::move(claim));
    }

    void watch()
    {
        static const std::vector<std::string> GLOBS = {"**", "/a/**", "/*/b", "/a/{b,c/**}", "/**/c", "/a", "/b*/?"};
        static const std::vector<Realm> REALMS = {nullptr, std::make_shared<const std::string>("here"),
                                                  std::make_shared<const std::string>("there")};
        const bool isQuery = draw(2) == 0;
        const std::string path = isQuery ? GLOBS[draw(GLOBS.size())] : drawPath();
        const Watcher watcher{path, isQuery, *PathPatterns::createFromGlob(path), REALMS[draw(3)], isQuery, {}};
        m_watchers.emplace(++m_lastStream, watcher);
        if (isQuery) {
            m_store.queryRegistry(m_lastStream, Query(watcher.path), watcher.patterns, watcher.realm);
        } else {
            m_store.trackService(m_lastStream, watcher.path, watcher.realm);
        }
    }

    void list()
    {
        for (auto& [stream, watcher] : m_watchers) {
            if (watcher.isListing && draw(2) == 0) {
                std::vector<RecordPtr> records;
                std::size_t bytes = 0;
                watcher.isListing = m_store.list(stream, 1000, records, bytes);
                for (const RecordPtr& record : records) {
                    EXPECT_TRUE(watcher.believed.emplace(record->path(), record).second) << "told twice";
                }
            }
        }
    }

    void endSome()
    {
        if (draw(2) == 0 && !m_watchers.empty()) {
            const auto leaving = std::next(m_watchers.begin(), static_cast<std::ptrdiff_t>(draw(m_watchers.size())));
            m_store.end(leaving->first);
            m_store.end(leaving->first); // unknown by now
            m_watchers.erase(leaving);
        } else if (!m_registrations.empty()) {
            const auto leaving =
                std::next(m_registrations.begin(), static_cast<std::ptrdiff_t>(draw(m_registrations.size())));
            m_model.end(*leaving);
            m_store.end(*leaving);
            m_registrations.erase(leaving);
        }
    }

    /// Answers a question: the holder lives, or it does not.
    void prove()
    {
        if (m_questions.empty()) {
            return;
        }
        const auto [path, proof] = m_questions[draw(m_questions.size())];
        std::erase_if(m_questions, [p = proof](const Question& each) { return each.proof == p; });
        const bool isAlive = draw(2) == 0;
        const auto current = m_current.find(path);
        if (!isAlive && current != m_current.end() && current->second == proof) {
            if (m_model.places[path].processes.size() > 1) {
                m_model.lose(path);
            }
        }
        m_store.proved(path, proof, isAlive);
    }

    void takeEffects()
    {
        for (Effect effect; m_store.next(effect);) {
            const std::string& path = effect.record->path();
            switch (effect.kind) {
            case Effect::Kind::eUPDATE:
                told(effect);
                break;
            case Effect::Kind::eREGISTERED:
                m_holders[path] = effect.stream;
                break;
            case Effect::Kind::eREFUSED:
                EXPECT_NE(m_model.holder(path)->stream, effect.stream) << "the holder is refused";
                m_model.end(effect.stream);
                ++m_refused;
                break;
            case Effect::Kind::eASK_HOLDER:
                EXPECT_EQ(effect.stream, m_model.holder(path)->stream);
                m_questions.push_back({path, effect.proof});
                m_current[path] = effect.proof;
                break;
            case Effect::Kind::eKEEPS_WAITING:
                break;
            }
        }
    }

    void told(const Effect& effect)
    {
        Watcher& watcher = m_watchers.at(effect.stream);
        const std::string& path = effect.record->path();
        if (effect.type == UpdateType::ADDED) {
            EXPECT_TRUE(watcher.believed.emplace(path, effect.record).second) << path << " told twice";
        } else {
            EXPECT_EQ(watcher.believed[path], effect.record) << path << " was not announced";
            watcher.believed.erase(path);
        }
    }

    void compare()
    {
        std::map<std::string, std::string> held;
        for (const auto& [path, place] : m_model.places) {
            if (const Model::Wish* const holder = m_model.holder(path)) {
                held.emplace(path, holder->locator);
                EXPECT_EQ(m_holders[path], holder->stream) << path;
            }
        }
        EXPECT_EQ(m_store.size(), held.size());
        for (const auto& [stream, watcher] : m_watchers) {
            if (watcher.isListing) {
                continue;
            }
            std::map<std::string, std::string> expected, believed;
            for (const auto& [path, locator] : held) {
                const bool isVisible = !watcher.realm || locator.find("+" + *watcher.realm) != std::string::npos ||
                                       locator.starts_with("tcp");
                if (isVisible && watcher.patterns.match(path)) {
                    expected.emplace(path, locator);
                }
            }
            for (const auto& [path, record] : watcher.believed) {
                believed.emplace(path, record->serviceDef.locators[0].toString());
            }
            ASSERT_EQ(believed, expected) << watcher.path;
        }
    }

    std::mt19937 m_random{1};
    Store m_store;
    Model m_model;
    StreamId m_lastStream = 0;
    std::set<StreamId> m_registrations;
    std::map<StreamId, Watcher> m_watchers;
    std::map<std::string, StreamId> m_holders;
    std::vector<Question> m_questions;
    std::map<std::string, std::uint64_t> m_current; ///< the question that counts, by path
    int m_refused = 0;
};

TEST_F(StoreTest, EveryWatcherBelievesWhatIsThere)
{
    for (int round = 0; round < 5000 && !HasFailure(); ++round) {
        switch (draw(6)) {
        case 0:
        case 1:
            registerService();
            break;
        case 2:
            if (m_watchers.size() < 40) {
                watch();
            }
            break;
        case 3:
            list();
            break;
        case 4:
            endSome();
            takeEffects();
            endSome();
            break;
        default:
            prove();
            break;
        }
        takeEffects();
        compare();
    }
    EXPECT_GT(m_refused, 50);
}

} // namespace
} // namespace kesa::registry::test
