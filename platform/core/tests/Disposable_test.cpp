#include <kesa/ScopedDisposable.h>

#include <atomic>
#include <thread>

namespace {

using kesa::Disposable;
using kesa::ScopedDisposable;

TEST(Disposable, CopiesShareOneRunAlsoBetweenThreads)
{
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> runs{0};
        Disposable shared([&runs] { ++runs; });
        std::thread other([copy = shared]() mutable { copy.dispose(); });
        shared.dispose();
        other.join();
        shared.dispose();
        static_cast<void>(Disposable([&runs] { ++runs; }));
        EXPECT_EQ(runs, 1) << "destruction does not dispose";
    }
    Disposable().dispose();
}

TEST(Disposable, LetsGoOfItsActionAfterIt)
{
    const auto captured = std::make_shared<int>(0);
    // The action ends every owner of the Disposable, and disposes again.
    auto owner = std::make_unique<Disposable>();
    *owner = Disposable([captured, &owner, copy = std::make_shared<Disposable>()]() mutable {
        *copy = *owner;
        owner.reset();
        copy->dispose();
        EXPECT_EQ(++*captured, 1);
    });
    owner->dispose();
    EXPECT_EQ(*captured, 1);
    EXPECT_EQ(captured.use_count(), 1);
}

TEST(ScopedDisposable, DisposesAtItsEnd)
{
    int runs = 0;
    {
        ScopedDisposable scoped(Disposable([&runs] { ++runs; }));
        ScopedDisposable moved = std::move(scoped);
        scoped.dispose(); // NOLINT(bugprone-use-after-move): nothing is left in it
        EXPECT_EQ(runs, 0);
        Disposable mine = ScopedDisposable(Disposable([&runs] { runs += 10; })).release();
        moved = ScopedDisposable();
        EXPECT_EQ(runs, 1);
        mine.dispose();
    }
    EXPECT_EQ(runs, 11);
}

} // namespace
