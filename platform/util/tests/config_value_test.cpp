#include <util/config/Dictionary.h>
#include <util/config/Value.h>

#include <gtest/gtest.h>

#include <future>
#include <limits>

namespace util::config {
namespace {

TEST(Value, readsNeverConvert)
{
    const Value values[] = {Value(), nullptr, true, 1, -1, 1.0, "1", Value::Array{1}, Dictionary{{"1", 1}}};
    for (std::size_t i = 0; i < std::size(values); ++i) {
        bool flag = false;
        int number = 5;
        unsigned int natural = 5;
        double real = 5;
        std::string text = "kept";
        EXPECT_EQ(values[i].get(flag), i != 2) << i;
        EXPECT_EQ(values[i].get(number), i != 3 && i != 4) << i;
        EXPECT_EQ(values[i].get(natural), i != 3) << i;
        EXPECT_EQ(values[i].get(real), i < 3 || i > 5) << i;
        EXPECT_EQ(values[i].get(text), i != 6) << i;
        EXPECT_EQ(values[i].isDefined(), i != 0);
        EXPECT_EQ(text + std::to_string(number), i == 6 ? "15" : i == 3 ? "kept1" : i == 4 ? "kept-1" : "kept5");
        EXPECT_EQ(values[i].arraySize(), i == 7 ? 1U : 0U);
        EXPECT_EQ(values[i][0].isDefined(), i == 7);
        EXPECT_EQ(values[i]["1"].isDefined(), i == 8);
        EXPECT_FALSE(values[i][1].isDefined() || values[i][-1].isDefined() || values[i]["x"]["y"][0].isDefined());
        for (std::size_t j = 0; j < std::size(values); ++j) {
            EXPECT_EQ(values[i] == values[j], i == j);
        }
    }
}

TEST(Value, knowsTheRangesOfNumbers)
{
    constexpr auto LARGEST = std::numeric_limits<std::uint64_t>::max();
    int number = 0;
    unsigned int natural = 0;
    std::int64_t wide = 0;
    std::uint64_t large = 0;
    EXPECT_TRUE(Value(std::int64_t{1} << 31).get(number));
    EXPECT_FALSE(Value(std::int64_t{1} << 31).get(natural));
    EXPECT_TRUE(Value(std::int64_t{1} << 32).get(natural));
    EXPECT_TRUE(Value(LARGEST).get(wide));
    EXPECT_FALSE(Value(LARGEST).get(large));
    EXPECT_EQ(large, LARGEST);
    EXPECT_TRUE(Value(-1).get(large));
    EXPECT_EQ(Value(std::uint64_t{7}), Value(7));
}

TEST(Value, text)
{
    EXPECT_EQ(Value("a\"b").toText(), "a\"b");
    EXPECT_EQ(Value(0.1).toText(), "0.1");
    EXPECT_EQ(Value(-0.0).toText(), "-0.0");
    EXPECT_EQ(
        Value(Dictionary{{"b", Value::Array{1, 2.0, nullptr}}, {"a/", "x\t\x1f\""}, {"c", Dictionary{}}}).toText(),
        R"({"a/":"x\t\u001f\"","b":[1,2.0,null],"c":{}})");
}

TEST(Dictionary, keepsKeysInOrderAndCopiesApart)
{
    Dictionary first{{"b", 1}, {"\xc3\xa9", 2}, {"a", 3}, {"b", 4}, {"B", 5}};
    std::string keys;
    for (const auto& [key, value] : first) {
        keys += key;
    }
    EXPECT_EQ(keys, "Bab\xc3\xa9");
    EXPECT_EQ(first["b"], Value(4));

    Dictionary second = first;
    second.add("b", first["a"]);
    second.erase("a");
    second.erase("missing");
    second.set("c", second["b"]);
    EXPECT_EQ(first["b"], Value(4));
    EXPECT_EQ(first.size(), 4U);
    EXPECT_EQ(second, (Dictionary{{"B", 5}, {"b", 3}, {"c", 3}, {"\xc3\xa9", 2}}));
    EXPECT_NE(first, second);
}

// For the thread sanitizer: an owner that lets go must be seen by one that then changes in place.
TEST(Dictionary, ownersOnDifferentThreads)
{
    for (int round = 0; round < 200; ++round) {
        Dictionary shared{{"a", 1}, {"b", "text"}};
        std::future<std::string> reader =
            std::async(std::launch::async, [copy = shared] { return std::string(copy["b"].stringView()); });
        shared.set("b", 2);
        shared.set("c", 3);
        EXPECT_EQ(reader.get(), "text");
        EXPECT_EQ(shared.size(), 3U);
    }
}

} // namespace
} // namespace util::config
