// Reading the document: what each key means, what makes a document invalid and with which words, what survives that.
#include <kesa/toGeneric.h>
#include <runtime/v02/config/ConfigReport.h>
#include <runtime/v02/config/KesaConfig.h>
#include <tracing/CapturingSink.h>

#include <gmock/gmock.h>

namespace kesa::runtime::v02 {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;
using Strings = std::vector<std::string>;
using ::tracing::TraceCapture;
using Codes = std::vector<std::uint32_t>;

const std::string JSON = "application/json";
const std::string QELBIN = "application/vnd.qelbin";

KesaConfig read(const std::string& text, ConfigReport* report = nullptr)
{
    return KesaConfig("process", text, report);
}

void expectDefaults(const KesaConfig& config)
{
    EXPECT_FALSE(config.m_useRemoteRegistry);
    EXPECT_FALSE(config.m_useLocalRegistry);
    EXPECT_THAT(config.m_backends, ElementsAre("comm"));
    EXPECT_TRUE(config.m_services.empty());
    EXPECT_THAT(config.m_serializers, UnorderedElementsAre(Pair("*", Strings{JSON})));
}

TEST(KesaConfigTest, TakesDefaultsForWhatIsAbsent)
{
    for (const KesaConfig& config : {read("{}"), KesaConfig::getDefault()}) {
        expectDefaults(config);
        EXPECT_TRUE(config.m_valid);
        EXPECT_FALSE(config.m_proxyConfig.m_timeout);
        EXPECT_FALSE(config.m_proxyConfig.m_mandatroyRetryErrorsSubscribeElement);
    }
    EXPECT_EQ(read("{}").m_ownProcessName, "process");
    EXPECT_EQ(KesaConfig::getDefault().m_ownProcessName, "unknown_process");
}

TEST(KesaConfigTest, RefusesWithTheReason)
{
    const std::string service = R"("path": "/a", "type": "pex", "locators": [])";
    const struct {
        std::string text;
        std::string reason;
    } documents[] = {
        {R"([])", "root is not dictionary"},
        {R"({"use_local_registry": 1})", "local registy not bool"},
        {R"({"use_registry": null})", "(remote) registy not bool"},
        {R"({"service_registry_locators": ["ipc://a", "a b"]})", "unknown registry locator"},
        {R"({"backends": "comm"})", "backends is not array"},
        {R"({"backends": []})", "no backend configured"},
        {R"({"backends": ["Comm", "dbus"]})", "no backend configured"},
        {R"({"backends": ["comm", 1]})", ""},
        {R"({"serializer-formats": 1})", "serializer-formats is neither array nor dictionary"},
        {R"({"serializer-formats": ["application/vnd.msgpack"]})", "no serializer-format configured"},
        {R"({"serializer-formats": {"/a": "application/json"}})", "no serializer-format configured"},
        {R"({"serializer-formats": {"/a": ["application/json", 1]}})", ""},
        {R"({"services": {}})", "services is not array"},
        {R"({"services": [7]})", ""},
        {R"({"services": [{"path": "a"}]})", "service path not absolute"},
        {R"({"services": [{"path": "/a", "version": 1}]})", ""},
        {R"({"services": [{"path": "/a", "type": "PEX"}]})", "service type unknown"},
        {R"({"services": [{"path": "/a", "type": "pex"}]})", "locators is not array"},
        {R"({"services": [{)" + service + R"(}, {"path": "/a", "type": "pex", "locators": [1]}]})", ""},
        {R"({"services": [{"path": "/a", "type": "pex", "locators": ["/relative"]}]})",
         "service locator is not an url"},
        {R"({"services": [{"path": "/a", "type": "pex", "locators": ["tcp://h:1#x"]}]})",
         "service locator is not an url"},
        {R"({"bypass": []})", "bypass is not a dictionary"},
        {R"({"bypass": {"a": {}}})", "client not mapped to an array"},
        {R"({"bypass": {"a": ["/x", 1]}})", "invalid service path in bypass"},
        {R"({"bypass": {"a": ["x"]}})", "service path not absolute"},
        {R"({"smartProxy": {"timeout": 2147483648}})", "timeout not int"},
        {R"({"smartProxy": {"retryTimes": []}})", "key was configured but it is an empty array"},
        {R"({"smartProxy": {"retryTimes": 1}})", "key is not array"},
        {R"({"smartProxy": {"retryTimes": [1, "2"]}})", ""},
        {R"({"node_domain_mapping": []})", "node_domain_mapping is not a dictionary"},
        {R"({"node_domain_mapping": {"n": 1}})", "readNodeDomainMapping dictionary value not string for node: n"},
    };
    for (const auto& [text, reason] : documents) {
        const TraceCapture traces("KESA_RUNTIME_CONFIG", 3);
        ConfigReport report;
        const KesaConfig config = read(text, &report);
        EXPECT_FALSE(config.m_valid) << text;
        expectDefaults(config);
        const Strings lines = traces.take();
        ASSERT_FALSE(lines.empty()) << text;
        EXPECT_EQ(lines.back(), "3 [readConfig] failed to the config file, reason = " + reason) << text;
        EXPECT_THAT(report.complaints, Contains(testing::Field(&ConfigReport::Complaint::isFatal, true))) << text;
    }
}

TEST(KesaConfigTest, NamesTheLineOfASyntaxError)
{
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 3);
    EXPECT_FALSE(read("{\n  \"use_registry\": tru\n}").m_valid);
    EXPECT_THAT(traces.take(), ElementsAre(testing::HasSubstr("reason = 2:")));
}

TEST(KesaConfigTest, ReadsTheRegistryKeys)
{
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 1);
    const KesaConfig config = read(R"({"use_registry": true, "service_registry_locators": ["ipc://r/registry"]})");
    EXPECT_TRUE(config.m_useRemoteRegistry);
    EXPECT_THAT(config.m_registryLocators, UnorderedElementsAre(Pair("*", ElementsAre(url("ipc://r/registry")))));
    EXPECT_THAT(traces.take(),
                ElementsAre("2 [readConfig] use_local_registry=OFF", "2 [readConfig] use_registry=ON",
                            "2 [readConfig] use_registry=1", "2 [readRegistryLocator] partition='*'",
                            "2 [readConfig] *[0]=ipc://r/registry", "2 [readRegistryLocator] partition='*' locators=1",
                            "3 [readConfig] serializer-formats is undefined. Falling back to defaults"));
}

// One bad partition must not cut the others off from their registry.
TEST(KesaConfigTest, ToleratesBadPartitions)
{
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 3);
    ConfigReport report;
    const KesaConfig config = read(R"({"serializer-formats": ["application/json"], "service_registry_locators":
        {"a": ["ipc://a", "b b", "ipc://c"], "b": ["b b"], "c": 1, "d": [], "e": ["/registry"]}})",
                                   &report);
    EXPECT_TRUE(config.m_valid);
    EXPECT_THAT(config.m_registryLocators,
                UnorderedElementsAre(Pair("a", ElementsAre(url("ipc://a"))), Pair("e", ElementsAre(url("/registry")))));
    EXPECT_THAT(traces.take(), ElementsAre("3 [readRegistryLocator] unknown registry locator",
                                           "3 [readRegistryLocator] unknown registry locator",
                                           "4 [readRegistryLocator] registry locator is not array"));
    ASSERT_EQ(report.complaints.size(), 3U);
    EXPECT_EQ(report.complaints[0].path, "service_registry_locators.a[1]");
    EXPECT_FALSE(report.complaints[0].isFatal);
    EXPECT_TRUE(read(R"({"service_registry_locators": 7})").m_valid);
}

