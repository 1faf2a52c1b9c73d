// The order a client sees in its streams, and which services a query asks for.
#include "RuntimeFixture.h"

#include <kesa/toGeneric.h>
#include <runtime/v02/runtime/QueryMatcher.h>
#include <runtime/v02/runtime/QueryUpdateBookkeeper.h>
#include <runtime/v02/runtime/TrackAndResolveServicesBookkeeper.h>

namespace kesa::runtime::v02::test {
namespace {

using util::config::Value;
using enum ResourceUpdateType;

class StreamTest : public RuntimeFixture {};

ServiceDef service(const std::string& path)
{
    return {Path(path), ServiceDef::TypeEnum::pex, {}, {}};
}

TEST_F(StreamTest, updatesAlternatePerService)
{
    QueryUpdateBookkeeper bookkeeper(handler<ServiceUpdate>("c"));
    const auto offer = [&](ResourceUpdateType type, const char* path) {
        EXPECT_FALSE(bookkeeper.onNext({type, service(path)}));
    };
    EXPECT_THAT(
        traced(3, [&] { offer(eREMOVED, "/a"); }),
        ElementsAre("3 [QueryUpdateBookkeeper onNext] it is a registry  but it is workarounded for the moment 2"));
    offer(eMODIFIED, "/a");
    offer(eADDED, "/a");
    offer(eADDED, "/a");
    offer(eADDED, "/b");
    offer(eMODIFIED, "/a");
    offer(eREMOVED, "/a");
    offer(eREMOVED, "/a");
    EXPECT_THAT(happened(), ElementsAre("c: ADDED /a", "c: ADDED /b", "c: MODIFIED /a", "c: REMOVED /a"));

    offer(eMODIFIED, "/a"); // unknown, and not the initial state: our own mistake, told and passed on
    EXPECT_THAT(m_assertions->take(),
                ElementsAre("pos != announcedServices.end(), onNext, Received eModified on unknown Service"));
    EXPECT_THAT(happened(), ElementsAre("c: MODIFIED /a"));

    offer(eREMOVED, "/b"); // the last one: initial again
    offer(eMODIFIED, "/b");
    offer(eREMOVED, "/b");
    offer(eADDED, "/b");
    EXPECT_THAT(happened(), ElementsAre("c: REMOVED /b", "c: ADDED /b"));
}

TEST_F(StreamTest, resultsAlternatePerService)
{
    TrackAndResolveServicesBookkeeper bookkeeper(handler<ResolvedServiceState>("c"));
    const auto offer = [&](const char* path, bool present) {
        bookkeeper.onNext({service(path), present ? ProxyState(std::make_shared<FakeService>()) : nullopt});
    };
    offer("/a", false);
    offer("/a", true);
    offer("/b", false);
    offer("/a", true);
    offer("/b", true);
    offer("/a", false);
    offer("/a", false);
    offer("/a", true);
    EXPECT_THAT(happened(), ElementsAre("c: present /a", "c: present /b", "c: absent /a", "c: present /a"));
}

TEST_F(StreamTest, aQueryMatches)
{
    ServiceDef full(Path("/media/player"), ServiceDef::TypeEnum::lomo, {"1.0.0"},
                    {url("fake://a/p"), url("fake://b/p")});
    full.id = obr::UUID::fromString("00000000-0000-0000-0000-000000000001");
    full.scope = std::vector<std::string>{"in", "out"};
    full.metainfo = GenericObject{{"vendor", "x"},
                                  {"rank", 7},
                                  {"tags", toGeneric({"b", "a"})},
                                  {"deep", GenericObject{{"k", "v"}}},
                                  {"mixed", Value::Array{"a", GenericObject{}}}};
    const ServiceDef bare = service("/media/player");

    const auto matches = [](const ServiceDef& subject, const Query& query) {
        const auto patterns = PathPatterns::createFromGlob(query.pattern);
        return patterns && matchesQuery(subject, query, *patterns);
    };
    const auto with = [&](const GenericObject& metadata) {
        return matches(full, Query("**", metadata, nullopt, nullopt));
    };
    const auto scope = [&](const ServiceDef& subject, const char* name) {
        return matches(subject, Query("**", nullopt, nullopt, std::string(name)));
    };

    EXPECT_TRUE(matches(bare, Query("/media/*")));
    EXPECT_TRUE(matches(bare, Query("")));
    EXPECT_FALSE(matches(bare, Query("/media")));
    EXPECT_TRUE(scope(full, "out"));
    EXPECT_FALSE(scope(full, "elsewhere"));
    EXPECT_TRUE(scope(bare, "elsewhere"));

    EXPECT_TRUE(with({}));
    EXPECT_TRUE(with({{"type", "lomo"}}));
    EXPECT_TRUE(with({{"type", toGeneric({"pex", "lomo"})}, {"vendor", toGeneric({"y", "x"})}}));
    EXPECT_FALSE(with({{"type", "pex"}}));
    EXPECT_TRUE(with({{"id", "00000000-0000-0000-0000-000000000001"}}));
    EXPECT_FALSE(matches(bare, Query("**", GenericObject{{"id", "x"}}, nullopt, nullopt)));
    EXPECT_TRUE(matches(bare, Query("**", GenericObject{{"id", ""}}, nullopt, nullopt)));
    EXPECT_TRUE(with({{"locators", toGeneric({"fake://b/p", "fake://a/p"})}}));
    EXPECT_FALSE(with({{"locators", toGeneric({"fake://a/p"})}}));
    EXPECT_FALSE(with({{"locators", toGeneric({"fake://a/p", "fake://b/p", "fake://b/p"})}}));

    EXPECT_TRUE(with({{"rank", 7}}));
    EXPECT_TRUE(with({{"rank", "7"}})); // texts are compared
    EXPECT_FALSE(with({{"rank", 8}}));
    EXPECT_TRUE(with({{"tags", toGeneric({"a", "b"})}}));
    EXPECT_FALSE(with({{"tags", "a"}}));
    EXPECT_FALSE(with({{"tags", toGeneric({"a", "a"})}}));
    EXPECT_FALSE(with({{"deep", GenericObject{{"k", "v"}}}}));
    EXPECT_FALSE(with({{"mixed", Value::Array{"a", GenericObject{}}}}));
    EXPECT_THAT(traced(2,
                       [&] {
                           EXPECT_FALSE(with({{"missing", "x"}, {"type", "lomo"}}));
                       }),
                ElementsAre("2 metainfo do not match"));
}

} // namespace
} // namespace kesa::runtime::v02::test
