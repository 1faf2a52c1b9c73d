#include <TemporaryFolder.h>
#include <Variable.h>
#include <obr/ErrorStorage.h>
#include <util/config/Dictionary.h>
#include <util/config/InterfaceInformationProvider.h>
#include <util/config/JSONParser.h>
#include <util/config/Provider.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace util::config {
namespace {

using testing::ElementsAre;

TEST(JSONParser, ReadsDictionariesOnly)
{
    const JSONParser parser(true);
    Dictionary* raw = nullptr;
    ASSERT_FALSE(parser.parseStringToDict(R"({"b": [1, -2.5], "a": null})", &raw));
    const std::unique_ptr<Dictionary> dictionary(raw);
    EXPECT_EQ(*dictionary, (Dictionary{{"a", nullptr}, {"b", Value::Array{1, -2.5}}}));
    EXPECT_TRUE(parser.parseStringToDict("[1]", &raw));
    EXPECT_EQ(obr::ErrorStorage::reason(), "root is not dictionary");
    Value value = "kept";
    EXPECT_TRUE(parser.parseString("[1] 2", value));
    EXPECT_EQ(value, Value("kept"));
    obr::ErrorStorage::ack();
    ASSERT_FALSE(parser.parseString(R"({"a": {"x": [0, {"c": 1, "c": 2, "c": 3}], "y": 1}, "b": 1, "b": 2})", value));
    std::vector<std::string> complaints;
    for (const Complaint& complaint : parser.complaints()) {
        complaints.push_back(complaint.sentence(""));
    }
    const std::string twice = ": the key stands more than once; the last one counts; remove the others";
    EXPECT_THAT(complaints, ElementsAre("a.x[1].c" + twice, "b" + twice));
}

// Which document counts, and what is told of one that cannot be read, is in the session documents of kesactl.
TEST(InterfaceVersions, ComeFromADocumentBesideTheConfiguration)
{
    const kesa::test::TemporaryFolder folder;
    const kesa::test::Variable configuration("KESA_CONFIG_DIR", folder.path());
    InterfaceInformationProvider& provider = InterfaceInformationProvider::instance();
    provider.forgetForTest();
    std::vector<std::string> versions{"kept"};
    std::ofstream(folder / "kesa.json") << "{}";
    EXPECT_TRUE(provider.getInterfaceVersion("pex", "a/b", versions));
    std::ofstream(folder / "interfaces.json") << R"({"pex": {"a/b": ["1.0.0", "2.0.0"], "none": [], "bad": [1]}})";
    EXPECT_TRUE(provider.getInterfaceVersion("pex", "a/b", versions)) << "the document is read once";
    provider.forgetForTest();
    EXPECT_TRUE(provider.getInterfaceVersion("pex", "/a/b", versions));
    EXPECT_TRUE(provider.getInterfaceVersion("pex", "bad", versions));
    EXPECT_THAT(versions, ElementsAre("kept"));
    EXPECT_FALSE(provider.getInterfaceVersion("pex", "a/b", versions));
    EXPECT_THAT(versions, ElementsAre("1.0.0", "2.0.0"));
    EXPECT_FALSE(obr::ErrorStorage::isError());
    provider.forgetForTest();
}

TEST(Configuration, InTheWorkingDirectoryIsNotForRoot)
{
    const kesa::test::TemporaryFolder folder;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::create_directory(folder / "config");
    std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
    std::filesystem::current_path(folder.path());
    std::ofstream("config/kesa.json") << "{}";
    const auto file = [] { return Provider("kesa", "./config", 0, LoadStrategy::eFIRST_FOUND).file(); };
    if (::geteuid() == 0) {
        EXPECT_EQ(file(), "");
        EXPECT_EQ(Provider::passedOver("kesa", "./config"), "./config/kesa.json");
        const kesa::test::Variable named("KESA_CONFIG_DIR", "config");
        EXPECT_EQ(file(), "config/kesa.json");
        EXPECT_EQ(Provider::passedOver("kesa", "./config"), "") << "another one counts before it";
    }
    const bool isRoot = ::geteuid() == 0 && ::seteuid(65534) == 0;
    EXPECT_EQ(file(), "./config/kesa.json");
    EXPECT_EQ(Provider::passedOver("kesa", "./config"), "");
    ASSERT_TRUE(!isRoot || ::seteuid(0) == 0);
    std::filesystem::current_path(before);
    obr::ErrorStorage::ack();
}

} // namespace
} // namespace util::config
