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

/// What the registry has to come to, kept in the plainest way.
class Model {
public:
    struct Wish {
        StreamId stream;
        int process;
        bool isPatient;
        std::string locator;
    };
    std::map<std::string, std::vector<Wish>> paths; ///< the first one holds the path, the others wait in order
    std::map<std::string, std::vector<Wish>> superseded;

    void registerService(const std::string& path, const Wish& wish)
    {
        auto& wishes = paths[path];
        const auto same =
            std::find_if(wishes.begin(), wishes.end(), [&](const Wish& each) { return each.process == wish.process; });
        if (same != wishes.end()) {
            superseded[path].push_back(*same);
        }
        if (same != wishes.end() && same == wishes.begin()) {
            *same = wish;
            return;
        }
        if (same != wishes.end()) {
            wishes.erase(same);
        }
        wishes.push_back(wish);
    }
    /// An earlier wish of the process takes its place, unless it was refused.
    void end(StreamId stream, bool isRefused = false)
    {
        for (auto& [path, wishes] : paths) {
            auto& earlier = superseded[path];
            std::erase_if(earlier, [stream](const Wish& each) { return each.stream == stream; });
            const auto ended =
                std::find_if(wishes.begin(), wishes.end(), [&](const Wish& each) { return each.stream == stream; });
            if (ended == wishes.end()) {
                continue;
            }
            const auto next = std::find_if(earlier.rbegin(), earlier.rend(),
                                           [&](const Wish& each) { return each.process == ended->process; });
            if (next == earlier.rend() || isRefused) {
                wishes.erase(ended);
                continue;
            }
            const Wish again = *next;
            earlier.erase(std::next(next).base());
            if (ended == wishes.begin()) {
                *ended = again;
            } else {
                wishes.erase(ended);
                wishes.push_back(again);
            }
        }
    }
    void lose(const std::string& path)
    {
        auto& wishes = paths[path];
        std::erase_if(superseded[path], [&](const Wish& each) { return each.process == wishes.front().process; });
        wishes.erase(wishes.begin());
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
        claim.instance = process == 0 ? obr::UUID() : obr::UUID({static_cast<std::uint8_t>(process)});
        claim.record = std::make_shared<Record>(Record{service(path, locator), 300});
        claim.record->serviceDef.id = obr::UUID({static_cast<std::uint8_t>(++m_lastStream % 256), 1});
        claim.keepsId = false;
        claim.isPatient = process == 0;
        m_model.registerService(path, {m_lastStream, static_cast<int>(process), claim.isPatient, locator});
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
            auto& wishes = m_model.paths[path];
            if (wishes.size() > 1) {
                m_model.lose(path);
            }
        }
        m_store.proved(path, proof, isAlive);
    }

    void takeOutputs()
    {
        for (Output output; m_store.next(output);) {
            const std::string& path = output.record->path();
            switch (output.kind) {
            case Output::Kind::eUPDATE:
                told(output);
                break;
            case Output::Kind::eREGISTERED:
                m_holders[path] = output.stream;
                break;
            case Output::Kind::eREFUSED:
                EXPECT_FALSE(m_model.paths[path].front().stream == output.stream) << "the holder is refused";
                m_model.end(output.stream, true);
                ++m_refused;
                break;
            case Output::Kind::eASK_HOLDER:
                EXPECT_EQ(output.stream, m_model.paths[path].front().stream);
                m_questions.push_back({path, output.proof});
                m_current[path] = output.proof;
                break;
            case Output::Kind::eKEEPS_WAITING:
                break;
            }
        }
    }

    void told(const Output& output)
    {
        Watcher& watcher = m_watchers.at(output.stream);
        const std::string& path = output.record->path();
        if (output.type == UpdateType::ADDED) {
            EXPECT_TRUE(watcher.believed.emplace(path, output.record).second) << path << " told twice";
        } else {
            EXPECT_EQ(watcher.believed[path], output.record) << path << " was not announced";
            watcher.believed.erase(path);
        }
    }

    void compare()
    {
        std::size_t count = 0;
        for (const auto& [path, wishes] : m_model.paths) {
            if (!wishes.empty()) {
                ++count;
            }
            EXPECT_TRUE(wishes.empty() || m_holders[path] == wishes.front().stream) << path;
        }
        EXPECT_EQ(m_store.size(), count);
        for (const auto& [stream, watcher] : m_watchers) {
            if (watcher.isListing) {
                continue;
            }
            std::map<std::string, std::string> expected, believed;
            for (const auto& [path, wishes] : m_model.paths) {
                if (!wishes.empty() && watcher.patterns.match(path) &&
                    (!watcher.realm || wishes.front().locator.find("+" + *watcher.realm) != std::string::npos ||
                     wishes.front().locator.find("tcp") == 0)) {
                    expected[path] = wishes.front().locator;
                }
            }
            for (const auto& [path, record] : watcher.believed) {
                believed[path] = record->serviceDef.locators[0].toString();
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
            takeOutputs();
            endSome();
            break;
        default:
            prove();
            break;
        }
        takeOutputs();
        compare();
    }
    EXPECT_GT(m_refused, 50);
}

} // namespace
} // namespace kesa::registry::test