TEST(KesaConfigTest, SkipsUnknownBackendsAndFormats)
{
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 3);
    const KesaConfig config = read(R"({"backends": ["local", "dbus", "comm", "comm"],
        "serializer-formats": ["text/html", "application/vnd.qelbin", "application/json"]})");
    EXPECT_TRUE(config.m_valid);
    EXPECT_THAT(config.m_backends, ElementsAre("local", "comm", "comm"));
    EXPECT_THAT(config.m_serializers, UnorderedElementsAre(Pair("*", Strings{QELBIN, JSON})));
    EXPECT_THAT(traces.take(), ElementsAre("3 [readConfig] unknown backend 'dbus' configured",
                                           "3 [readConfig] unknown serializer-format 'text/html' configured"));
}

TEST(KesaConfigTest, DefinesADefaultRuleOfFormats)
{
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 3);
    EXPECT_THAT(read(R"({"serializer-formats": {"/a": ["application/vnd.qelbin"]}})").m_serializers,
                UnorderedElementsAre(Pair("/a", Strings{QELBIN}), Pair("*", Strings{JSON})));
    EXPECT_THAT(traces.take(),
                ElementsAre("3 [readConfig] no default rule for serializer-formats defined. Defining one"));
}

TEST(KesaConfigTest, BuildsTheStaticServices)
{
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 1);
    const KesaConfig config =
        read(R"({"serializer-formats": {"/b": ["application/vnd.qelbin"], "*": ["application/json"]},
        "services": [
            {"path": "/media/player", "version": "1.0.0", "type": "lomo", "note": "unknown keys are ignored",
             "locators": ["tcp://host:7000", "tcp://host:7000/", "ipc://media/other?x"]},
            {"is_dynamic": true},
            {"is_dynamic": false, "path": "/b", "type": "registry", "locators": []}]})");
    ASSERT_TRUE(config.m_valid);
    using serviceregistry::ServiceDef;
    ServiceDef player(Path("/media/player"), ServiceDef::TypeEnum::lomo, {"1.0.0"},
                      {url("tcp://host:7000/media/player"), url("tcp://host:7000/"), url("ipc://media/other?x")});
    player.metainfo = GenericObject{{"versions", toGeneric({"1.0.0"})}};
    player.serializationFormats = Strings{JSON};
    ServiceDef other(Path("/b"), ServiceDef::TypeEnum::registry, {}, {});
    other.metainfo = GenericObject{{"versions", toGeneric({})}};
    other.serializationFormats = Strings{QELBIN};
    ASSERT_EQ(config.m_services.size(), 2U);
    EXPECT_TRUE(config.m_services[0] == player);
    EXPECT_TRUE(config.m_services[1] == other);
    EXPECT_THAT(traces.take(),
                testing::IsSupersetOf({"2 [readConfig] service: path=/media/player, type=lomo, loc#=3 version='1.0.0'",
                                       "2 [readConfig] service: path=/b, type=registry, loc#=0 version=''"}));
}

