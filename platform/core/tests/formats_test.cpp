// What every format must hold: any value survives, the bytes are those of the format's definition, and no input,
// however broken, does more than record a reason.
#include <kesa/serializer/serialize.h>
#include <obr/ErrorStorage.h>
#include <util/serializer/WireMeter.h>
#include <util/serializer/formats.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using namespace util;
using namespace util::serializer;
using config::Dictionary;
using config::Value;

using namespace std::string_literals;
using namespace std::string_view_literals;

constexpr Format ALL_FORMATS[] = {Format::eJSON, Format::eMSGPACK, Format::eQELBIN};

template <class T>
bool write(Format format, const T& value, ByteBufferWriter& out)
{
    const auto serializer = makeSerializer(format);
    bool hasContent = false;
    return serializer->attach(out) || kesa::serializer::serialize(*serializer, value) ||
           serializer->finish(hasContent) || !hasContent;
}

template <class T>
bool read(Format format, std::string_view bytes, T& value)
{
    const auto deserializer = makeDeserializer(format);
    ByteBufferReader in(bytes.data(), bytes.size(), false);
    return deserializer->attach(in) || kesa::serializer::deserialize(*deserializer, value) || deserializer->finish();
}

template <class T>
std::string bytesOf(Format format, const T& value)
{
    ByteBufferWriter out(16);
    EXPECT_FALSE(write(format, value, out));
    return std::string(out.text());
}

std::size_t meter(const Value& value)
{
    WireMeter meter;
    ByteBufferWriter json(16);
    std::size_t bytes = 0;
    EXPECT_FALSE(kesa::serializer::serialize(meter.begin(json), value) || meter.end(bytes));
    EXPECT_EQ(json.text(), bytesOf(Format::eJSON, value));
    return bytes;
}

/// The reason why `bytes` cannot be read; empty when they can.
std::string reasonOf(Format format, std::string_view bytes)
{
    obr::ErrorStorage::ack();
    Value value;
    const bool failed = read(format, bytes, value);
    EXPECT_EQ(failed, obr::ErrorStorage::isError());
    const std::string reason = obr::ErrorStorage::reason();
    obr::ErrorStorage::ack();
    return reason;
}

TEST(Serializer, EveryValueAroundTheBoundsOfAFormSurvives)
{
    Value::Array values{nullptr, true, false, 0.1, -0.0, 1e300, 5e-324, "\0\x01\x7f\"\\/\n é€\xf0\x9f\x9a\x80"sv};
    for (unsigned bit = 0; bit < 64; ++bit) {
        const std::uint64_t power = std::uint64_t{1} << bit;
        for (const std::uint64_t number : {power - 1, power, power + 1}) {
            values.emplace_back(number);
            values.emplace_back(-static_cast<std::int64_t>(number >> 1U));
        }
    }
    for (const std::size_t size : {0U, 15U, 16U, 23U, 24U, 31U, 32U, 255U, 256U, 65535U, 65536U}) {
        values.emplace_back(std::string(size, 'x'));
        values.emplace_back(Value::Array(size, Value(1)));
        Dictionary members;
        for (std::size_t i = 0; i < std::min<std::size_t>(size, 300); ++i) {
            members.set(std::to_string(i), i);
        }
        values.emplace_back(members);
    }
    for (const Format format : ALL_FORMATS) {
        Value back;
        ASSERT_FALSE(read(format, bytesOf(format, values), back)) << obr::ErrorStorage::reason();
        EXPECT_TRUE(back == Value(values));
    }
    for (const Value& value : values) {
        EXPECT_EQ(meter(value), std::max(bytesOf(Format::eJSON, value).size(), bytesOf(Format::eQELBIN, value).size()));
    }
}

template <class... T>
void expectBounds(Format format)
{
    const auto expectBack = [format](auto bound) {
        auto back = decltype(bound){};
        EXPECT_FALSE(read(format, bytesOf(format, bound), back)) << obr::ErrorStorage::reason();
        EXPECT_EQ(back, bound);
    };
    (expectBack(std::numeric_limits<T>::lowest()), ...);
    (expectBack(std::numeric_limits<T>::max()), ...);
}

/// Why `written` cannot be read as what `kept` is, which stays as it was.
template <class T>
std::string refusalOf(Format format, const Value& written, T kept)
{
    const T before = kept;
    obr::ErrorStorage::ack();
    EXPECT_TRUE(read(format, bytesOf(format, written), kept));
    EXPECT_EQ(kept, before);
    return obr::ErrorStorage::reason();
}

