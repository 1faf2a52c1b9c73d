// Which services a query asks for.
#include <kesa/serviceregistry/matchesQuery.h>
#include <kesa/toGeneric.h>
#include <tracing/CapturingSink.h>

#include <gmock/gmock.h>

namespace kesa::serviceregistry {
namespace {

using util::config::Value;

TEST(MatchesQuery, ByPathScopeAndMetadata)
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
    const auto with = [](const GenericObject& metadata) { return Query("**", metadata, nullopt, nullopt); };
    const auto inScope = [](const std::string& scope) { return Query("**", nullopt, nullopt, scope); };
    const struct {
        const ServiceDef& service;
        Query query;
        bool matches;
    } cases[] = {
        {bare, Query("/media/*"), true},
        {bare, Query(""), true},
        {bare, Query("/media"), false},
        {full, inScope("out"), true},
        {full, inScope("elsewhere"), false},
        {bare, inScope("elsewhere"), true},
        {full, with({{"type", toGeneric({"pex", "lomo"})}, {"vendor", toGeneric({"y", "x"})}}), true},
        {full, with({{"type", "pex"}}), false},
        {full, with({{"id", "00000000-0000-0000-0000-000000000001"}}), true},
        {bare, with({{"id", "x"}}), false},
        {bare, with({{"id", ""}}), true},
        {full, with({{"locators", toGeneric({"ipc://b/p", "ipc://a/p"})}}), true},
        {full, with({{"locators", toGeneric({"ipc://a/p"})}}), false},
        {full, with({{"rank", "7"}}), true}, // texts are compared
        {full, with({{"rank", 8}}), false},
        {full, with({{"tags", toGeneric({"a", "b"})}}), true},
        {full, with({{"tags", "a"}}), false},
        {full, with({{"tags", toGeneric({"a", "a"})}}), false},
        {full, with({{"deep", GenericObject{{"k", "v"}}}}), false},
        {full, with({{"mixed", Value::Array{"a", GenericObject{}}}}), false},
        {full, with({{"missing", "x"}, {"type", "lomo"}}), false},
    };
    const tracing::TraceCapture traces("KESA_RUNTIME_MAIN", 2);
    for (const auto& [service, query, matches] : cases) {
        EXPECT_EQ(matchesQuery(service, query, *PathPatterns::createFromGlob(query.pattern)), matches)
            << query.pattern << Value(query.metadata.value_or(GenericObject())).toText();
    }
    EXPECT_EQ(traces.take().back(), "2 metainfo do not match");
}

} // namespace
} // namespace kesa::serviceregistry
