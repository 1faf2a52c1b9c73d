// The records in their wire form: every format there and back, and what a reader refuses.
#include <json.h>
#include <kesa/core/PayloadConversion.h>
#include <kesa/toGeneric.h>

#include <gmock/gmock.h>

namespace kesa::serviceregistry {
namespace {

using kesa::test::json;
using serializer::fromPayload;
using serializer::readPayload;
using serializer::toPayload;
using testing::HasSubstr;

ServiceDef fullServiceDef()
{
    return ServiceDef(Path("/media/player"), ServiceDef::TypeEnum::gateway, {"1.0.0", "1.1.0"},
                      {url("ipc://media/media/player"), url("tcp://host:1/x")},
                      obr::UUID::fromString("01234567-89ab-cdef-0123-456789abcdef"),
                      GenericObject{{"provider", "media"}, {"versions", toGeneric({"1.0.0"})}, {"level", 3}},
                      std::vector<std::string>{"application/json"}, "", std::vector<std::string>{"a", "b"});
}

template <class T>
T back(const T& value, std::string_view format)
{
    const auto payload = toPayload(value, format);
    const auto read = fromPayload<T>(*payload, "T");
    EXPECT_EQ(payload->getMimeType(), format);
    EXPECT_TRUE(read) << obr::ErrorStorage::reason();
    return read.value_or(T());
}

TEST(WireForm, KeepsEveryFieldInEveryFormat)
{
    const ServiceDef full = fullServiceDef();
    const ServiceDef bare(Path("/a"), ServiceDef::TypeEnum::pex, {}, {});
    const Query query("/media/**", GenericObject{{"type", toGeneric({"pex", "lomo"})}}, true, "home");
    const std::vector<RegistryUpdate> updates = {
        {RegistryUpdate::UpdateTypeEnum::REMOVED, std::make_shared<ServiceDef>(full)},
        {RegistryUpdate::UpdateTypeEnum::ADDED, std::make_shared<ServiceDef>(bare)}};
    for (const std::string_view format : {mimetypes::JSON, mimetypes::MSGPACK, mimetypes::QELBIN}) {
        EXPECT_TRUE(back(full, format) == full);
        EXPECT_TRUE(back(bare, format) == bare);
        EXPECT_TRUE(back(query, format) == query);
        const auto read = back(updates, format);
        ASSERT_EQ(read.size(), 2U);
        EXPECT_EQ(read[0].updateType, RegistryUpdate::UpdateTypeEnum::REMOVED);
        EXPECT_TRUE(*read[0].element == full);
        EXPECT_TRUE(*read[1].element == bare);
    }
}

TEST(WireForm, InJsonHasMembersInTheOrderOfTheFieldsAndNoAbsentOnes)
{
    EXPECT_EQ(toPayload(ServiceDef(), mimetypes::JSON)->text(),
              R"({"path":"","type":"pex","versions":[],"locators":[]})");
    EXPECT_EQ(toPayload(fullServiceDef(), mimetypes::JSON)->text(),
              R"({"path":"/media/player","type":"gateway","versions":["1.0.0","1.1.0"],)"
              R"("locators":["ipc://media/media/player","tcp://host:1/x"],"id":"01234567-89ab-cdef-0123-456789abcdef",)"
              R"("metainfo":{"level":3,"provider":"media","versions":["1.0.0"]},)"
              R"("serializationFormats":["application/json"],"hostDomain":"","scope":["a","b"]})");
    EXPECT_EQ(toPayload(Query("**", GenericObject(), false, "s"), mimetypes::JSON)->text(),
              R"({"pattern":"**","metadata":{},"includeMetadata":false,"scope":"s"})");
}

TEST(WireFormReading, RefusesWithTheReason)
{
    const std::string missing = "Cannot build ServiceDef, some of required attributes are not set: ";
    const struct {
        const char* text;
        std::string reason;
    } services[] = {
        {R"({})", missing + "Path Type Versions Locators "},
        {R"({"locators":[],"path":"/a"})", missing + "Type Versions "},
        {R"({"path":"/a","versions":[],"x":{"type":"pex"}})", missing + "Type Locators "},
        {R"({"path":"/a","type":"Pex","versions":[],"locators":[]})", "'Pex' is no type of service"},
        {R"({"path":null,"type":"pex","versions":[],"locators":[]})", ""},
        {R"({"path":"/a","type":"pex","versions":[1],"locators":[]})", ""},
        {R"({"path":"/a","type":"pex","versions":[],"locators":[],"id":"no uuid"})", ""},
        {R"([])", ""},
    };
    for (const auto& [text, reason] : services) {
        ServiceDef service;
        EXPECT_TRUE(readPayload(json(text), service)) << text;
        EXPECT_TRUE(obr::ErrorStorage::isError()) << text;
        EXPECT_THAT(obr::ErrorStorage::reason(), HasSubstr(reason)) << text;
    }
    Query query;
    EXPECT_TRUE(readPayload(json(R"({"scope":"x"})"), query));
    EXPECT_EQ(obr::ErrorStorage::reason(), "Cannot build Query, some of required attributes are not set: Pattern ");
    RegistryUpdate update;
    EXPECT_TRUE(readPayload(json(R"({"unknown":[{}]})"), update));
    EXPECT_EQ(obr::ErrorStorage::reason(),
              "Cannot build RegistryUpdate, some of required attributes are not set: UpdateType Element ");
}

TEST(WireFormReading, TakesNullForAbsentAndSkipsTheUnknown)
{
    Query query("old", GenericObject(), true, "old");
    EXPECT_FALSE(readPayload(
        json(R"({"x":[1,{"y":null}],"scope":null,"metadata":null,"includeMetadata":null,"pattern":"p","z":1.5})"),
        query));
    EXPECT_TRUE(query == Query("p"));
}

// A list may come in pieces: what a record already holds and what a second occurrence brings is added up. Everything
// else is replaced.
TEST(WireFormReading, AddsUpRequiredListsOnly)
{
    ServiceDef service(Path("/old"), ServiceDef::TypeEnum::pex, {"0"}, {});
    EXPECT_FALSE(readPayload(json(R"({"path":"/a","path":"/b","type":"pex","type":"lomo","versions":["1"],)"
                                  R"("versions":["2"],"locators":["ipc://a"],"locators":["ipc://b"],)"
                                  R"("scope":["x"],"scope":["y"],"hostDomain":"d","hostDomain":null})"),
                             service))
        << obr::ErrorStorage::reason();
    ServiceDef expected(Path("/b"), ServiceDef::TypeEnum::lomo, {"0", "1", "2"}, {url("ipc://a"), url("ipc://b")});
    expected.scope = std::vector<std::string>{"y"};
    EXPECT_TRUE(service == expected);
}

TEST(WireFormReading, FailsWhileAnOlderErrorIsPending)
{
    const Payload payload = json(R"({"pattern":"p"})");
    const auto in = serializer::createDeserializerFor(payload);
    util::ByteBufferReader bytes(payload.data(), payload.size(), false);
    ASSERT_FALSE(in->attach(bytes));
    obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 7, "older");
    Query query;
    EXPECT_TRUE(serializer::deserialize(*in, query));
    EXPECT_EQ(obr::ErrorStorage::reason(), "older");
}

TEST(WireFormWriting, RefusesWhatHasNoWireForm)
{
    enum Plain { eLOUD };
    struct Flag {
        operator bool() const { return true; }
    };
    static_assert(!serializer::CAN_WRITE<Plain> && !serializer::CAN_WRITE<Flag> && !serializer::CAN_WRITE<int*> &&
                  !serializer::CAN_WRITE<char[6]> && !serializer::CAN_WRITE<void (*)()>);
    EXPECT_FALSE(toPayload(RegistryUpdate(), mimetypes::JSON));
    EXPECT_THAT(obr::ErrorStorage::reason(), HasSubstr("std::shared_ptr"));
    ServiceDef service;
    service.type = static_cast<ServiceDef::TypeEnum>(4);
    EXPECT_FALSE(toPayload(service, mimetypes::JSON));
    EXPECT_FALSE(toPayload(Query("p"), "text/html"));
    EXPECT_THAT(obr::ErrorStorage::reason(), HasSubstr("text/html"));
}

} // namespace
} // namespace kesa::serviceregistry
