#include "qfu/status_text.h"

#include "hardware/hex.h"
#include "qfu/sha256.h"

#include <gtest/gtest.h>
#include <string>

namespace {

TEST(StatusText, KeepsItsWordingForEveryCode) {
    std::string known;
    for (int code = 0; code < 256; ++code) {
        const std::string text = qfu_status_string(code);
        EXPECT_EQ(qfu_status_string(code - 256), text) << "the low eight bits count";
        known += text == "Unknown error" ? "" : std::to_string(code) + " " + text + "\n";
    }
    // Programs that read the console know these texts, odd as some are.
    QFU_SHA256 sha;
    sha.add({reinterpret_cast<const std::uint8_t*>(known.data()), known.size()});
    std::string sum;
    for (const std::uint8_t byte : sha.finish()) {
        sum += emulator::hex(byte, 2);
    }
    EXPECT_EQ(sum, "01F9F915DD84FB6897E20FBD5634E5EA89A8849ABF7DA4FC9896AD5D557F6EF4") << known;
}

} // namespace
