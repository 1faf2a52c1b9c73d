// Single values go through every structured format and come back as they were.
#include <kesa/serializer/Factory.h>
#include <kesa/serializer/serialize.h>
#include <obr/ErrorStorage.h>

namespace {

using namespace kesa::serializer;
using kesa::mimetypes::MimeTypeID;
using util::config::Dictionary;
using util::config::Value;

class Serialize : public testing::TestWithParam<MimeTypeID> {
protected:
    void SetUp() override { obr::ErrorStorage::ack(); }
    void TearDown() override { obr::ErrorStorage::ack(); }

    template <class T>
    bool write(const T& value)
    {
        bytes = util::ByteBufferWriter(1024);
        const auto out = Factory::createSerializer(GetParam());
        bool hasContent = false;
        return out->attach(bytes) || serialize(*out, value) || out->finish(hasContent) || !hasContent;
    }
    template <class T>
    bool read(T& value)
    {
        util::ByteBufferReader reader(bytes.data(), bytes.size(), false);
        const auto in = Factory::createDeserializer(GetParam());
        return in->attach(reader) || deserialize(*in, value) || in->finish();
    }
    template <class T>
    void expectBack(const T& value)
    {
        T back{};
        ASSERT_FALSE(write(value)) << obr::ErrorStorage::reason();
        ASSERT_FALSE(read(back)) << obr::ErrorStorage::reason();
        EXPECT_EQ(back, value);
        EXPECT_FALSE(obr::ErrorStorage::isError());
    }

    util::ByteBufferWriter bytes{0};
};

TEST_P(Serialize, EveryValueComesBack)
{
    expectBack(std::string("caf\xC3\xA9"));
    expectBack(true);
    expectBack(kesa::Path("/a/b"));
    expectBack(kesa::url("ipc://p+r/a"));
    expectBack(obr::UUID::generate());
    expectBack(Dictionary());
    expectBack(Dictionary{{"null", nullptr},
                          {"flag", false},
                          {"big", UINT64_MAX},
                          {"small", INT64_MIN},
                          {"real", 0.1},
                          {"text", "x"},
                          {"list", Value::Array{1, "two", Value::Array{}, Dictionary{{"deep", 3}}}}});
    expectBack(Value(Value::Array{nullptr, 1.5}));

    Dictionary back;
    ASSERT_FALSE(write(Dictionary{{"absent", Value()}, {"there", 1}}));
    ASSERT_FALSE(read(back));
    EXPECT_EQ(back, (Dictionary{{"there", 1}}));
}

TEST_P(Serialize, FailuresHaveAReasonAndChangeNothing)
{
    obr::UUID id = obr::UUID::generate();
    const obr::UUID before = id;
    ASSERT_FALSE(write(std::string("no id")));
    EXPECT_TRUE(read(id));
    EXPECT_EQ(id, before);
    EXPECT_THAT(obr::ErrorStorage::reason(), testing::HasSubstr("no id"));

    obr::ErrorStorage::ack();
    Dictionary dictionary{{"kept", 1}};
    EXPECT_TRUE(read(dictionary));
    EXPECT_EQ(dictionary, (Dictionary{{"kept", 1}}));
    EXPECT_NE(obr::ErrorStorage::reason(), "");

    obr::ErrorStorage::ack();
    EXPECT_TRUE(write(Value()));
    EXPECT_NE(obr::ErrorStorage::reason(), "");

    obr::ErrorStorage::ack();
    Value deep;
    for (int level = 0; level < 1000; ++level) {
        deep = Value(Value::Array{deep});
    }
    EXPECT_TRUE(write(deep));
    EXPECT_THAT(obr::ErrorStorage::reason(), testing::HasSubstr("deep"));
}

TEST(SerializerFactory, KnowsStructuredFormatsOnly)
{
    for (const MimeTypeID id : {MimeTypeID::eUNKNOWN, MimeTypeID::eTEXT, MimeTypeID::eOCTETS}) {
        EXPECT_EQ(Factory::createSerializer(id), nullptr);
        EXPECT_EQ(Factory::createDeserializer(id), nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, Serialize,
                         testing::Values(MimeTypeID::eJSON, MimeTypeID::eMSGPACK, MimeTypeID::eQELBIN));

} // namespace
