// A C stream that closes itself. Not for signal context: streams allocate and lock.
#pragma once

#include <cstdio>

namespace kova {

class UniqueFile {
  public:
    explicit UniqueFile(std::FILE* stream) : stream_(stream) {}
    UniqueFile(const UniqueFile&) = delete;
    UniqueFile& operator=(const UniqueFile&) = delete;
    ~UniqueFile() {
        // What is written is for diagnosis: a full disk loses it, and there is nobody to tell.
        if (stream_ != nullptr) static_cast<void>(std::fclose(stream_));
    }

    [[nodiscard]] std::FILE* get() const { return stream_; }
    [[nodiscard]] bool is_open() const { return stream_ != nullptr; }

  private:
    std::FILE* stream_;
};

}  // namespace kova
