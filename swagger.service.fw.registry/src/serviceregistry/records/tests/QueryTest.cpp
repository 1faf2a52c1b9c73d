// Which services a query asks for.
#include <kesa/serviceregistry/matchesQuery.h>
#include <kesa/toGeneric.h>
#include <tracing/CapturingSink.h>

#include <gmock/gmock.h>

namespace kesa::serviceregistry {
namespace {

using util::config::Value;

TEST(QueryTest, SelectsByPathScopeAndMetadata)
{
    const ServiceDef bare(Path("/media/player"), ServiceDef::TypeEnum::lomo, {}, {});
    ServiceDef full = bare;
    full.locators = {url("ipc://a/p"), url("ipc://b/p")};
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
        {{"locators", toGeneric({"ipc://b/p", "ipc://a/p"})}},
        {{"rank", 7}},
        {{"rank", "7"}}, // texts are compared
        {{"tags", toGeneric({"a", "b"})}},
    };
    const GenericObject other[] = {
        {{"type", "pex"}},
        {{"locators", toGeneric({"ipc://a/p"})}},
        {{"locators", toGeneric({"ipc://a/p", "ipc://b/p", "ipc://b/p"})}},
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
    const tracing::TraceCapture traces("KESA_RUNTIME_MAIN", 2);
    EXPECT_FALSE(matches(full, missing));
    EXPECT_THAT(traces.take(), testing::ElementsAre("2 metainfo do not match"));
}

} // namespace
} // namespace kesa::serviceregistry
