// What is left of the black box when its writer is killed, and when the power fails before anything was written back.
#include <sys/mman.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <ctime>
#include <optional>
#include <random>

#include "sysdiag/except/box_calls.h"

namespace kova::test {
namespace {

class BoxLoss : public BlackBox {
  protected:
    static std::mt19937 seeded() {
        const std::uint32_t seed = std::random_device{}();
        std::printf("seed: %u\n", seed);
        return std::mt19937(seed);
    }

    // The box delivers `kept` in one piece, and at most `others` records beside them.
    static void expect_kept(std::uint32_t box, const Values& kept, std::size_t others) {
        const Answer answer = read_newest(box, 0, kCapacity[box]);
        ASSERT_EQ(0u, answer.code);
        ASSERT_LE(answer.count, kept.size() + others);
        ASSERT_EQ(kept, kept.empty() ? kept : found_in(answer.values, kept));
    }

    // In the at-th call of the operation.
    static void die(const Operation& operation, const State& state, const std::vector<Step>& steps, std::size_t at,
                    Fate fate) {
        put(state.image);
        const int status = in_child([&] {
            const Watch watch([&](std::string_view) { return calls().made.size() == at ? fate : Fate::kNormal; });
            perform(operation);
        });
        ++points_;
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << static_cast<int>(fate);
        const std::size_t done = fate == Fate::kDieAfter ? at + 1 : at;
        const Bytes left = Plan::image_after(state.image, steps, done, fate == Fate::kDieMidway);
        ASSERT_EQ(left, file()) << static_cast<int>(fate);
        // The next one finds the lock free, repairs what is damaged and goes on.
        ASSERT_EQ(0u, append(operation.box, 0xBB));
        ASSERT_EQ(Plan({Op::kAppend, operation.box, 0xBB}, left).image(), file());
    }

    static inline int points_ = 0;

  private:
    static Values found_in(const Values& values, const Values& kept) {
        const auto at = std::search(values.begin(), values.end(), kept.begin(), kept.end());
        return at == values.end() ? values : kept;
    }
};

TEST_F(BoxLoss, AWriterKilledAtAnyCallLeavesWhatItsCallsMade) {
    int turn = 0;
    for (const Op op : {Op::kAppend, Op::kRewrite, Op::kReset, Op::kCreate, Op::kRead}) {
        for (const State& state : states()) {
            for (const std::uint32_t box : {0u, 1u}) {
                const Operation operation{op, box, 0xAA};
                const std::vector<Step> steps = Plan(operation, state.image).steps();
                for (std::size_t at = 0; at < steps.size(); ++at) {
                    if (at > 20 && at + 4 < steps.size()) continue;  // one record is read like another
                    SCOPED_TRACE(::testing::Message() << "op " << static_cast<int>(op) << ", box " << box
                                                      << " of a file " << state.name << ", call " << at);
                    // Before a call is after the one before it.
                    if (at == 0 || by_effort(false, false, true)) die(operation, state, steps, at, Fate::kDieBefore);
                    if (++turn % by_effort(3, 1, 1) != 0) continue;
                    if (steps[at].call == "write") die(operation, state, steps, at, Fate::kDieMidway);
                    die(operation, state, steps, at, Fate::kDieAfter);
                    if (HasFatalFailure()) return;
                }
            }
        }
    }
    std::printf("killed at: %d points\n", points_);
}

// Every head lies within one sector, so neither a page nor a sector that was not written back tears it.
static_assert(kNodeOffset[0] / 512 == (kNodeOffset[0] + 31) / 512 &&
              kNodeOffset[1] / 512 == (kNodeOffset[1] + 31) / 512);

// Six writers append to both boxes until a timer kills them, each at a random moment, round after round.
class BoxWriters : public BoxLoss {
  protected:
    static constexpr std::uint32_t kWriters = 6;

    struct Shared {
        std::atomic<bool> go;
        std::atomic<std::uint32_t> begun[2][kWriters], done[2][kWriters];  // appends to a box
    };

