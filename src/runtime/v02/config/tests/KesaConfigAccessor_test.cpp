// What the configuration answers, and which format is spoken.
#include <kesa/runtime/mimetype.h>
#include <kesa/runtime/v02/KesaConfigAccessor.h>
#include <runtime/v02/config/KesaConfig.h>
#include <tracing/CapturingSink.h>

namespace kesa::runtime::v02 {
namespace {

using testing::ElementsAre;
using util::config::Value;

TEST(KesaConfigAccessor, FallsBackToTheStar)
{
    const KesaConfig named("p", R"({"node_domain_mapping": {"n": "d", "d": "e"}, "bypass": {"p": ["/a"], "q": ["/c"]},
        "service_registry_locators": {"*": ["ipc://r"], "home": ["ipc://h"]},
        "serializer-formats": {"/a": ["application/vnd.qelbin"], "*": ["application/json"]}})");
    const KesaConfigAccessor config(named);
    EXPECT_THAT(*config.getRegistryLocatorsByPartition("home", true), ElementsAre(url("ipc://h")));
    EXPECT_THAT(*config.getRegistryLocatorsByPartition("other", false), ElementsAre(url("ipc://r")));
    EXPECT_EQ(config.getRegistryLocatorsByPartition("other", true), nullopt);
    EXPECT_THAT(config.getSerializers("/a"), ElementsAre("application/vnd.qelbin"));
    EXPECT_THAT(config.getSerializers("/a/"), ElementsAre("application/json"));
    EXPECT_THAT(KesaConfigAccessor().getSerializers("/a"), ElementsAre("application/json")) << "without a record";
    std::string node = "n";
    config.getNodeDomainMapping(node);
    EXPECT_EQ(node, "d") << "a domain is not looked up again";

    const ::tracing::TraceCapture traces("KESA_RUNTIME_CONFIG", 2);
    EXPECT_TRUE(config.useBypass("/a"));
    EXPECT_FALSE(config.useBypass("/a/") || config.useBypass("/c")) << "another process's";
    EXPECT_THAT(traces.take(), ElementsAre("2 use bypass for service='/a'", "2 no bypass for service='/a/' configured",
                                           "2 no bypass for service='/c' configured"));
}

TEST(MimeType, IsTheFirstKnownFormat)
{
    const std::string json = "application/json";
    const std::string msgpack = "application/vnd.msgpack";
    const std::string qelbin = "application/vnd.qelbin";
    serviceregistry::ServiceDef service;
    EXPECT_EQ(getMimeType(service), json);
    service.serializationFormats = std::vector<std::string>{msgpack, qelbin, json};
    EXPECT_EQ(getMimeType(service), qelbin);
    EXPECT_EQ(getMimeType(Value(qelbin)), qelbin);
    EXPECT_EQ(getMimeType(Value(msgpack)), json);
    EXPECT_EQ(getMimeType(Value(Value::Array{1, "x", qelbin})), qelbin);
    EXPECT_EQ(getMimeType(Value::getUndefined()), json);
}

} // namespace
} // namespace kesa::runtime::v02
