// What the daemon does again and again.
#include "cycle.h"

#include <asio/post.hpp>

#include <gtest/gtest.h>

namespace kova::kovad {
namespace {

TEST(Cycle, HasItsTurnHoweverOftenItsPeriodIsSet) {
    constexpr std::chrono::milliseconds kPeriod{300};
    asio::io_context loop;
    bool had_its_turn = false;
    Cycle cycle(loop, kPeriod, [&] {
        had_its_turn = true;
        loop.stop();
    });
    std::function<void()> set_again = [&] {
        cycle.set_period(kPeriod);
        asio::post(loop, set_again);
    };
    set_again();
    loop.run_for(std::chrono::seconds(10));
    EXPECT_TRUE(had_its_turn);
}

}  // namespace
}  // namespace kova::kovad
