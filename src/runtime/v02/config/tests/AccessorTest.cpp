// What the configuration answers, and which format is spoken.
#include <kesa/runtime/mimetype.h>
#include <kesa/runtime/v02/KesaConfigAccessor.h>
#include <kesa/runtime/v02/getPexVersion.h>
#include <runtime/v02/config/KesaConfig.h>
#include <tracing/CapturingSink.h>
#include <util/config/InterfaceInformationProvider.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace kesa::runtime::v02 {
namespace {

using Strings = std::vector<std::string>;
using ::tracing::TraceCapture;
using Urls = std::vector<url>;

TEST(KesaConfigAccessorTest, FallsBackToTheStar)
{
    const KesaConfig named("p", R"({"use_registry": true, "node_domain_mapping": {"n": "d", "d": "e"},
        "service_registry_locators": {"*": ["ipc://r"], "home": ["ipc://h"]},
        "serializer-formats": {"/a": ["application/vnd.qelbin"], "*": ["application/json"]}})");
    const KesaConfigAccessor config(named);
    EXPECT_EQ(config.getRegistryLocatorsByPartition("home", true), Urls{url("ipc://h")});
    EXPECT_EQ(config.getRegistryLocatorsByPartition("other", false), Urls{url("ipc://r")});
    EXPECT_EQ(config.getRegistryLocatorsByPartition("other", true), nullopt);
    EXPECT_EQ(config.getSerializers("/a"), Strings{"application/vnd.qelbin"});
    EXPECT_EQ(config.getSerializers("/a/"), Strings{"application/json"});
    std::string node = "n";
    config.getNodeDomainMapping(node);
    EXPECT_EQ(node, "d") << "a domain is not looked up again";
    node = "x";
    config.getNodeDomainMapping(node);
    EXPECT_EQ(node, "x");
    EXPECT_EQ(KesaConfigAccessor().getSerializers("/a"), Strings{"application/json"}) << "without a record";
}

TEST(KesaConfigAccessorTest, BypassesForTheListedPathsOfThisProcess)
{
    const KesaConfig own("p", R"({"bypass": {"p": ["/a", "/b"], "q": ["/c"]}})");
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 2);
    EXPECT_TRUE(KesaConfigAccessor(own).useBypass("/b"));
    EXPECT_FALSE(KesaConfigAccessor(own).useBypass("/a/"));
    EXPECT_EQ(traces.take(), (Strings{"2 use bypass for service='/b'", "2 no bypass for service='/a/' configured"}));
    EXPECT_FALSE(KesaConfigAccessor(own).useBypass("/c"));
}

TEST(MimeType, IsTheFirstKnownFormat)
{
    const std::string json = "application/json";
    const std::string qelbin = "application/vnd.qelbin";
    EXPECT_EQ(findFormat({"application/vnd.msgpack", qelbin, json}), qelbin);
    serviceregistry::ServiceDef service;
    EXPECT_EQ(getMimeType(service), json);
    service.serializationFormats = Strings{qelbin};
    EXPECT_EQ(getMimeType(service), qelbin);

    using util::config::Value;
    EXPECT_EQ(getMimeType(Value(qelbin)), qelbin);
    EXPECT_EQ(getMimeType(Value("application/vnd.msgpack")), json);
    EXPECT_EQ(getMimeType(Value(Value::Array{1, "x", qelbin})), qelbin);
    EXPECT_EQ(getMimeType(Value::getUndefined()), json);
}

TEST(Document, IsFoundByTheEnvironment)
{
    std::string folder = (std::filesystem::temp_directory_path() / "kesa-config-XXXXXX").string();
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    setenv("KESA_CONFIG_DIR", folder.c_str(), 1);
    const auto write = [&folder](const std::string& name, const std::string& text) {
        std::ofstream(folder + "/" + name) << text;
    };
    // The member of its name.
    write("kesa.json", R"({"backends": ["comm", "local"], "kesa": {"backends": ["local"]}})");
    EXPECT_EQ(KesaConfig("p").m_backends, Strings{"local"});

    // Versions are declared beside it.
    write("interfaces.json", R"({"pex": {"media/player": ["1.0.0", "1.1.0"]}})");
    util::config::InterfaceInformationProvider::instance().forgetForTest();
    EXPECT_EQ(getPexVersion("/media/player"), (Strings{"1.0.0", "1.1.0"}));
    EXPECT_EQ(getPexVersion("//media/player"), nullopt);
    util::config::InterfaceInformationProvider::instance().forgetForTest();

    const TraceCapture traces("KESA_RUNTIME_CONFIG", 3);
    // No fall-through to the next candidate: it would hide a mistyped name.
    write("kesa.json", "{}");
    setenv("KESA_CONFIG", "/nonexistent/kesa.json", 1);
    EXPECT_FALSE(KesaConfig("p").m_valid);
    EXPECT_THAT(traces.take().back(), testing::HasSubstr("/nonexistent/kesa.json"));
    unsetenv("KESA_CONFIG");
    unsetenv("KESA_CONFIG_DIR");
    std::filesystem::remove_all(folder);
}

} // namespace
} // namespace kesa::runtime::v02