TEST(Serializer, ReadsValuesOfATypeOrSaysWhyNot)
{
    for (const Format format : ALL_FORMATS) {
        expectBounds<std::int8_t, std::uint16_t, int, long long, unsigned long long, float, double>(format);
        double whole = 0;
        EXPECT_FALSE(read(format, bytesOf(format, 7), whole));
        EXPECT_EQ(whole, 7.0);
        EXPECT_EQ(refusalOf(format, 128, std::int8_t{1}), "128 is no integer from -128 to 127");
        EXPECT_EQ(refusalOf(format, -1, 1U), "-1 is no integer from 0 to 4294967295");
        EXPECT_EQ(refusalOf(format, UINT64_MAX, std::int64_t{1}),
                  "18446744073709551615 is no integer from -9223372036854775808 to 9223372036854775807");
        EXPECT_EQ(refusalOf(format, 7.5, 1), "7.5 is no integer from -2147483648 to 2147483647");
        EXPECT_THAT(refusalOf(format, 1e300, 1.F), testing::StartsWith("1e+300 is no number from -3.4"));
        EXPECT_EQ(refusalOf(format, true, 1), "a number is expected");
        EXPECT_EQ(refusalOf(format, Value::Array{1}, 1), "a number is expected");
        EXPECT_THAT(refusalOf(format, "no id", obr::UUID::generate()), testing::HasSubstr("no id"));
        EXPECT_NE(refusalOf(format, "no object", Dictionary{{"kept", 1}}), "");
    }
    obr::ErrorStorage::ack();
}

TEST(Serializer, WritesTheBytesOfItsFormat)
{
    const Value value = Dictionary{{"a", Value::Array{1, -1, 23, 24, 255, 256, 65536, -25, 1.5, 2.0}},
                                   {"b", Dictionary{}},
                                   {"c/\"\n", "é"},
                                   {"d", true},
                                   {"e", nullptr},
                                   {"f", std::numeric_limits<std::uint64_t>::max()},
                                   {"g", std::numeric_limits<std::int64_t>::min()}};
    EXPECT_EQ(bytesOf(Format::eJSON, value),
              R"({"a":[1,-1,23,24,255,256,65536,-25,1.5,2.0],"b":{},"c/\"\n":"é","d":true,"e":null,)"
              R"("f":18446744073709551615,"g":-9223372036854775808})");
    EXPECT_EQ(bytesOf(Format::eMSGPACK, value),
              "\x87\xa1"
              "a\x9a\x01\xff\x17\x18\xcc\xff\xcd\x01\x00\xce\x00\x01\x00\x00\xe7\xcb\x3f\xf8\0\0\0\0\0\0"
              "\xcb\x40\0\0\0\0\0\0\0\xa1"
              "b\x80\xa4"
              "c/\"\n\xa2\xc3\xa9\xa1"
              "d\xc3\xa1"
              "e\xc0\xa1"
              "f\xcf\xff\xff\xff\xff\xff\xff\xff\xff\xa1"
              "g\xd3\x80\0\0\0\0\0\0\0"s);
    EXPECT_EQ(bytesOf(Format::eQELBIN, value),
              "\xbf\x61"
              "a\x9f\x01\x20\x17\x18\x18\x18\xff\x19\x01\x00\x1a\x00\x01\x00\x00\x38\x18\xfb\x3f\xf8\0\0\0\0\0\0"
              "\xfb\x40\0\0\0\0\0\0\0\xff\x61"
              "b\xbf\xff\x64"
              "c/\"\n\x62\xc3\xa9\x61"
              "d\xf5\x61"
              "e\xf6\x61"
              "f\x1b\xff\xff\xff\xff\xff\xff\xff\xff\x61"
              "g\x3b\x7f\xff\xff\xff\xff\xff\xff\xff\xff"s);
}

