// The records as values: names of the enumerations, equality, copies.
#include <kesa/serviceregistry/MetainfoKeys.h>
#include <kesa/serviceregistry/Query.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <kesa/toGeneric.h>

#include <gmock/gmock.h>

namespace kesa::serviceregistry {
namespace {

TEST(Enumerations, HaveExactNames)
{
    const std::vector<std::string> types = {"pex", "lomo", "gateway", "registry"};
    for (std::size_t i = 0; i < types.size(); ++i) {
        EXPECT_EQ(ServiceDef::enumToValue(static_cast<ServiceDef::TypeEnum>(i)), types[i]);
        EXPECT_EQ(ServiceDef::valueToTypeEnum(types[i]), static_cast<ServiceDef::TypeEnum>(i));
    }
    const std::vector<std::string> updates = {"ADDED", "MODIFIED", "REMOVED"};
    for (std::size_t i = 0; i < updates.size(); ++i) {
        EXPECT_EQ(RegistryUpdate::enumToValue(static_cast<RegistryUpdate::UpdateTypeEnum>(i)), updates[i]);
        EXPECT_EQ(RegistryUpdate::valueToUpdateTypeEnum(updates[i]), static_cast<RegistryUpdate::UpdateTypeEnum>(i));
    }
    const std::vector<std::string> keys = {"description", "external",        "is_dynamic", "locators",
                                           "provider",    "servicecategory", "type",       "versions"};
    for (std::size_t i = 0; i < keys.size(); ++i) {
        EXPECT_EQ(enumToValue(static_cast<MetainfoKeys>(i)), keys[i]);
        EXPECT_EQ(valueToMetainfoKeys(keys[i]), static_cast<MetainfoKeys>(i));
    }
}

TEST(Enumerations, RefuseWhatIsNotInTheTable)
{
    std::string text = "kept";
    EXPECT_TRUE(ServiceDef::enumToValue(static_cast<ServiceDef::TypeEnum>(4), text));
    EXPECT_TRUE(RegistryUpdate::enumToValue(static_cast<RegistryUpdate::UpdateTypeEnum>(3), text));
    EXPECT_TRUE(enumToValue(static_cast<MetainfoKeys>(8), text));
    EXPECT_EQ(text, "kept");

    auto type = ServiceDef::TypeEnum::gateway;
    for (const char* const wrong : {"Registry", "pex ", "pe", ""}) {
        EXPECT_TRUE(ServiceDef::valueToEnum(wrong, type)) << wrong;
    }
    EXPECT_EQ(type, ServiceDef::TypeEnum::gateway);
    EXPECT_FALSE(RegistryUpdate::valueToUpdateTypeEnum("added"));
    for (const char* const wrong : {"", "service", "servicecategory2", "zzz", "Type"}) {
        EXPECT_FALSE(valueToMetainfoKeys(wrong)) << wrong;
    }
}

ServiceDef example()
{
    return ServiceDef(Path("/media"), ServiceDef::TypeEnum::lomo, {"1.0.0", "2.0.0"}, {url("ipc://media/media")});
}

TEST(ServiceDefEquality, LooksAtEveryField)
{
    ServiceDef built;
    built.path = Path("/media");
    built.type = ServiceDef::TypeEnum::lomo;
    built.versions = {"1.0.0", "2.0.0"};
    built.locators = {url("ipc://media/media")};
    EXPECT_TRUE(built == example());

    const std::vector<void (*)(ServiceDef&)> changes = {
        [](ServiceDef& s) { s.path = Path("/media/"); },
        [](ServiceDef& s) { s.type = ServiceDef::TypeEnum::pex; },
        [](ServiceDef& s) { std::swap(s.versions[0], s.versions[1]); },
        [](ServiceDef& s) { s.locators[0] = url("ipc://media"); },
        [](ServiceDef& s) { s.locators.clear(); },
        [](ServiceDef& s) { s.id = obr::UUID(); },
        [](ServiceDef& s) { s.metainfo = GenericObject(); },
        [](ServiceDef& s) { s.serializationFormats.emplace(); },
        [](ServiceDef& s) { s.hostDomain = ""; },
        [](ServiceDef& s) { s.scope.emplace(); },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        ServiceDef changed = example();
        changes[i](changed);
        EXPECT_FALSE(changed == example()) << i;
        EXPECT_TRUE(changed == ServiceDef(changed)) << i;
    }
}

// Watchers compare updates to find out whether they hold the very same record; equal contents are no reason to take
// one for the other.
TEST(RegistryUpdateEquality, IsIdentityOfTheElement)
{
    const RegistryUpdate update(RegistryUpdate::UpdateTypeEnum::ADDED, std::make_shared<ServiceDef>(example()));
    const RegistryUpdate copy = update;
    EXPECT_TRUE(copy == update);
    EXPECT_FALSE(RegistryUpdate(update.updateType, std::make_shared<ServiceDef>(*update.element)) == update);
    EXPECT_FALSE(RegistryUpdate(RegistryUpdate::UpdateTypeEnum::REMOVED, update.element) == update);
}

} // namespace
} // namespace kesa::serviceregistry
