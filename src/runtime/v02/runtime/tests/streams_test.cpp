// The order a client sees in its streams.
#include "RuntimeFixture.h"

#include <runtime/v02/runtime/QueryUpdateBookkeeper.h>

namespace kesa::runtime::v02::test {
namespace {

using enum ResourceUpdateType;

class StreamTest : public RuntimeFixture {};

TEST_F(StreamTest, updatesAlternatePerService)
{
    QueryUpdateBookkeeper bookkeeper(handler<ServiceUpdate>("c"));
    const auto offer = [&](ResourceUpdateType type, const char* path) {
        EXPECT_FALSE(bookkeeper.onNext({type, {Path(path), ServiceDef::TypeEnum::pex, {}, {}}}));
    };
    for (const auto type : {eREMOVED, eMODIFIED, eADDED, eADDED, eMODIFIED, eREMOVED, eREMOVED}) {
        offer(type, "/a");
    }
    offer(eADDED, "/b");
    EXPECT_THAT(happened(), ElementsAre("c: ADDED /a", "c: MODIFIED /a", "c: REMOVED /a", "c: ADDED /b"));

    offer(eMODIFIED, "/a"); // unknown, and not the initial state: our own mistake, told and passed on
    EXPECT_THAT(m_assertions->take(),
                ElementsAre("pos != announcedServices.end(), onNext, Received eModified on unknown Service"));
    EXPECT_THAT(happened(), ElementsAre("c: MODIFIED /a"));
}

} // namespace
} // namespace kesa::runtime::v02::test