TEST(KesaConfigTest, ReadsBypassAndNodeMapping)
{
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 1);
    const KesaConfig config = read(R"({"bypass": {"a": ["/x", "/y"], "b": []}, "node_domain_mapping": {"n": "d"}})");
    EXPECT_TRUE(config.m_valid);
    EXPECT_THAT(config.m_bypass, UnorderedElementsAre(Pair("a", Strings{"/x", "/y"}), Pair("b", Strings{})));
    EXPECT_THAT(config.m_nodeDomainMapping, UnorderedElementsAre(Pair("n", "d")));
    EXPECT_THAT(traces.take(), Contains("1 [readBypass] client='a' can bypass following services='/x, /y, '"));
}

TEST(SmartProxy, StoresListsThatAreThere)
{
    const auto empty = read(R"({"smartProxy": {}})").m_proxyConfig;
    EXPECT_FALSE(empty.m_timeout || empty.m_retryTimes || empty.m_mandatoryForwardErrors ||
                 empty.m_mandatroyRetryErrorsSubscribeList);
    EXPECT_EQ(empty.m_mandatroyRetryErrorsSubscribeElement, Codes{});
    EXPECT_EQ(read(R"({"smartProxy": "no object"})").m_proxyConfig.m_mandatroyRetryErrorsSubscribeElement, Codes{});

    const auto full = read(R"({"smartProxy": {"timeout": -5, "retryTimes": [1, 4294967295]}})").m_proxyConfig;
    EXPECT_EQ(full.m_timeout, -5);
    EXPECT_EQ(full.m_retryTimes, (Codes{1, 4294967295U}));
}

TEST(SmartProxy, NeverRetriesWhatMustBeForwarded)
{
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 2);
    const auto proxy = read(R"({"smartProxy": {"mandatoryForwardErrors": [500, 503],
        "mandatroyRetryErrorsSubscribeList": [503], "mandatroyRetryErrorsSubscribeElement": [503, 503, 504]}})")
                           .m_proxyConfig;
    EXPECT_EQ(proxy.m_mandatoryForwardErrors, (Codes{500, 503}));
    EXPECT_FALSE(proxy.m_mandatroyRetryErrorsSubscribeList);
    EXPECT_EQ(proxy.m_mandatroyRetryErrorsSubscribeElement, (Codes{503, 504})) << "only the first is removed";
    EXPECT_THAT(
        traces.take(),
        Contains("2 [readConfig] 503 is in mandatoryForwardErrors and m_mandatroyRetryErrorsSubscribeList erase it"));
    EXPECT_FALSE(read(R"({"smartProxy": {"mandatoryForwardErrors": [500]}})")
                     .m_proxyConfig.m_mandatroyRetryErrorsSubscribeElement);
}

// The first failure ends reading. Registries, backends, formats and services go back to their defaults; what the
// other steps stored before it stays.
TEST(KesaConfigTest, KeepsWhatWasReadBeforeAFailure)
{
    const KesaConfig config = read(R"({"use_registry": true, "use_local_registry": true, "backends": ["local"],
        "serializer-formats": ["application/vnd.qelbin"], "service_registry_locators": ["ipc://r/registry"],
        "services": [{"path": "/a", "type": "pex", "locators": []}],
        "bypass": {"a": ["/x"], "b": 1, "c": ["/x"]}, "smartProxy": {"timeout": 1}})");
    EXPECT_FALSE(config.m_valid);
    expectDefaults(config);
    EXPECT_EQ(config.m_registryLocators.count("*"), 1U);
    EXPECT_THAT(config.m_bypass, UnorderedElementsAre(Pair("a", Strings{"/x"})));
    EXPECT_FALSE(config.m_proxyConfig.m_timeout);
}

} // namespace
} // namespace kesa::runtime::v02
