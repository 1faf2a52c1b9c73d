// Registering and withdrawing: who is told what, in which order, and every refusal.
#include "RuntimeFixture.h"

#include <kesa/toGeneric.h>

namespace kesa::runtime::v02::test {
namespace {

using TypeEnum = ServiceDef::TypeEnum;

class RegistrationTest : public RuntimeFixture {
protected:
    static std::unique_ptr<IResponseHandler<ServiceDef>> recordHandler(ServiceDef& record)
    {
        return std::make_unique<responsehandlers::FuncResponseHandler<ServiceDef>>(
            [&record](const ServiceDef& value) {
                record = value;
                return false;
            },
            [](const Response&) { FAIL(); }, [] {});
    }
};

constexpr const char* STATIC_DOCUMENT = R"({"use_local_registry": true, "services": [
    {"path": "/mine", "type": "pex", "locators": ["fake://me/mine"]},
    {"path": "/mine", "type": "lomo", "locators": ["fake://me/second"]},
    {"path": "/refused", "type": "pex", "locators": ["fake://me/refused"]},
    {"path": "/other", "type": "pex", "locators": ["fake://other/other"]}]})";

TEST_F(RegistrationTest, theRecordSaysWhoProvidesWhatAndHow)
{
    m_runtime = startRuntime(R"({"use_local_registry": true, "serializer-formats":
        {"/a": ["application/vnd.qelbin"], "*": ["application/json"]}})");
    ServiceDef record;
    const auto registered = [&](const std::string& path, const GenericObject& metainfo) {
        auto disposable = m_runtime->registerService(path, service(), TypeEnum::lomo, metainfo, recordHandler(record));
        run();
        return disposable;
    };
    auto a = registered("/a", {{"versions", "1.0.0"}, {"x", 1}});
    EXPECT_THAT(record.versions, ElementsAre("1.0.0"));
    EXPECT_EQ(record.metainfo, (GenericObject{{"versions", toGeneric({"1.0.0"})}, {"x", 1}, {"provider", "me"}}));
    EXPECT_THAT(*record.serializationFormats, ElementsAre("application/vnd.qelbin"));
    a.dispose();

    auto external = registered("/a", {{"$external_lomo", true}, {"versions", toGeneric({"1.0.0", "2.0.0"})}});
    EXPECT_THAT(record.versions, ElementsAre("1.0.0", "2.0.0"));
    EXPECT_THAT(*record.serializationFormats, ElementsAre("application/json"));
    for (const util::config::Value& wrong :
         {util::config::Value(5), util::config::Value(util::config::Value::Array{"1.0.0", 2})}) {
        Disposable none;
        EXPECT_THAT(
            traced(3,
                   [&] {
                       none = registered("/b", {{"versions", wrong}});
                   }),
            ElementsAre(
                "3 [registerService] '/b' is registered without versions: \"versions\" in its metainfo is " +
                    wrong.toText() + "; write a text, as \"1.0.0\", or a list of texts",
                HasSubstr("remote registry not available and service='/b' is not statically configured"),
                AllOf(HasSubstr("no other process finds '/b' by its path"),
                      HasSubstr(R"(add {"path": "/b", "type": "lomo", "locators": ["fake://me/b"]} to "services")"))));
        EXPECT_THAT(record.versions, IsEmpty());
        none.dispose();
    }
    external.dispose();
    m_runtime = startRuntime(R"({"use_registry": true, "services": 5})");
    EXPECT_THAT(
        traced(3, [&] { external = registered("/b", {}); }),
        Contains(HasSubstr("no other process finds '/b' by its path, since it has no configuration file, and no "
                           "valid text in place of one: kesactl check-config says why")))
        << "not that it lacks what it has";
}

TEST_F(RegistrationTest, refusalsReachTheRegistratorAloneOnTheUpdater)
{
    m_runtime = startRuntime();
    auto first = registerService("/a", "first");
    run();
    m_journal->take();
    auto second = registerService("/a", "second");
    EXPECT_THAT(
        happened(),
        ElementsAre(AllOf(HasSubstr("second: 409: this process has registered it; end that registration before"),
                          HasSubstr("assigning to that ends it only afterwards")),
                    "second: ~"));

    m_network->refusedPaths = {"/c"};
    auto dropped = registerService("/c", "dropped");
    EXPECT_THAT(happened(), ElementsAre("dropped: 409: the fake refuses it", "dropped: ~"));
    EXPECT_THAT(traced(4, [&] { dropped.dispose(); }), ElementsAre(HasSubstr("can not find service=")));
    EXPECT_EQ(m_livingServices, 1);

    // Disposing acts on the path: the one refused takes the one in its way with it.
    m_journal->take();
    EXPECT_THAT(traced(3, [&] { second.dispose(); }),
                ElementsAre(HasSubstr("the registration of '/a' that is disposed was refused, or has ended: this ends "
                                      "another one")));
    EXPECT_THAT(happened(), ElementsAre("first: ~", "registration unregister"));
    first.dispose();
    EXPECT_THAT(happened(), IsEmpty());
}

TEST_F(RegistrationTest, badArgumentsAreRefusedWithASentence)
{
    m_runtime = startRuntime();
    for (const char* const path : {"", "/", "//", "a", "/a/", "//a", "/a/../b", "/a\n", "/a*"}) {
        const std::string complaint = Path::complaintAboutService(path);
        auto registration = registerService(path, "r");
        auto tracking = track(path, "t");
        auto resolving = follow(path, "s");
        EXPECT_THAT(happened(), ElementsAre("r: 400: " + complaint, "r: ~", "t: 400: " + complaint, "t: ~",
                                            "s: 400: " + complaint, "s: ~"));
        registration.dispose();
        tracking.dispose();
        resolving.dispose();
    }
    auto null = m_runtime->registerService("/a", nullptr, TypeEnum::pex, {}, handler<ServiceDef>("r"));
    EXPECT_THAT(happened(), ElementsAre("r: 400: the service object is null", "r: ~"));

    const Lines warnings = traced(3, [&] {
        m_runtime->registerService("/a", service(), TypeEnum::pex, {}, nullptr).dispose();
        m_runtime->trackService("/a", nullptr).dispose();
        m_runtime->trackServices(Query("**"), nullptr).dispose();
        m_runtime->resolveService(url("fake://me/a"), nullptr).dispose();
        m_runtime->resolveService(ServiceDef(), nullptr).dispose();
        m_runtime->trackAndResolveService("/a", nullptr).dispose();
        m_runtime->trackAndResolveServices(Query("**"), nullptr).dispose();
    });
    EXPECT_EQ(warnings.size(), 7U);
    EXPECT_THAT(happened(), IsEmpty());
    EXPECT_FALSE(m_network->isProvided("fake://me/a"));
}

TEST_F(RegistrationTest, aStaticServiceKeepsItsEntryAndItsPlace)
{
    m_runtime = startRuntime(STATIC_DOCUMENT);
    auto tracking = track("/mine", "t");
    EXPECT_THAT(happened(), ElementsAre("tracking start"));
    auto registration = registerService("/mine", "r", TypeEnum::pex, {{"versions", "1.0.0"}});
    EXPECT_THAT(happened(), ElementsAre("r: /mine fake://me/mine", "registration register", "registration success",
                                        "tracking update", "t: ADDED /mine"));
    registration.dispose();
    EXPECT_THAT(happened(), ElementsAre("r: ~", "registration unregister", "tracking update", "t: REMOVED /mine"));
    EXPECT_FALSE(m_network->isProvided("fake://me/mine"));
}

TEST_F(RegistrationTest, aStaticServiceIsRefusedWhenItDoesNotFit)
{
    m_runtime = startRuntime(STATIC_DOCUMENT);
    auto mismatch = registerService("/mine", "m", TypeEnum::lomo, {{"versions", "1.0.0"}});
    auto foreign = registerService("/other", "f");
    m_network->refusedPaths = {"fake://me/refused"};
    auto refused = registerService("/refused", "x");
    EXPECT_THAT(
        happened(),
        ElementsAre("m: 409: service '/minetype mismatch configured pex but registration with lomo: the "
                    "configuration has it as \"pex\", and it is registered as \"lomo\": write \"type\": \"lomo\" "
                    "there, or register it with the other type",
                    "m: ~",
                    "f: 409: the configuration gives it to another process: none of its locators is of "
                    "this one, 'me'",
                    "f: ~", "x: 409: the fake refuses it", "x: ~"));

    // Nothing was registered, so there is nothing to withdraw: the service of the other process stays.
    auto tracking = track("/other", "t");
    EXPECT_THAT(happened(), ElementsAre("tracking start", "tracking update", "t: ADDED /other"));
    EXPECT_THAT(traced(4, [&] { foreign.dispose(); }),
                ElementsAre("4 [performUnregistration] no ServiceDev for service='/other'"));
    EXPECT_THAT(happened(), IsEmpty());

    // The versions of the refused registration stay.
    ServiceDef record;
    auto accepted = m_runtime->registerService("/mine", service(), TypeEnum::pex, {"2.0.0"}, {}, recordHandler(record));
    run();
    EXPECT_THAT(record.versions, ElementsAre("1.0.0"));
}

} // namespace
} // namespace kesa::runtime::v02::test
