// Puts a text over a file of the system, /proc included, until the end of the scope. Needs a private node: the cover is
// a bind mount.
#pragma once

#include <sys/mount.h>
#include <unistd.h>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

namespace kova::test {

inline void write_file(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    ASSERT_TRUE(file.good()) << path;
}

inline std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class CoveredFile {
  public:
    CoveredFile(std::string path, const std::string& text) : path_(std::move(path)) {
        char cover[] = "/run/cover-XXXXXX";
        const int fd = ::mkstemp(cover);
        EXPECT_GE(fd, 0);
        ::close(fd);
        cover_ = cover;
        write_file(cover_, text);
        EXPECT_EQ(0, ::mount(cover_.c_str(), path_.c_str(), nullptr, MS_BIND, nullptr)) << path_;
    }
    CoveredFile(const CoveredFile&) = delete;
    CoveredFile& operator=(const CoveredFile&) = delete;
    ~CoveredFile() {
        EXPECT_EQ(0, ::umount2(path_.c_str(), MNT_DETACH)) << path_;
        ::unlink(cover_.c_str());
    }

  private:
    std::string path_;
    std::string cover_;
};

}  // namespace kova::test
