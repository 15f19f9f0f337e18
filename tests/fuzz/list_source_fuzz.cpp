// Any bytes as the source of a chip list: a list that the program takes, findings that say why it
// would not, or a complaint for the person who wrote it.
#include "bench.h"
#include "spilist/check.h"
#include "spilist/image.h"
#include "spilist/source.h"
#include "support/input_error.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static lab::Lab lab;
    lab.write_file("list.toml", std::span(data, size));
    try {
        const spilist::ChipList list = spilist::read_source(lab.folder() / "list.toml");
        if (spilist::check(list).empty()) {
            const lab::Bytes bytes = spilist::encode(list);
            EXPECT_TRUE(qfu_chiplist_valid(bytes)) << "a good source makes a list that is refused";
            EXPECT_EQ(spilist::decode(bytes).chips.size(), list.chips.size());
        }
    } catch (const support::InputError& error) {
        EXPECT_STRNE(error.what(), "");
    }
    return 0;
}
