// How libFuzzer calls a fuzzer.
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kova::fuzz::Input input({data, size});
    kova::fuzz::run(input);
    return 0;
}
