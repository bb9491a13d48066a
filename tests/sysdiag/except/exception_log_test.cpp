// The exception log as several processes share it, and the helpers beside it.
#include "kova/exception_log.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "sysdiag/except/map_fixture.h"

namespace kova::test {
namespace {

Code write_text(const std::string& text) {
    return KOVA_WriteExceptInfo2Log(text.data(), static_cast<std::uint32_t>(text.size()));
}

class ExceptionLog : public testing::Test {
  protected:
    ExceptionLog() { remove_log_and_box(); }
};

TEST_F(ExceptionLog, PiecesAreAppendedToAFileThatTheFirstOneMakes) {
    ::umask(0);
    EXPECT_EQ(kOk, write_text("one"));
    EXPECT_EQ(kOk, KOVA_PrintfExceptInfo2log("two", 3));
    struct stat status {};
    ASSERT_EQ(0, ::stat(kLogPath, &status));
    EXPECT_EQ(0660U, status.st_mode & 07777);
    EXPECT_EQ("onetwo\n", log_text());
}

TEST_F(ExceptionLog, PiecesOfTwoProcessesAndWholeMapsNeverMix) {
    constexpr int kRounds = 40;
    const std::string map = many_map_lines();
    const std::string piece(1500, 'p');
    const pid_t copier = start_child([&] {
        fake_map_file(map);
        for (int i = 0; i < kRounds; ++i) KOVA_DumpMapsFile();
    });
    const pid_t writer = start_child([&] {
        for (int i = 0; i < 20 * kRounds; ++i) EXPECT_EQ(kOk, write_text(piece));
    });
    EXPECT_EQ(0, end_of_child(copier));
    EXPECT_EQ(0, end_of_child(writer));
    const std::string log = log_text();
    int maps = 0;
    int pieces = 0;
    for (std::size_t at = 0; at < log.size();) {
        const bool is_map = log.compare(at, map.size(), map) == 0;
        ASSERT_TRUE(is_map || log.compare(at, piece.size(), piece) == 0) << "split at " << at;
        ++(is_map ? maps : pieces);
        at += is_map ? map.size() : piece.size();
    }
    EXPECT_EQ(kRounds, maps);
    EXPECT_EQ(20 * kRounds, pieces);
}

}  // namespace
}  // namespace kova::test
