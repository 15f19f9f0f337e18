// Any format with any arguments. The input's first line is the format; the size of the buffer and
// the arguments follow. A small buffer must get the beginning of what a large one gets, and the
// sanitizer sees what is written past its end.
#include "bench.h"
#include "qfu/console.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kLarge = 2048;
    constexpr int kArguments = 12;
    fuzz::Input input(data, size);
    const std::string format(input.line());
    std::vector<char> small(input.take<std::uint8_t>() * 4U, 'Z');
    std::vector<char> large(kLarge);
    std::uint32_t counter = 0;
    std::vector<QFU_FORMAT_ARGUMENT> arguments;
    for (int i = 0; i < kArguments; ++i) {
        const int kind = input.take<std::uint8_t>() % 8;
        const auto number = input.take<std::uint64_t>();
        arguments.push_back(kind == 0 ? QFU_FORMAT_ARGUMENT(&counter)
                            : kind <= 2
                                ? QFU_FORMAT_ARGUMENT(format.c_str() + number % (format.size() + 1))
                            : kind == 3 ? QFU_FORMAT_ARGUMENT(number)
                                        : QFU_FORMAT_ARGUMENT(number % 64));
    }
    const std::size_t all = qfu_format(large, format.c_str(), arguments);
    const std::size_t length = qfu_format(small, format.c_str(), arguments);
    const std::size_t room = small.empty() ? 0 : small.size() - 1;
    EXPECT_EQ(std::string_view(small.data(), length),
              std::string_view(large.data(), all).substr(0, room));
    EXPECT_TRUE(small.empty() || small[length] == 0) << "no end";
    EXPECT_LE(counter, room);
    return 0;
}
