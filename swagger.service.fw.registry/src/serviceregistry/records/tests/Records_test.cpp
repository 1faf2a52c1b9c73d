// The records as values: names of the enumerations and equality.
#include <kesa/core/PayloadConversion.h>
#include <kesa/serviceregistry/MetainfoKeys.h>

#include <gmock/gmock.h>

namespace kesa::serviceregistry {
namespace {

/// All names of an enumeration, each of which reads back as what it is written for.
template <class Enum>
std::string namesOf()
{
    std::string names;
    for (int ordinal = 0;; ++ordinal) {
        const auto value = static_cast<Enum>(ordinal);
        const auto written = serializer::toPayload(value, mimetypes::JSON);
        if (!written) {
            return names;
        }
        EXPECT_EQ(serializer::fromPayload<Enum>(*written, "Enum"), value);
        names += written->text();
    }
}

TEST(Enumerations, HaveExactNames)
{
    EXPECT_EQ(namesOf<ServiceDef::TypeEnum>(), R"("pex""lomo""gateway""registry")");
    EXPECT_EQ(namesOf<RegistryUpdate::UpdateTypeEnum>(), R"("ADDED""MODIFIED""REMOVED")");
    EXPECT_EQ(namesOf<MetainfoKeys>(), R"("description""external""is_dynamic""locators""provider""servicecategory")"
                                       R"("type""versions")");
    EXPECT_FALSE(ServiceDef::valueToTypeEnum("pex ") || ServiceDef::valueToTypeEnum("PEX"));
}

TEST(Equality, LooksAtEveryFieldOfAService)
{
    const ServiceDef example(Path("/media"), ServiceDef::TypeEnum::lomo, {"1.0.0", "2.0.0"},
                             {url("ipc://media/media")});
    const std::vector<void (*)(ServiceDef&)> changes = {
        [](ServiceDef& s) { s.path = Path("/media/"); },
        [](ServiceDef& s) { s.type = ServiceDef::TypeEnum::pex; },
        [](ServiceDef& s) { std::swap(s.versions[0], s.versions[1]); },
        [](ServiceDef& s) { s.locators[0] = url("ipc://media"); },
        [](ServiceDef& s) { s.id = obr::UUID(); },
        [](ServiceDef& s) { s.metainfo = GenericObject(); },
        [](ServiceDef& s) { s.serializationFormats.emplace(); },
        [](ServiceDef& s) { s.hostDomain = ""; },
        [](ServiceDef& s) { s.scope.emplace(); },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        ServiceDef changed = example;
        changes[i](changed);
        EXPECT_FALSE(changed == example) << i;
        EXPECT_TRUE(changed == ServiceDef(changed)) << i;
    }
}

// Watchers compare updates to find out whether they hold the very same record; equal contents are no reason to take
// one for the other.
TEST(Equality, OfUpdatesIsIdentityOfTheElement)
{
    const RegistryUpdate update(RegistryUpdate::UpdateTypeEnum::ADDED, std::make_shared<ServiceDef>());
    EXPECT_TRUE(RegistryUpdate(update) == update);
    EXPECT_FALSE(RegistryUpdate(update.updateType, std::make_shared<ServiceDef>()) == update);
    EXPECT_FALSE(RegistryUpdate(RegistryUpdate::UpdateTypeEnum::REMOVED, update.element) == update);
}

} // namespace
} // namespace kesa::serviceregistry