TEST(Serializer, ReadsWhatOthersWrite)
{
    const Value numbers = Value::Array{1.0, 0.5, 100.0, 1};
    struct Case {
        Format format;
        std::string bytes;
        Value value;
    };
    const Case cases[] = {
        {Format::eJSON, " [ 1.0 , 5e-1,1E2\t,\r\n1 ] ", numbers},
        {Format::eJSON, R"("\u00e9\ud83d\ude80\/\b\u0000")", "é\xf0\x9f\x9a\x80/\b\0"sv},
        {Format::eJSON, R"({"a":1,"a":2})", Dictionary{{"a", 2}}},
        {Format::eJSON, "[-0,18446744073709551615,18446744073709551616,-9223372036854775809]",
         Value::Array{0, 18446744073709551615U, 18446744073709551616.0, -9223372036854775809.0}},
        {Format::eJSON, "[0e-222,-0.0e-999,1e-400,2.2250738585072014e-308,1.7976931348623157e308]",
         Value::Array{0.0, 0.0, 0.0, 2.2250738585072014e-308, 1.7976931348623157e308}},
        {Format::eJSON,
         "[-0.01E-99999999999999999999,0." + std::string(400, '0') + "1,1" + std::string(300, '0') + ".5e-301]",
         Value::Array{0.0, 0.0, 0.1}},
        {Format::eMSGPACK, "\xdd\0\0\0\x01\xda\0\x01x"s, Value::Array{"x"}},
        {Format::eMSGPACK, "\xdf\0\0\0\x01\xd9\x01x\xca\x3f\x80\0\0"s, Dictionary{{"x", 1.0}}},
        {Format::eMSGPACK, "\x93\xd0\x05\xd3\0\0\0\0\0\0\0\x05\xa0"s, Value::Array{5, 5, ""}},
        {Format::eQELBIN, "\x84\xf9\x3c\x00\xfa\x3f\0\0\0\xfb\x40\x59\0\0\0\0\0\0\x1b\0\0\0\0\0\0\0\x01"s, numbers},
        {Format::eQELBIN, "\xa2\x61x\x80\x61y\x9b\0\0\0\0\0\0\0\x01\xa0"s,
         Dictionary{{"x", Value::Array{}}, {"y", Value::Array{Dictionary{}}}}},
        {Format::eQELBIN, "\x9f\x7f\x61x\x60\x62yz\xff\x7f\xff\x7f\x61v\xff\xff"s, Value::Array{"xyz", "", "v"}},
        {Format::eQELBIN, "\xd9\xd9\xf7\x81\xc0\xc1\x01"s, Value::Array{1}},
    };
    for (const Case& each : cases) {
        Value value;
        EXPECT_FALSE(read(each.format, each.bytes, value)) << obr::ErrorStorage::reason();
        EXPECT_EQ(value, each.value) << value.toText();
    }
}

TEST(Serializer, ExplainsBrokenInput)
{
    struct Case {
        Format format;
        std::string bytes;
        std::string_view reason;
    };
    const Case cases[] = {
        {Format::eJSON, "", "1:1: the document is empty"},
        {Format::eJSON, "{\n \"a\": [1, 2",
         "2:12: the document ends too early; a quotation mark or bracket is not closed"},
        {Format::eJSON, "[1,]", "1:4: a comma must not stand before ']'"},
        {Format::eJSON, "{a: 1}", "1:2: expected a name in double quotes"},
        {Format::eJSON, "['a']", "1:2: strings and names stand in double quotes, not in single ones"},
        {Format::eJSON, "\xef\xbb\xbf{}", "1:1: a byte order mark is not allowed; save the file without it"},
        {Format::eJSON, "\"\\ud800\"", "1:2: '\\u' names half a character (surrogate)"},
        {Format::eJSON, "\"\\udc00\"", "1:9: a string is not valid UTF-8"},
        {Format::eJSON, "[\n\"caf\xe9\", 1]", "2:5: the text is not valid UTF-8"},
        {Format::eJSON, "{\"a\": \x80}", "1:7: the text is not valid UTF-8"},
        {Format::eJSON, "1e999", "1:1: the number has no value: the largest is 1.8e308"},
        {Format::eJSON, std::string("\xff\xfe{\0", 4), "1:1: the text is UTF-16; save it as UTF-8"},
        {Format::eJSON, std::string("{\0}\0", 4), "1:2: the text is UTF-16; save it as UTF-8"},
        {Format::eJSON, "\xff\xfe\0\0{\0\0\0"s, "1:1: the text is UTF-32; save it as UTF-8"},
        {Format::eJSON, "\0\0\0{\0\0\0}"s, "1:1: the text is UTF-32; save it as UTF-8"},
        {Format::eJSON, "NaN", "1:1: expected a value"},
        {Format::eMSGPACK, "\x81\x01\x02", "byte 1: the name of a member is no string"},
        {Format::eMSGPACK, "\xc1", "byte 0: a byte that begins no value"},
        {Format::eMSGPACK, "\xd4\x01x", "byte 2: extension types are not supported"},
        {Format::eMSGPACK, "\xa1\xff", "byte 1: a string is not valid UTF-8"},
        {Format::eMSGPACK, "\xca\x7f\x80\0\0"s, "byte 4: a number is not finite"},
        {Format::eQELBIN, "\xbf\x61x", "byte 3: the document ends too early"},
        {Format::eQELBIN, "\x9b\x7f\xff\xff\xff\xff\xff\xff\xff\x01", "byte 0: the document ends too early"},
        {Format::eQELBIN, "\xbb\x80\0\0\0\0\0\0\x01\x01"s, "byte 0: the document ends too early"},
        {Format::eQELBIN, "\xbf\x61x\xff", "byte 3: a member has no value"},
        {Format::eQELBIN, "\x9f\xc1\xff", "byte 1: indefinite length of a wrong item"},
        {Format::eQELBIN, "\x7f\x61x\x01\xff", "byte 3: a text consists of something else than text"},
        {Format::eQELBIN, "\x41x", "byte 0: binary data is not supported"},
        {Format::eQELBIN, "\x3b\x80\0\0\0\0\0\0\0"s, "byte 0: integer out of range"},
        {Format::eQELBIN, "\x01\x01", "byte 1: unexpected data after the end of the document"},
    };
    for (const Case& each : cases) {
        EXPECT_EQ(reasonOf(each.format, each.bytes), each.reason) << testing::PrintToString(each.bytes);
    }
}

