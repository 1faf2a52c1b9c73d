#ifndef KESA_SERVICEREGISTRY_PROTOCOL_TESTS_FAKES_H
#define KESA_SERVICEREGISTRY_PROTOCOL_TESTS_FAKES_H

#include <PlayedService.h>
#include <ScriptedRegistry.h>
#include <obr/ErrorStorage.h>

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

namespace kesa::serviceregistry::test {

using kesa::test::jsonOf;
using kesa::test::Lines;
using kesa::test::noteTexts;
using kesa::test::PlayedService;
using kesa::test::ScriptedRegistry;
using Updates = std::vector<RegistryUpdate>;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

inline ServiceDef serviceAt(const std::string& path)
{
    return ServiceDef(Path(path), ServiceDef::TypeEnum::pex, {}, {});
}
inline RegistryUpdate added(const std::string& path)
{
    return RegistryUpdate(RegistryUpdate::UpdateTypeEnum::ADDED, std::make_shared<ServiceDef>(serviceAt(path)));
}
template <class T>
std::unique_ptr<IResponseHandler<T>> noting(Lines& lines)
{
    return std::make_unique<kesa::test::NotingHandler<T>>(lines, [](const T& value) { return jsonOf(value); });
}

} // namespace kesa::serviceregistry::test

#endif
