#include <kesa/Path.h>

namespace {

using kesa::Path;

TEST(Path, CanonicalIsWhatAServiceMayBeCalled)
{
    for (const char* path : {"/a", "/media/player", "/a/.../b", "/\xC3\xBC", "/a b", "/.hidden"}) {
        EXPECT_TRUE(Path::isCanonical(path)) << path;
    }
    for (const char* path : {"", "/", "a", "a/b", "//", "/a/", "/a//b", "/.", "/..", "/a/./b", "/a/../b", "/a\n",
                             "/\x7F", "/\xC2\x85", "/\xC3", "/\xC0\xAF", "/\xED\xA0\x80", "/\xF5\x80\x80\x80"}) {
        EXPECT_FALSE(Path::isCanonical(path)) << path;
    }
    EXPECT_TRUE(Path::isCanonical('/' + std::string(4095, 'a')));
    EXPECT_FALSE(Path::isCanonical('/' + std::string(4096, 'a')));

    EXPECT_EQ(Path::complaintAbout(std::string(4097, 'a')), "a path has at most 4096 bytes, and this one 4097");
}

TEST(Path, OfAServiceIsAGlobForItself)
{
    std::string deep;
    for (int depth = 0; depth < 64; ++depth) {
        deep += "/a";
    }
    for (const std::string& path : {std::string("/a,b"), std::string("/a b!-"), deep, '/' + std::string(1023, 'a')}) {
        EXPECT_EQ(Path::complaintAboutService(path), "");
    }
    for (const char wildcard : {'*', '?', '[', ']', '{', '}', '\\'}) {
        EXPECT_EQ(Path::complaintAboutService(std::string("/a") + wildcard + "/b"),
                  std::string("'/a") + wildcard + "/b' has a '" + wildcard +
                      "', which stands for something else where services are asked for by a glob; leave it out");
    }
    EXPECT_EQ(Path::complaintAboutService(deep + "/a"),
              "the path of a service has at most 64 segments, and this one 65");
    EXPECT_EQ(Path::complaintAboutService('/' + std::string(1024, 'a')),
              "the path of a service has at most 1024 bytes, and this one 1025");
    EXPECT_EQ(Path::complaintAboutService("/a/"), Path::complaintAbout("/a/"));
}

TEST(Path, MatchesBySegments)
{
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"", "**", false},
        {"a", "**", false},
        {"/a/", "**", false},
        {"/a//b", "**", false},
        {"/a", "/", false},
        {"/a/b", "/a", false},
        {"/a", "/a/b", false},
        {"/a", "/a/**", true},
        {"/a/x/b/y/b", "/a/**/b", true},
        {"/ab", "/a**", false},
        {"/a/x/b/y", "/a/**/b", false},
    };
    for (const auto& [path, pattern, matches] : cases) {
        EXPECT_EQ(Path::matches(path, pattern), matches) << path << " " << pattern;
    }
}

TEST(Path, AddressesAServiceThroughAPattern)
{
    EXPECT_EQ(Path::join("/registry//", "//a/b"), "/registry/a/b");
    EXPECT_EQ(Path::join("", "a"), "/a");
    EXPECT_EQ(Path::replacePattern("/x/**/y", Path("/a/b")), "/x/a/b/y");
    EXPECT_EQ(Path::replacePattern("/x", Path("/a")), "/x");
    EXPECT_EQ(Path::indexIntoPathFromPattern("**", "**"), 0u);
    EXPECT_EQ(Path::indexIntoPathFromPattern("/a/b/**", "**"), 2u);
    EXPECT_EQ(Path::indexIntoPathFromPattern("/a/b", "**"), std::nullopt);
    EXPECT_EQ(Path::subpath("/a/b/c", 2), "c");
    EXPECT_EQ(Path::subpath("/a/b/c", 3), "");
}

} // namespace
