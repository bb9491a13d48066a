// Runs an action again and again, at a fixed pace.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <utility>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

namespace kova::kovad {

class Cycle {
  public:
    using Clock = asio::steady_timer::clock_type;

    Cycle(asio::io_context& loop, std::chrono::milliseconds period, std::function<void()> action)
        : timer_(loop), period_(period), action_(std::move(action)) {
        arm(Clock::now() + period_);
    }

    // Never puts the next time off: whoever sets the period again and again would keep the action from its turn.
    void set_period(std::chrono::milliseconds period) {
        period_ = period;
        arm(std::min(timer_.expiry(), Clock::now() + period_));
    }

  private:
    void arm(Clock::time_point when) {
        timer_.expires_at(when);
        timer_.async_wait([this](const asio::error_code& error) {
            if (error) return;  // armed anew, or the loop ends
            // Steps that were missed (the machine slept, the daemon was stopped) are not made up for.
            const Clock::time_point next = timer_.expiry() + period_;
            arm(next > Clock::now() ? next : Clock::now() + period_);
            action_();
        });
    }

    asio::steady_timer timer_;
    std::chrono::milliseconds period_;
    std::function<void()> action_;
};

}  // namespace kova::kovad
