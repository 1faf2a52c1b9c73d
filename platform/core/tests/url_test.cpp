// A locator is judged by RFC 3986 and kept as the text it was built from.
#include <kesa/url.h>

namespace {

using kesa::url;

TEST(Url, FindsItsParts)
{
    const url full("tls://media+3f9c@host.example:7443/media/player");
    EXPECT_TRUE(full.isAbsolute());
    EXPECT_EQ(full.scheme(), "tls");
    EXPECT_EQ(full.authority(), "media+3f9c@host.example:7443");
    EXPECT_EQ(full.path(), "/media/player");
    EXPECT_EQ(full.toString(), "tls://media+3f9c@host.example:7443/media/player");
    EXPECT_FALSE(full.hasQueryOrFragment());

    EXPECT_EQ(url("tcp://h:1").path(), "");
    EXPECT_TRUE(url("tcp://h:1").isAbsolute());

    const url bare("/registry");
    EXPECT_TRUE(bare.isValid());
    EXPECT_FALSE(bare.isAbsolute());
    EXPECT_EQ(bare.path(), "/registry");
    EXPECT_EQ(bare.scheme(), "");

    EXPECT_TRUE(url("ipc://p/a?x=1").hasQueryOrFragment());
    EXPECT_EQ(url("ipc://p/a?x=1").path(), "/a");
    EXPECT_TRUE(url("ipc://p#f").hasQueryOrFragment());
    EXPECT_EQ(url("ipc://p#f").authority(), "p");
}

TEST(Url, AcceptsWhatTheGrammarAllows)
{
    for (const char* text : {"tcp://[::1]:80/a", "tcp://[fe80::1:2]/", "tcp://[::ffff:1.2.3.4]:1", "tcp://[v1.a:b]/",
                             "tcp://h:/", "ipc:///x", "urn:a:b", "a/b", "./a:b", "ipc://a%20b/%C3%BC", "//host/path",
                             "?query", "x+y-z.1://h/a//b;c=1,2"}) {
        EXPECT_TRUE(url(text).isValid()) << text;
    }
}

TEST(Url, RefusesWhatItForbids)
{
    for (const char* text : {"",
                             "a b",
                             "ipc://p/a b",
                             "ipc://p/%2",
                             "ipc://p/%zz",
                             "ipc://p%/",
                             "1tcp://h",
                             "://h",
                             "a:b/c\\d",
                             "t_p://h",
                             "tcp://h:8o/",
                             "tcp://[::1/",
                             "tcp://[1::2::3]/",
                             "tcp://[::1]x/",
                             "tcp://[::g]/",
                             "tcp://[v.a]/",
                             "tcp://::1/",
                             "tcp://a@b@c/",
                             "/\xC3\xBC",
                             "/a?b c",
                             "/a#b#c",
                             "/a\"",
                             "/a<b>",
                             "/a|b",
                             "/a\x7F"}) {
        EXPECT_FALSE(url(text).isValid()) << text;
        EXPECT_FALSE(url(text).isAbsolute()) << text;
        EXPECT_EQ(url(text).toString(), text);
        EXPECT_EQ(url(text).path(), "") << text;
    }
    EXPECT_FALSE(url(std::string("/a\0b", 4)).isValid());
    EXPECT_FALSE(url(std::string("//[::\0]", 8)).isValid());
}

TEST(Url, IsItsText)
{
    EXPECT_EQ(url("ipc://p/a"), url("ipc://p/a"));
    EXPECT_NE(url("ipc://p/a"), url("IPC://p/a")) << "nothing is normalised";
    url changed("ipc://p/a");
    changed.init("not valid");
    EXPECT_FALSE(changed.isValid());
    EXPECT_EQ(changed.authority(), "");
}

} // namespace
