// Documents as processes find them. Each test has a folder of its own, in which it runs.
#include <obr/ErrorStorage.h>
#include <util/config/Dictionary.h>
#include <util/config/FrameworkProvider.h>
#include <util/config/InterfaceInformationProvider.h>
#include <util/config/JSONParser.h>
#include <util/config/Provider.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace util::config {
namespace {

using testing::ElementsAre;

TEST(JSONParser, readsDictionariesOnly)
{
    const JSONParser parser(true);
    Dictionary* raw = nullptr;
    ASSERT_FALSE(parser.parseStringToDict(R"({"b": [1, -2.5], "a": null})", &raw));
    const std::unique_ptr<Dictionary> dictionary(raw);
    EXPECT_EQ(*dictionary, (Dictionary{{"a", nullptr}, {"b", Value::Array{1, -2.5}}}));

    EXPECT_TRUE(parser.parseStringToDict("[1]", &raw));
    EXPECT_EQ(obr::ErrorStorage::reason(), "root is not dictionary");
    EXPECT_TRUE(parser.parseStringToDict("{\n  \"a\": 1,\n  \"b\" 2\n}", &raw));
    EXPECT_EQ(obr::ErrorStorage::reason(), "3:7: expected ':' after the name");
    Value value = "kept";
    EXPECT_TRUE(parser.parseString("[1] 2", value));
    EXPECT_EQ(value, Value("kept"));
    obr::ErrorStorage::ack();
    ASSERT_FALSE(
        parser.parseString(R"({"a": {"x": [0, 1, {"c": 1, "c": 2, "c": 3}], "y": 1}, "b": 1, "b": 2})", value));
    EXPECT_THAT(parser.duplicateKeys(), ElementsAre("a.x[2].c", "b"));
    EXPECT_EQ(value["a"]["x"][2]["c"], Value(3));
}

class Documents : public testing::Test {
protected:
    void SetUp() override
    {
        m_before = std::filesystem::current_path();
        std::string pattern = testing::TempDir() + "kesa-config-XXXXXX";
        m_folder = ::mkdtemp(pattern.data());
        std::filesystem::current_path(m_folder);
        InterfaceInformationProvider::instance().forgetForTest();
    }
    void TearDown() override
    {
        for (const char* name : {"KESA_CONFIG", "KESA_CONFIG_DIR", "KESA_NODE"}) {
            ::unsetenv(name);
        }
        std::filesystem::current_path(m_before);
        std::filesystem::remove_all(m_folder);
        InterfaceInformationProvider::instance().forgetForTest();
        obr::ErrorStorage::ack();
    }

    void write(const std::string& file, const std::string& text) const
    {
        const std::filesystem::path path = m_folder / file;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }
    void set(const char* name, const std::string& value) const { ::setenv(name, (m_folder / value).c_str(), 1); }
    static Provider load() { return {"kesa", "./config", 0, LoadStrategy::eFIRST_FOUND}; }

