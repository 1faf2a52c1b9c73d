// Reading the document: what each key means, what makes a document invalid and with which words, what survives that.
#include <kesa/toGeneric.h>
#include <runtime/v02/config/ConfigReport.h>
#include <runtime/v02/config/KesaConfig.h>
#include <runtime/v02/config/addFurtherErrors.h>
#include <runtime/v02/config/reviewDocument.h>
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
    const KesaConfig empty = read("{}");
    for (const KesaConfig* config : {&empty, &KesaConfig::getDefault()}) {
        expectDefaults(*config);
        EXPECT_TRUE(config->m_valid);
        EXPECT_FALSE(config->m_proxyConfig.m_timeout);
    }
}

TEST(KesaConfigTest, RefusesWithTheReason)
{
    const std::string service = R"("path": "/a", "type": "pex", "locators": [])";
    const struct {
        std::string text;
        std::string reason;
    } documents[] = {
        {R"([])", "root is not dictionary"},
        {"{\n  \"use_registry\": tru\n}", "2:22: expected a value"},
        {R"({"use_local_registry": 1})", "local registy not bool"},
        {R"({"use_registry": null})", "(remote) registy not bool"},
        {R"({"service_registry_locators": ["ipc://a", "a b"]})", "unknown registry locator"},
        {R"({"backends": "comm"})", "backends is not array"},
        {R"({"backends": ["Comm", "dbus"]})", "no backend configured"},
        {R"({"serializer-formats": 1})", "serializer-formats is neither array nor dictionary"},
        {R"({"serializer-formats": ["application/vnd.msgpack"]})", "no serializer-format configured"},
        {R"({"serializer-formats": {"/a": "application/json"}})", "no serializer-format configured"},
        {R"({"serializer-formats": {"/a": ["application/json", 1]}})", ""},
        {R"({"services": {}})", "services is not array"},
        {R"({"services": [{"path": "a"}]})", "service path not absolute"},
        {R"({"services": [{"path": "/a", "type": "PEX"}]})", "service type unknown"},
        {R"({"services": [{"path": "/a", "type": "pex"}]})", "locators is not array"},
        {R"({"services": [{)" + service + R"(}, {"path": "/a", "type": "pex", "locators": [1]}]})", ""},
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
    EXPECT_THAT(read(R"({"service_registry_locators": ["ipc://r/registry"]})").m_registryLocators,
                UnorderedElementsAre(Pair("*", ElementsAre(url("ipc://r/registry")))));
}

// The fixed texts say what; these say where, and what to write. Keys that are like none may be anybody's.
TEST(KesaConfigTest, SaysWhereTheFaultIsAndWhatToWrite)
{
    const TraceCapture traces("KESA_UTIL_CONFIG", 3);
    const std::string begin = " [configuration] the document given to the runtime: ";
    EXPECT_FALSE(read(R"({"use_regisrty": true, "note": 1, "serializer-formats": ["text/html", "application/json"],
        "services": [{"path": "/a", "type": "PEX"}]})")
                     .m_valid);
    EXPECT_THAT(
        traces.take(),
        ElementsAre("3" + begin +
                        "serializer-formats[0]: unknown serializer-format 'text/html' configured: known are "
                        "\"application/json\" and \"application/vnd.qelbin\"",
                    "4" + begin +
                        "services[0].type: service type unknown: known are \"pex\", \"lomo\", "
                        "\"gateway\" and \"registry\"",
                    "3" + begin + "use_regisrty: ignored: unknown key 'use_regisrty'; did you mean 'use_registry'?",
                    "4" + begin +
                        "it does not count; with the defaults, which do, this process finds no other process"));
    EXPECT_TRUE(read(R"({"service_registry_locators": ["ipc://r/registry"], "other": {}})").m_valid);
    EXPECT_THAT(traces.take(), ElementsAre());
    std::string mistyped;
    for (int i = 0; i < 12; ++i) {
        mistyped += R"("use_registry)" + std::string(1, static_cast<char>('a' + i)) + R"(": true, )";
    }
    EXPECT_TRUE(read("{" + mistyped + R"("bypass": {}})").m_valid);
    const Strings lines = traces.take();
    ASSERT_EQ(lines.size(), 11U);
    EXPECT_EQ(lines.back(), "3" + begin + "2 more like these");
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

// They are kept as they are: whoever wrote them is told, and nobody else's reading of them is known.
TEST(KesaConfigTest, WarnsOfLocatorsThatLeadNowhere)
{
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 3);
    ConfigReport report;
    const KesaConfig config = read(R"({"serializer-formats": ["application/json"],
        "service_registry_locators": {"a": ["ipc://r"], "b": ["ipc://r/registry", "/registry", "ipc://r/"]},
        "services": [
            {"path": "/a b", "type": "pex", "locators": ["ipc://p", "ipc://p/a%20b"]},
            {"path": "/100%", "type": "pex", "locators": ["ipc://p"]},
            {"path": "/q?x", "type": "pex", "locators": ["ipc://p"]},
            {"path": "/c/", "type": "pex", "locators": ["ipc://p/", "ipc://p/c", "ipc://p/c?x"]}]})",
                                   &report);
    EXPECT_TRUE(config.m_valid);
    EXPECT_EQ(config.m_services.at(0).locators.at(0).toString(), "ipc://p/a b");
    reviewDocument(report);
    const std::string why = "' leads nowhere: not every character of the path may stand in a locator; write the whole "
                            "locator, with the path percent-encoded";
    EXPECT_THAT(traces.take(), ElementsAre("3 [readConfig] 'ipc://p/a b" + why, "3 [readConfig] 'ipc://p/100%" + why,
                                           "3 [readConfig] 'ipc://p/q?x" + why));
    Strings complaints;
    for (const auto& complaint : report.complaints) {
        complaints.push_back(complaint.path + ": " + complaint.text);
    }
    EXPECT_THAT(complaints,
                ElementsAre("services[0].locators[0]: 'ipc://p/a b" + why,
                            "services[1].locators[0]: 'ipc://p/100%" + why,
                            "services[2].locators[0]: 'ipc://p/q?x" + why,
                            "services[3].path: '/c/' is no path of a service: nobody can reach it",
                            "services[3].locators[0]: leads nowhere: '/' is no path of a service",
                            "services[3].locators[2]: leads nowhere: the locator of a service has no query and no "
                            "fragment",
                            "service_registry_locators.a[0]: leads nowhere: '' is no path of a service",
                            "service_registry_locators.b[2]: leads nowhere: '/' is no path of a service"));
}

// The reader ends with the first error; whoever writes a document wants to see all.
TEST(KesaConfigTest, ReviewFindsTheErrorsBehindTheFirstOne)
{
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 3);
    const std::string longKey(300, 'k');
    ConfigReport report;
    const KesaConfig config =
        read(R"({"use_registry": 1, "service_registry_locators": {"a.b[0]": [5, "ipc://r/x", "", ""]},
        "backends": [1, "comm", 2], "serializer-formats": {"*": ["application/json", 2], "/a": "x"},
        "services": [7, {"path": "a", "type": "b", "locators": [1, "ipc://p", "/x"]}, {"is_dynamic": 1}],
        "bypass": {")" +
                 longKey + R"(": ["/b", "a", 1], "m": 1}, "smartProxy": {"timeout": "x", "retryTimes": ["a"]},
        "node_domain_mapping": {"a": 1, "b": 2}})",
             &report);
    EXPECT_FALSE(config.m_valid);
    EXPECT_EQ(report.complaints.size(), 1U);
    addFurtherErrors(report);
    Strings places;
    for (const auto& complaint : report.complaints) {
        places.push_back(complaint.path);
    }
    const std::string shortened(256, 'k');
    EXPECT_THAT(places,
                testing::UnorderedElementsAre(
                    "use_registry", "service_registry_locators.a.b[0][0]", "service_registry_locators.a.b[0][2]",
                    "service_registry_locators.a.b[0][3]", "backends[0]", "backends", "backends[2]",
                    "serializer-formats.*[1]", "serializer-formats./a", "services[1].path", "services[1].type",
                    "services[1].locators[0]", "services[1].locators[2]", "services[2].is_dynamic",
                    "bypass." + shortened + "[1]", "bypass." + shortened + "[2]", "bypass.m", "smartProxy.timeout",
                    "smartProxy.retryTimes[0]", "smartProxy.retryTimes", "node_domain_mapping.a",
                    "node_domain_mapping.b", "services[0].path"));
}

