// The records as values: names of the enumerations, equality, copies.
#include <kesa/serviceregistry/MetainfoKeys.h>
#include <kesa/serviceregistry/Query.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <kesa/toGeneric.h>

#include <gmock/gmock.h>

namespace kesa::serviceregistry {
namespace {

template <class Enum, class ToValue, class FromValue>
void expectNames(const std::vector<std::string>& names, ToValue toValue, FromValue fromValue)
{
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(toValue(static_cast<Enum>(i)), names[i]);
        EXPECT_EQ(fromValue(names[i]), static_cast<Enum>(i));
        EXPECT_FALSE(fromValue(names[i] + " ") || fromValue(names[i].substr(1)));
    }
    EXPECT_FALSE(toValue(static_cast<Enum>(names.size())) || fromValue(""));
}

TEST(Enumerations, HaveExactNames)
{
    using Type = ServiceDef::TypeEnum;
    using Update = RegistryUpdate::UpdateTypeEnum;
    expectNames<Type>(
        {"pex", "lomo", "gateway", "registry"}, [](Type type) { return ServiceDef::enumToValue(type); },
        [](const std::string& text) { return ServiceDef::valueToTypeEnum(text); });
    expectNames<Update>(
        {"ADDED", "MODIFIED", "REMOVED"}, [](Update type) { return RegistryUpdate::enumToValue(type); },
        [](const std::string& text) { return RegistryUpdate::valueToUpdateTypeEnum(text); });
    expectNames<MetainfoKeys>(
        {"description", "external", "is_dynamic", "locators", "provider", "servicecategory", "type", "versions"},
        [](MetainfoKeys key) { return enumToValue(key); },
        [](const std::string& text) { return valueToMetainfoKeys(text); });
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