    BoxWriters()
        : shared_(*static_cast<Shared*>(
              ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
    ~BoxWriters() override { ::munmap(static_cast<void*>(&shared_), sizeof shared_); }

    static std::uint32_t record_number(std::uint32_t round, std::uint32_t writer, std::uint32_t number) {
        return round << 20 | writer << 16 | number;
    }

    [[noreturn]] void write_until_killed(std::uint32_t round, std::uint32_t writer, long life_us) {
        // A signal that the library does not keep off.
        sigevent death{};
        death.sigev_notify = SIGEV_SIGNAL;
        death.sigev_signo = SIGKILL;
        timer_t timer{};
        const itimerspec when{{0, 0}, {0, 1000 * life_us}};
        if (::timer_create(CLOCK_MONOTONIC, &death, &timer) != 0) ::_exit(1);
        while (!shared_.go.load()) ::sched_yield();
        if (::timer_settime(timer, 0, &when, nullptr) != 0) ::_exit(1);
        for (std::uint32_t i = 0;; ++i) {
            const std::uint32_t box = i % 8 == 0 ? 0 : 1;
            const std::uint32_t number = shared_.begun[box][writer].fetch_add(1);
            if (append(box, record_number(round, writer, number)) != 0) ::_exit(1);
            shared_.done[box][writer].fetch_add(1);
        }
    }

    void kill_all_writers(std::uint32_t round, std::mt19937& random) {
        std::array<pid_t, kWriters> children{};
        std::memset(static_cast<void*>(&shared_), 0, sizeof shared_);
        for (std::uint32_t writer = 0; writer < kWriters; ++writer) {
            // Long enough for some appends.
            const auto life_us = static_cast<long>(1 + random() % by_effort(30000u, 2000u, 2000u));
            children[writer] = ::fork();
            if (children[writer] == 0) write_until_killed(round, writer, life_us);
        }
        shared_.go.store(true);
        for (const pid_t child : children) {
            int status = -1;
            ASSERT_EQ(child, ::waitpid(child, &status, 0));
            ASSERT_TRUE(WIFSIGNALED(status)) << "an append failed";
        }
    }

    // Of each writer's records all that were reported as stored are there, in order and without a gap, and at most the
    // one that it died in beside them; before them what was there, less what these replaced. Only the oldest record of
    // a full box may be anything.
    void expect_all_reported(std::uint32_t round, std::uint32_t box, const Bytes& before, const Bytes& after) {
        const Values old = newest_first(before, box), all = read_newest(box, 0, kCapacity[box]).values;
        const auto& begun = shared_.begun[box];
        const auto& done = shared_.done[box];
        std::array<std::optional<std::uint32_t>, kWriters> last{};
        std::uint32_t added = 0, reported = 0;
        for (std::uint32_t i = 0; i < all.size(); ++i) {
            if (i + 1 == kCapacity[box]) {
                mixed_ += all[i] == kMixed;
                break;
            }
            if (all[i] >> 20 != round) {
                ASSERT_EQ(old.at(i - added), all[i]);
                continue;
            }
            ASSERT_EQ(added++, i);
            const std::uint32_t writer = all[i] >> 16 & 0xF, number = all[i] & 0xFFFF;
            if (last[writer].has_value()) {
                ASSERT_EQ(*last[writer], number + 1);
            } else {
                ASSERT_TRUE(number + 1 == done[writer] || number + 1 == begun[writer]);
            }
            last[writer] = number;
        }
        for (std::uint32_t writer = 0; writer < kWriters; ++writer) {
            if (added + 1 < kCapacity[box]) {
                ASSERT_TRUE(last[writer].value_or(0) == 0) << "the first of them is missing";
                ASSERT_TRUE(last[writer].has_value() || done[writer] == 0);
            }
            reported += done[writer];
            inside_ += begun[writer] != done[writer];
        }
        const std::uint32_t capacity = kCapacity[box];
        const std::uint32_t advanced = capacity + next_slot_of(after, box) - next_slot_of(before, box);
        ASSERT_LE((advanced + capacity - reported % capacity) % capacity, kWriters);
        stored_ += reported;
    }

    Shared& shared_;
    int inside_ = 0, mixed_ = 0;
    std::uint32_t stored_ = 0;
};

TEST_F(BoxWriters, KilledAtRandomLoseNothingReportedAsStored) {
    std::mt19937 random = seeded();
    ASSERT_EQ(0u, KOVA_CreateBox());
    const auto count = by_effort(30u, 100u, 2000u);
    for (std::uint32_t round = 1; round <= count && !HasFatalFailure(); ++round) {
        SCOPED_TRACE(round);
        const Bytes before = file();
        kill_all_writers(round, random);
        const Bytes after = file();
        ASSERT_TRUE(heads_are_sound(after));
        for (const std::uint32_t box : {0u, 1u}) expect_all_reported(round, box, before, after);
    }
    std::printf("kills: %u, within an append: %d, leaving the oldest record mixed: %d; appends stored: %u\n",
                count * kWriters, inside_, mixed_, stored_);
}

// What power failing may leave of operations that were not written back: for every 4 KiB piece of each write, and for
// the file's length, the state before or after. Allowed are:
//
//   heads of the other box, its slots     as before
//   file head, node head                  before or after one of the operations; never a mixture
//   slots that the operations wrote       any mixture of before and after, counted or not
//   all other slots                       as before, and delivered if counted
//   the file itself                       opens; the next append is stored
TEST_F(BoxLoss, PowerFailingCostsAtMostWhatWasNotWrittenBack) {
    constexpr std::size_t kPiece = 4096;
    const struct {
        const char* name;
        std::size_t state;
        std::vector<Operation> operations;
        std::size_t touched;  // records, at most, that differ
    } cases[] = {
        {"first append ever", 0, {{Op::kAppend, 0, 0xA1}}, 1},
        {"first assert ever", 0, {{Op::kAppend, 1, 0xA1}}, 1},
        {"append, filling", 2, {{Op::kAppend, 0, 0xA1}}, 1},
        {"append, full", 3, {{Op::kAppend, 0, 0xA1}}, 1},
        {"assert, full", 3, {{Op::kAppend, 1, 0xA1}}, 1},
        {"three appends", 3, {{Op::kAppend, 0, 0xA1}, {Op::kAppend, 0, 0xA2}, {Op::kAppend, 0, 0xA3}}, 3},
        {"repaired and appended to", 4, {{Op::kAppend, 0, 0xA1}}, 20},
        {"newest rewritten", 3, {{Op::kRewrite, 1, 0xA1, 2}}, 1},
        {"reset", 3, {{Op::kReset, 0}}, 20},
        {"reset, asserts", 3, {{Op::kReset, 1}}, 100},
    };
    std::mt19937 random = seeded();
    int tried = 0;
    for (const auto& c : cases) {
        const Bytes& before = states()[c.state].image;
        const std::uint32_t box = c.operations[0].box;
        put(before);
        std::vector<Step> pieces;
        Values kept = newest_first(before, box);
        for (const Operation& operation : c.operations) {
            const Watch watch;
            ASSERT_EQ(0u, perform(operation).code);
            for (const Step& change : calls().changes) {
                if (change.call == "ftruncate" && before.size() < kFileBytes) pieces.push_back(change);
                for (std::size_t at = change.write.at, end = at + change.write.data.size(); at < end;) {
                    const std::size_t stop = std::min(end, (at / kPiece + 1) * kPiece);
                    const auto* data = change.write.data.data() + (at - change.write.at);
                    pieces.push_back({"write", 0, {at, Bytes(data, data + (stop - at))}});
                    at = stop;
                }
            }
        }
        if (c.operations[0].op == Op::kRewrite) kept.erase(kept.begin());
        if (c.operations[0].op == Op::kReset || !node_head_is_sound(before, box)) kept.clear();
        if (c.operations[0].op == Op::kAppend && kept.size() == kCapacity[box]) kept.resize(kept.size() - c.touched);
        const bool all = pieces.size() <= 8;
        const auto subsets = all ? 1 << pieces.size() : by_effort(60, 300, 5000);
        for (int subset = 0; subset < subsets; ++subset) {
            SCOPED_TRACE(::testing::Message() << c.name << ", subset " << subset);
            Bytes image = before;
            for (std::size_t i = 0; i < pieces.size(); ++i) {
                if (all ? (subset >> i & 1) != 0 : random() % 2 != 0) put_into(image, pieces[i]);
            }
            put(image);
            ++tried;
            expect_kept(box, kept, c.touched);
            ASSERT_EQ(newest_first(before, 1 - box), newest_first(file(), 1 - box));
            ASSERT_EQ(0u, append(box, 0xBB));
            ASSERT_EQ(0u, append(1 - box, 0xCC));
            ASSERT_TRUE(heads_are_sound(file()));
            ASSERT_EQ(0xBBu, read_newest(box, 0, 1).values.at(0));
            ASSERT_EQ(0xCCu, read_newest(1 - box, 0, 1).values.at(0));
            if (HasFatalFailure()) return;
        }
    }
    std::printf("states after a power failure: %d\n", tried);
}

}  // namespace
}  // namespace kova::test