TEST(Serializer, LimitsNesting)
{
    const std::pair<Format, std::string_view> openings[] = {
        {Format::eJSON, "["}, {Format::eJSON, "{\"a\":"}, {Format::eMSGPACK, "\x81\xa1x"}, {Format::eQELBIN, "\x9f"}};
    for (const auto& [format, opening] : openings) {
        std::string bytes;
        for (int i = 0; i < 100'000; ++i) {
            bytes += opening;
        }
        EXPECT_THAT(reasonOf(format, bytes), testing::HasSubstr("nested too deeply"));
        const std::string within(bytes, 0, MAX_DEPTH * opening.size());
        EXPECT_THAT(reasonOf(format, within), testing::Not(testing::HasSubstr("nested")));
    }
    for (const Format format : ALL_FORMATS) {
        Value deepest = 1;
        for (std::size_t i = 0; i < MAX_DEPTH; ++i) {
            deepest = Value::Array{deepest};
        }
        EXPECT_EQ(reasonOf(format, bytesOf(format, deepest)), "");
        ByteBufferWriter out(16);
        EXPECT_TRUE(write(format, Value::Array{deepest}, out));
        obr::ErrorStorage::ack();
    }
}

void expectRefusal(bool failed)
{
    EXPECT_TRUE(failed);
    EXPECT_TRUE(obr::ErrorStorage::isError());
    obr::ErrorStorage::ack();
}

// What is not allowed is refused with a reason, changes nothing, and the right operation still works after it.
TEST(Serializer, RefusesMisuseAndGoesOn)
{
    for (const Format format : ALL_FORMATS) {
        const auto writer = makeSerializer(format);
        ByteBufferWriter out(16);
        bool hasContent = true;
        expectRefusal(writer->nullValue());
        ASSERT_FALSE(writer->attach(out) || writer->beginObject());
        expectRefusal(writer->nullValue());
        expectRefusal(writer->memberName("\xff"));
        expectRefusal(writer->finish(hasContent));
        ASSERT_FALSE(writer->memberName("a") || writer->beginArray() || writer->beginElement());
        expectRefusal(writer->doubleValue(std::nan("")));
        expectRefusal(writer->endArray());
        ASSERT_FALSE(writer->boolValue(true));
        expectRefusal(writer->uintValue(1));
        writer->endElement();
        ASSERT_FALSE(writer->endArray() || writer->endMember() || writer->endObject() || writer->finish(hasContent));

        const auto reader = makeDeserializer(format);
        bool flag = false;
        std::string name;
        expectRefusal(reader->boolValue(flag));
        ByteBufferReader in(out.text().data(), out.text().size(), false);
        ASSERT_FALSE(reader->attach(in) || reader->beginObject());
        expectRefusal(reader->boolValue(flag));
        expectRefusal(reader->endObject());
        ASSERT_FALSE(reader->memberName(name) || reader->beginArray());
        expectRefusal(reader->endArray());
        ASSERT_FALSE(reader->beginElement() || reader->boolValue(flag) || reader->endElement());
        expectRefusal(reader->beginElement());
        ASSERT_FALSE(reader->endArray() || reader->endMember() || reader->endObject() || reader->finish());
        EXPECT_TRUE(flag);
    }
}

} // namespace