TEST(SmartProxy, StoresListsThatAreThereAndNeverRetriesWhatMustBeForwarded)
{
    const auto read = [](const std::string& text) {
        return KesaConfig("p", R"({"smartProxy": )" + text + "}").m_proxyConfig;
    };
    EXPECT_EQ(read("{}").m_mandatroyRetryErrorsSubscribeElement, Codes{});
    EXPECT_FALSE(read("{}").m_mandatroyRetryErrorsSubscribeList);
    EXPECT_EQ(read(R"("no object")").m_mandatroyRetryErrorsSubscribeElement, Codes{});
    EXPECT_FALSE(read(R"({"mandatoryForwardErrors": [500]})").m_mandatroyRetryErrorsSubscribeElement);

    const auto proxy = read(R"({"timeout": -5, "retryTimes": [1, 4294967295], "mandatoryForwardErrors": [500, 503],
        "mandatroyRetryErrorsSubscribeList": [503], "mandatroyRetryErrorsSubscribeElement": [503, 503, 504]})");
    EXPECT_EQ(proxy.m_timeout, -5);
    EXPECT_EQ(proxy.m_retryTimes, (Codes{1, 4294967295U}));
    EXPECT_EQ(proxy.m_mandatoryForwardErrors, (Codes{500, 503}));
    EXPECT_FALSE(proxy.m_mandatroyRetryErrorsSubscribeList);
    EXPECT_EQ(proxy.m_mandatroyRetryErrorsSubscribeElement, (Codes{503, 504})) << "only the first is removed";
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
