// The order a client sees in its streams, and which services a query asks for.
#include "RuntimeFixture.h"

#include <kesa/toGeneric.h>
#include <runtime/v02/runtime/QueryMatcher.h>
#include <runtime/v02/runtime/QueryUpdateBookkeeper.h>

namespace kesa::runtime::v02::test {
namespace {

using util::config::Value;
using enum ResourceUpdateType;

class StreamTest : public RuntimeFixture {};

TEST_F(StreamTest, updatesAlternatePerService)
{
    QueryUpdateBookkeeper bookkeeper(handler<ServiceUpdate>("c"));
    const auto offer = [&](ResourceUpdateType type, const char* path) {
        EXPECT_FALSE(bookkeeper.onNext({type, {Path(path), ServiceDef::TypeEnum::pex, {}, {}}}));
    };
    for (const auto type : {eREMOVED, eMODIFIED, eADDED, eADDED, eMODIFIED, eREMOVED, eREMOVED}) {
        offer(type, "/a");
    }
    offer(eADDED, "/b");
    EXPECT_THAT(happened(), ElementsAre("c: ADDED /a", "c: MODIFIED /a", "c: REMOVED /a", "c: ADDED /b"));

    offer(eMODIFIED, "/a"); // unknown, and not the initial state: our own mistake, told and passed on
    EXPECT_THAT(m_assertions->take(),
                ElementsAre("pos != announcedServices.end(), onNext, Received eModified on unknown Service"));
    EXPECT_THAT(happened(), ElementsAre("c: MODIFIED /a"));
}

TEST_F(StreamTest, aQueryMatches)
{
    const ServiceDef bare(Path("/media/player"), ServiceDef::TypeEnum::lomo, {}, {});
    ServiceDef full = bare;
    full.locators = {url("fake://a/p"), url("fake://b/p")};
    full.id = obr::UUID::fromString("00000000-0000-0000-0000-000000000001");
    full.scope = std::vector<std::string>{"in", "out"};
    full.metainfo = GenericObject{{"vendor", "x"},
                                  {"rank", 7},
                                  {"tags", toGeneric({"b", "a"})},
                                  {"deep", GenericObject{{"k", "v"}}},
                                  {"mixed", Value::Array{"a", GenericObject{}}}};
    const auto matches = [](const ServiceDef& subject, const Query& query) {
        return matchesQuery(subject, query, *PathPatterns::createFromGlob(query.pattern));
    };
    EXPECT_TRUE(matches(bare, Query("/media/*")));
    EXPECT_TRUE(matches(bare, Query("")));
    EXPECT_FALSE(matches(bare, Query("/media")));
    EXPECT_TRUE(matches(full, Query("**", nullopt, nullopt, "out")));
    EXPECT_FALSE(matches(full, Query("**", nullopt, nullopt, "elsewhere")));
    EXPECT_TRUE(matches(bare, Query("**", nullopt, nullopt, "elsewhere")));

    const GenericObject matching[] = {
        {},
        {{"type", "lomo"}},
        {{"type", toGeneric({"pex", "lomo"})}, {"vendor", toGeneric({"y", "x"})}},
        {{"id", "00000000-0000-0000-0000-000000000001"}},
        {{"locators", toGeneric({"fake://b/p", "fake://a/p"})}},
        {{"rank", 7}},
        {{"rank", "7"}}, // texts are compared
        {{"tags", toGeneric({"a", "b"})}},
    };
    const GenericObject other[] = {
        {{"type", "pex"}},
        {{"locators", toGeneric({"fake://a/p"})}},
        {{"locators", toGeneric({"fake://a/p", "fake://b/p", "fake://b/p"})}},
        {{"rank", 8}},
        {{"tags", "a"}},
        {{"tags", toGeneric({"a", "a"})}},
        {{"deep", GenericObject{{"k", "v"}}}},
        {{"mixed", Value::Array{"a", GenericObject{}}}},
    };
    for (const GenericObject& metadata : matching) {
        EXPECT_TRUE(matches(full, Query("**", metadata, nullopt, nullopt))) << Value(metadata).toText();
    }
    for (const GenericObject& metadata : other) {
        EXPECT_FALSE(matches(full, Query("**", metadata, nullopt, nullopt))) << Value(metadata).toText();
    }
    EXPECT_FALSE(matches(bare, Query("**", GenericObject{{"id", "x"}}, nullopt, nullopt)));
    EXPECT_TRUE(matches(bare, Query("**", GenericObject{{"id", ""}}, nullopt, nullopt)));
    const Query missing("**", GenericObject{{"missing", "x"}, {"type", "lomo"}}, nullopt, nullopt);
    EXPECT_THAT(traced(2, [&] { EXPECT_FALSE(matches(full, missing)); }), ElementsAre("2 metainfo do not match"));
}

} // namespace
} // namespace kesa::runtime::v02::test
