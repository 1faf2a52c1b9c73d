// The test program: besides GoogleTest's options, how many faults `SystemFaults` makes, and which, and how long
// intruders come and go.

#include "faultOptions.h"

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    CLI::App app("Tests with real processes, sockets and signals.");
    app.add_option("--faults", kesa::system_test::faultOptions.count, "How many faults SystemFaults makes.")
        ->capture_default_str();
    app.add_option("--seed", kesa::system_test::faultOptions.seed, "From which they are drawn.")->capture_default_str();
    app.add_option("--minutes", kesa::system_test::faultOptions.minutes,
                   "How long intruders come and go in SystemAmounts; two rounds at least.")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    return RUN_ALL_TESTS();
}
