// Reading the document: what each key means, what makes a document invalid and with which words, what survives that.
// ConfigurationPage_test.cpp has a complaint of each key; what a review of the whole document finds, the sessions of
// kesactl check-config show (every_error, leads_nowhere).
#include <kesa/toGeneric.h>
#include <runtime/v02/config/ConfigReport.h>
#include <runtime/v02/config/KesaConfig.h>
#include <tracing/CapturingSink.h>

#include <gmock/gmock.h>

namespace kesa::runtime::v02 {
namespace {

using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;
using Strings = std::vector<std::string>;
using ::tracing::TraceCapture;
using Codes = std::vector<std::uint32_t>;

const std::string JSON = "application/json";
const std::string QELBIN = "application/vnd.qelbin";

KesaConfig read(const std::string& text)
{
    return KesaConfig("process", text);
}

void expectDefaults(const KesaConfig& config)
{
    EXPECT_FALSE(config.m_useRemoteRegistry || config.m_useLocalRegistry);
    EXPECT_THAT(config.m_backends, ElementsAre("comm"));
    EXPECT_TRUE(config.m_services.empty());
    EXPECT_THAT(config.m_serializers, UnorderedElementsAre(Pair("*", Strings{JSON})));
}

TEST(KesaConfig, TakesDefaultsForWhatIsAbsent)
{
    const KesaConfig empty = read("{}");
    for (const KesaConfig* config : {&empty, &KesaConfig::getDefault()}) {
        expectDefaults(*config);
        EXPECT_TRUE(config->m_valid);
    }
}

TEST(KesaConfig, RefusesWithTheReason)
{
    const std::pair<const char*, const char*> documents[] = {
        {R"([])", "root is not dictionary"},
        {"{\n  \"use_registry\": tru\n}", "2:22: expected a value"},
        {R"({"service_registry_locators": ["ipc://a", "a b"]})", "unknown registry locator"},
        {R"({"backends": ["Comm", "dbus"]})", "no backend configured"},
        {R"({"serializer-formats": ["application/vnd.msgpack"]})", "no serializer-format configured"},
        {R"({"serializer-formats": {"/a": "application/json"}})", "no serializer-format configured"},
        {R"({"serializer-formats": {"/a": ["application/json", 1]}})", ""},
        {R"({"services": [{"path": "/b", "type": "pex", "locators": []}, {"path": "/a", "type": "pex"}]})",
         "locators is not array"},
        {R"({"services": [{"path": "/a", "type": "pex", "locators": [1]}]})", ""},
        {R"({"services": [{"path": "/a", "type": "pex", "locators": ["tcp://h:1#x"]}]})",
         "service locator is not an url"},
        {R"({"bypass": {"a": {}}})", "client not mapped to an array"},
        {R"({"bypass": {"a": ["/x", 1]}})", "invalid service path in bypass"},
        {R"({"bypass": {"a": ["x"]}})", "service path not absolute"},
        {R"({"smartProxy": {"timeout": 2147483648}})", "timeout not int"},
        {R"({"smartProxy": {"retryTimes": []}})", "key was configured but it is an empty array"},
        {R"({"smartProxy": {"retryTimes": 1}})", "key is not array"},
        {R"({"smartProxy": {"retryTimes": [1, "2"]}})", ""},
        {R"({"node_domain_mapping": {"n": 1}})", "readNodeDomainMapping dictionary value not string for node: n"},
    };
    for (const auto& [text, reason] : documents) {
        const TraceCapture traces("KESA_RUNTIME_CONFIG", 3);
        const KesaConfig config = read(text);
        EXPECT_FALSE(config.m_valid) << text;
        expectDefaults(config);
        EXPECT_EQ(traces.take().back(), std::string("3 [readConfig] failed to the config file, reason = ") + reason);
    }
}

// One bad partition must not cut the others off from their registry, nor an unknown name the process from the others.
TEST(KesaConfig, ToleratesBadPartitionsAndUnknownNames)
{
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 3);
    const KesaConfig config = read(R"({"backends": ["local", "dbus", "comm", "comm"],
        "serializer-formats": ["text/html", "application/vnd.qelbin", "application/json"], "service_registry_locators":
        {"a": ["ipc://a", "b b", "ipc://c"], "b": ["b b"], "c": 1, "d": [], "e": ["/registry"]},
        "services": [{"path": "/a b", "type": "pex", "locators": ["ipc://p"]}]})");
    EXPECT_TRUE(config.m_valid);
    EXPECT_THAT(config.m_registryLocators,
                UnorderedElementsAre(Pair("a", ElementsAre(url("ipc://a"))), Pair("e", ElementsAre(url("/registry")))));
    EXPECT_THAT(config.m_backends, ElementsAre("local", "comm", "comm"));
    EXPECT_THAT(config.m_serializers, UnorderedElementsAre(Pair("*", Strings{QELBIN, JSON})));
    EXPECT_THAT(traces.take(), ElementsAre("3 [readRegistryLocator] unknown registry locator",
                                           "3 [readRegistryLocator] unknown registry locator",
                                           "4 [readRegistryLocator] registry locator is not array",
                                           "3 [readConfig] unknown backend 'dbus' configured",
                                           "3 [readConfig] unknown serializer-format 'text/html' configured",
                                           testing::StartsWith("3 [readConfig] 'ipc://p/a b' leads nowhere: not ")));
    EXPECT_EQ(config.m_services.at(0).locators.at(0).toString(), "ipc://p/a b") << "kept as it is";
    EXPECT_TRUE(read(R"({"service_registry_locators": 7})").m_valid);
    EXPECT_THAT(read(R"({"service_registry_locators": ["ipc://r/registry"]})").m_registryLocators,
                UnorderedElementsAre(Pair("*", ElementsAre(url("ipc://r/registry")))));
    traces.take();
    EXPECT_THAT(read(R"({"serializer-formats": {"/a": ["application/vnd.qelbin"]}})").m_serializers,
                UnorderedElementsAre(Pair("/a", Strings{QELBIN}), Pair("*", Strings{JSON})));
    EXPECT_THAT(traces.take(),
                ElementsAre("3 [readConfig] no default rule for serializer-formats defined. Defining one"));
}

// The fixed texts say what; these say where, and what to write. Keys that are like none may be anybody's.
TEST(KesaConfig, EndsTheSearchForErrorsWhenNobodyWouldReadThemAll)
{
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 3);
    std::string list = "1";
    for (int i = 1; i < 2000; ++i) {
        list += ",1";
    }
    ConfigReport report;
    EXPECT_FALSE(KesaConfig("process", R"({"backends": [)" + list + "]}", &report).m_valid);
    EXPECT_EQ(report.complaints.size(), 1002U);
    EXPECT_EQ(report.complaints.back().sentence(""), "there may be more errors; correct these first");
}

TEST(KesaConfig, SaysWhereTheFaultIsAndWhatToWrite)
{
    const TraceCapture traces("KESA_UTIL_CONFIG", 3);
    const std::string begin = " [configuration] the document given to the runtime: ";
    EXPECT_FALSE(read(R"({"use_regisrty": true, "note": 1, "services": [{"path": "/a", "type": "PEX"}]})").m_valid);
    EXPECT_THAT(
        traces.take(),
        ElementsAre("4" + begin +
                        "services[0].type: service type unknown; known are \"pex\", \"lomo\", "
                        "\"gateway\" and \"registry\"",
                    "3" + begin + "use_regisrty: ignored: unknown key 'use_regisrty'; did you mean 'use_registry'?",
                    "4" + begin +
                        "it does not count; with the defaults, which do, this process finds no other process"));
    const std::pair<const char*, const char*> texts[] = {
        {"[]", "expected an object, found an empty list; the document must be an object: { ... }"},
        {"{\"a\": \"\xe9\"}", "1:8: the text is not valid UTF-8; save the file as UTF-8"},
        {R"({"serializer-formats": {"*": []}})",
         "serializer-formats.*: expected a list of formats, found an empty list; write a list such as "
         "[\"application/json\"]"},
    };
    for (const auto& [text, complaint] : texts) {
        EXPECT_FALSE(read(text).m_valid);
        const Strings lines = traces.take();
        ASSERT_EQ(lines.size(), 2U) << text;
        const std::string place = begin.substr(0, begin.size() - (std::string(complaint).starts_with("1:") ? 1 : 0));
        EXPECT_EQ(lines.front(), "4" + place + complaint);
    }
    const std::pair<const char*, std::vector<std::string>> ignored[] = {
        {R"({"Kesa": {}, "note": {"use_registry": true}})",
         {"4 Kesa: ignored, with everything in it: unknown key 'Kesa'; did you mean 'kesa'?"}},
        {R"({"bypass": {}, "kesaa": {"bypass": {}}, "mesa": {}})",
         {"3 kesaa: ignored, with everything in it: unknown key 'kesaa'; did you mean 'kesa'?"}},
        {R"({"kesa": {}, "KESA": {}})",
         {"4 KESA: ignored, with everything in it: unknown key 'KESA'; did you mean 'kesa'?",
          "3 kesa: 'kesa' stands in the configuration itself, and nothing in it has an effect; move its members one "
          "level up"}},
        {R"({"comm": {"comm": {}, "retryTimes": [], "tls": 1}, "services": [{"is_dynamic": true, "run_dir": "/"}]})",
         {"3 comm.comm: 'comm' stands in \"comm\", and nothing in it has an effect; move its members one level up",
          "3 comm.retryTimes: 'retryTimes' belongs in \"smartProxy\", and has no effect here; move it there",
          "3 services[0].run_dir: 'run_dir' belongs in \"comm\", and has no effect here; move it there"}},
        {R"({"service_registry_locators": ["ipc://r/registry"]})",
         {"3 service_registry_locators: have no effect without \"use_registry\": true: no registry is asked; write "
          "\"use_registry\": true, or remove the locators"}},
        {R"({"service_registry_locators": ["ipc://r/registry"], "use_registry": false})", {}},
        {R"({"service_registry_locators": {}})", {}},
        {R"({"path": 1, "tls": {}, "type": 1, "version": 1})", {}},
    };
    for (const auto& [text, complaints] : ignored) {
        EXPECT_TRUE(read(text).m_valid) << text;
        Strings told;
        for (const std::string& complaint : complaints) {
            told.push_back(complaint.substr(0, 1) + begin + complaint.substr(2));
        }
        EXPECT_EQ(traces.take(), told) << text;
    }
    std::string mistyped;
    for (const char last : std::string("abcdefghijkl")) {
        mistyped += std::string("\"use_registry") + last + "\": true, ";
    }
    EXPECT_TRUE(read("{" + mistyped + R"("bypass": {}})").m_valid);
    const Strings lines = traces.take();
    ASSERT_EQ(lines.size(), 11U);
    EXPECT_EQ(lines.back(), "3" + begin + "2 more like these");
}

TEST(KesaConfig, BuildsTheStaticServices)
{
    const TraceCapture traces("KESA_RUNTIME_CONFIG", 2);
    const KesaConfig config =
        read(R"({"serializer-formats": {"/b": ["application/vnd.qelbin"], "*": ["application/json"]},
        "services": [
            {"path": "/media/player", "version": "1.0.0", "type": "lomo", "note": "unknown keys are ignored",
             "locators": ["tcp://host:7000", "tcp://host:7000/", "ipc://media/other?x"]},
            {"is_dynamic": true},
            {"is_dynamic": false, "path": "/b", "type": "registry", "locators": []}]})");
    using serviceregistry::ServiceDef;
    ServiceDef player(Path("/media/player"), ServiceDef::TypeEnum::lomo, {"1.0.0"},
                      {url("tcp://host:7000/media/player"), url("tcp://host:7000/"), url("ipc://media/other?x")});
    player.metainfo = GenericObject{{"versions", toGeneric({"1.0.0"})}};
    player.serializationFormats = Strings{JSON};
    ServiceDef other(Path("/b"), ServiceDef::TypeEnum::registry, {}, {});
    other.metainfo = GenericObject{{"versions", toGeneric({})}};
    other.serializationFormats = Strings{QELBIN};
    EXPECT_TRUE(config.m_services == (std::vector<ServiceDef>{player, other}));
    EXPECT_THAT(traces.take(),
                testing::IsSupersetOf({"2 [readConfig] service: path=/media/player, type=lomo, loc#=3 version='1.0.0'",
                                       "2 [readConfig] service: path=/b, type=registry, loc#=0 version=''"}));
}

TEST(KesaConfig, StoresProxyListsThatAreThereAndNeverRetriesWhatMustBeForwarded)
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
TEST(KesaConfig, KeepsWhatWasReadBeforeAFailure)
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
