#include <util/config/Dictionary.h>
#include <util/config/Value.h>

#include <gtest/gtest.h>

#include <future>
#include <limits>

namespace util::config {
namespace {

TEST(Value, ReadsNeverConvert)
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

TEST(Value, KnowsTheRangesOfNumbers)
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
}

// For the thread sanitizer: an owner that lets go must be seen by one that then changes in place.
TEST(Dictionary, OwnersOnDifferentThreadsDoNotSeeEachOther)
{
    for (int round = 0; round < 200; ++round) {
        Dictionary shared{{"a", 1}, {"b", "text"}};
        std::future<std::string> reader =
            std::async(std::launch::async, [copy = shared] { return std::string(copy["b"].stringView()); });
        shared.set("b", 2);
        shared.erase("missing");
        shared.erase("a");
        EXPECT_EQ(reader.get(), "text");
        EXPECT_EQ(shared, (Dictionary{{"b", 2}}));
    }
}

} // namespace
} // namespace util::config
