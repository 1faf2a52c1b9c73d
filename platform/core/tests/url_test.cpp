// A locator is judged by RFC 3986 and kept as the text it was built from.
#include <kesa/url.h>

namespace {

using kesa::url;
using namespace std::string_literals;

TEST(Url, FindsItsPartsAndIsItsText)
{
    const std::string text = "TlS://media+3f9c@host.example:7443/media/player";
    url full(text);
    EXPECT_TRUE(full.isAbsolute());
    EXPECT_EQ(full.scheme(), "tls");
    EXPECT_EQ(full.authority(), "media+3f9c@host.example:7443");
    EXPECT_EQ(full.path(), "/media/player");
    EXPECT_EQ(full.toString(), text);
    EXPECT_FALSE(full.hasQueryOrFragment());
    EXPECT_EQ(full, url(text));
    EXPECT_NE(full, url("tls" + text.substr(3))) << "nothing is normalised";
    EXPECT_FALSE(url("/registry").isAbsolute());
    full.init("not valid");
    EXPECT_FALSE(full.isValid());
    EXPECT_EQ(full.authority(), "");
}

TEST(Url, IsJudgedByTheGrammar)
{
    for (const char* text : {"tcp://[::1]:80/a", "tcp://[fe80::1:2]/", "tcp://[::ffff:1.2.3.4]:1", "tcp://[v1.a:b]/",
                             "tcp://h:/", "ipc:///x", "urn:a:b", "a/b", "./a:b", "ipc://a%20b/%C3%BC", "//host/path",
                             "/registry", "?query", "x+y-z.1://h/a//b;c=1,2"}) {
        EXPECT_TRUE(url(text).isValid()) << text;
    }
    for (const std::string& text :
         {std::string(),    "a b"s,          "ipc://p/%2"s,   "ipc://p/%zz"s, "ipc://p%/"s,    "1tcp://h"s,
          "://h"s,          "a:b/c\\d"s,     "t_p://h"s,      "tcp://h:8o/"s, "tcp://[::1/"s,  "tcp://[1::2::3]/"s,
          "tcp://[::1]x/"s, "tcp://[::g]/"s, "tcp://[v.a]/"s, "tcp://::1/"s,  "tcp://a@b@c/"s, "/\xC3\xBC"s,
          "/a?b c"s,        "/a#b#c"s,       "/a\""s,         "/a<b>"s,       "/a|b"s,         "/a\x7F"s,
          "/a\0b"s,         "//[::\0]"s}) {
        EXPECT_FALSE(url(text).isValid()) << text;
    }
}

} // namespace