    std::filesystem::path m_before;
    std::filesystem::path m_folder;
};

TEST_F(Documents, theFirstFileCounts)
{
    write("config/kesa.json", R"({"kesa": {"n": 1}})");
    EXPECT_EQ(load().file(), "./config/kesa.json");
    EXPECT_EQ(load().first()["n"], Value(1));
    EXPECT_EQ(load().second()["kesa"]["n"], Value(1));

    set("KESA_CONFIG_DIR", "missing");
    EXPECT_EQ(load().file(), "./config/kesa.json");
    write("dir/kesa.json", R"({"n": 2, "n": 3})");
    set("KESA_CONFIG_DIR", "dir");
    EXPECT_FALSE(load().first().isDefined());
    EXPECT_EQ(load().second()["n"], Value(3));
    EXPECT_THAT(load().duplicateKeys(), ElementsAre("n"));

    write("one.json", "[]");
    set("KESA_CONFIG", "one.json");
    EXPECT_TRUE(load().second().isArray());
    EXPECT_EQ(Provider::folder("kesa", "./config"), m_folder.string());
    EXPECT_FALSE(obr::ErrorStorage::isError());
}

TEST_F(Documents, whatCannotBeReadIsAFailure)
{
    // Where the machine has a configuration of its own, there is always a document.
    if (!std::filesystem::exists("/etc/kesa/kesa.json")) {
        EXPECT_TRUE(load().hasFailed());
        EXPECT_EQ(obr::ErrorStorage::reason(),
                  "there is no configuration; looked for ./config/kesa.json, /etc/kesa/kesa.json");
    }
    write("config/kesa.json", "{}");
    set("KESA_CONFIG", "missing.json");
    EXPECT_TRUE(load().hasFailed());
    EXPECT_EQ(obr::ErrorStorage::reason(),
              (m_folder / "missing.json").string() + ": cannot be read: No such file or directory");
    write("large.json", "");
    std::filesystem::resize_file(m_folder / "large.json", std::uintmax_t{1} << 30);
    ::setenv("KESA_CONFIG", "large.json", 1);
    EXPECT_TRUE(load().hasFailed());
    EXPECT_EQ(obr::ErrorStorage::reason(), "large.json: is larger than 16 MiB");
    ASSERT_EQ(::mkfifo("pipe.json", 0600), 0); // nobody ever writes into it
    const sockaddr_un address{AF_UNIX, "socket.json"};
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(listener);
    for (const std::string file : {"pipe.json", "socket.json", "config", "/dev/null"}) {
        ::setenv("KESA_CONFIG", file.c_str(), 1);
        EXPECT_TRUE(load().hasFailed());
        EXPECT_EQ(obr::ErrorStorage::reason(),
                  file + ": is a directory, a pipe, a socket or a device; the configuration is a plain file");
    }
    write("bad.json", "{\n\"a\": }");
    ::setenv("KESA_CONFIG", "bad.json", 1);
    EXPECT_TRUE(load().hasFailed());
    EXPECT_EQ(obr::ErrorStorage::reason(), "bad.json:2:6: expected a value");
    EXPECT_EQ(load().file(), "bad.json");
}

TEST_F(Documents, nodesOfProcesses)
{
    const auto nodeOf = [](const std::string& process) {
        std::string node = "kept";
        return FrameworkProvider::getNodenameForProcess(process, node) ? "failed, " + node : node;
    };
    EXPECT_EQ(nodeOf("a"), "local");
    write("config/kesa.json", "{}");
    write("config/framework.json", R"({"a": "node-a", "b": 1})");
    EXPECT_EQ(nodeOf("a"), "node-a");
    EXPECT_EQ(nodeOf("other"), "local");
    EXPECT_FALSE(obr::ErrorStorage::isError());
    EXPECT_EQ(nodeOf("b"), "failed, kept");
    EXPECT_EQ(obr::ErrorStorage::reason(), "./config/framework.json: the node of 'b' is not a string");
    write("config/framework.json", R"({"*": "all"})");
    EXPECT_EQ(nodeOf("other"), "all");
    ::setenv("KESA_NODE", "given", 1);
    EXPECT_EQ(nodeOf("a"), "given");
}

TEST_F(Documents, interfaceVersions)
{
    InterfaceInformationProvider& provider = InterfaceInformationProvider::instance();
    std::vector<std::string> versions{"kept"};
    EXPECT_TRUE(provider.getInterfaceVersion("pex", "a/b", versions));
    write("config/interfaces.json", R"({"pex": {"a/b": ["1.0.0", "2.0.0"], "none": [], "bad": [1]}})");
    EXPECT_TRUE(provider.getInterfaceVersion("pex", "a/b", versions)) << "the document is read once";
    provider.forgetForTest();
    EXPECT_TRUE(provider.getInterfaceVersion("pex", "/a/b", versions));
    EXPECT_TRUE(provider.getInterfaceVersion("pex", "bad", versions));
    EXPECT_THAT(versions, ElementsAre("kept"));
    EXPECT_FALSE(provider.getInterfaceVersion("pex", "a/b", versions));
    EXPECT_THAT(versions, ElementsAre("1.0.0", "2.0.0"));
    EXPECT_FALSE(obr::ErrorStorage::isError());
}

} // namespace
} // namespace util::config
