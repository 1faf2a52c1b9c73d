#include <util/UniqueFunction.h>

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <utility>

namespace {

using Function = util::UniqueFunction<int(int)>;

/// `Load` decides whether it lies in the function or on the heap.
template <class Load>
Function adding(std::shared_ptr<int> sum)
{
    return [sum = std::move(sum), load = Load()](int value) { return *sum += value + load[0]; };
}

template <class Load>
void expectMovesAndDiesOnce()
{
    const auto sum = std::make_shared<int>(0);
    Function function = adding<Load>(sum);
    Function other(std::move(function));
    EXPECT_FALSE(function); // NOLINT(bugprone-use-after-move): nothing is left in it
    EXPECT_EQ(other(3), 3);
    function = std::move(other);
    EXPECT_EQ(function(4), 7);
    function = adding<Load>(sum); // ends the one before
    EXPECT_EQ(sum.use_count(), 2);
    function = nullptr;
    EXPECT_FALSE(function);
    EXPECT_EQ(sum.use_count(), 1);
}

TEST(UniqueFunction, MovesAndDiesOnceWhereverItLies)
{
    expectMovesAndDiesOnce<std::array<char, 1>>();
    expectMovesAndDiesOnce<std::array<char, 100>>();
}

} // namespace
