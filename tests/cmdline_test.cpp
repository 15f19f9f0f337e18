#include "cmdline.h"

#include "context.h"
#include "lab.h"

#include <gtest/gtest.h>

namespace {

using lab::Lab;

/// One parse, by itself.
struct Parse {
    explicit Parse(const std::string& line) : Parse(lab::words("qfu " + line)) {}

    explicit Parse(const std::vector<std::string>& arguments) {
        lab.attach();
        std::vector<const char*> argv;
        argv.reserve(50);
        for (const std::string& argument : arguments) {
            argv.push_back(argument.c_str());
        }
        argv.resize(50);
        status = qfu_parse_command_line(&context, static_cast<std::uint32_t>(arguments.size()),
                                        argv.data());
        printed = lab.printed();
    }
    ~Parse() { lab.attach(); } // another parse may have come between; the context gives back here

    Lab lab;
    QFU_CONTEXT context{};
    EFI_STATUS status;
    std::string printed;
};

TEST(Parser, FailsWithoutAContext) {
    EXPECT_EQ(qfu_parse_command_line(nullptr, 1, nullptr), EFI_ABORTED);
}

TEST(Parser, TurnsOptionsIntoFlagsAndFields) {
    const Parse p("-l -y -se -phytest -lback -erctn -adid 3 -cvid 0x1E5D -cdid c709 -csid 0X1 "
                  "-addr 0x00080000 -sz 080000 -p 2 -r 1 -n mftp -t 0x10");
    EXPECT_EQ(p.status, EFI_SUCCESS);
    EXPECT_EQ(p.printed, "");
    EXPECT_EQ(p.context.flags, QFU_REQ_LIST | QFU_REQ_YES | QFU_REQ_SECTOR_ERASE | QFU_REQ_PHYTEST |
                                   QFU_REQ_PHY_LOOPBACK | QFU_REQ_PHY_ERCTN | QFU_REQ_ADAPTER |
                                   QFU_REQ_VENDOR | QFU_REQ_DEVICE | QFU_REQ_CHIP_SELECT |
                                   QFU_REQ_ADDRESS | QFU_REQ_SIZE | QFU_REQ_PHY_PORT |
                                   QFU_REQ_PHY_RATE | QFU_REQ_PHY_PATTERN | QFU_REQ_PHY_TIME);
    EXPECT_EQ(p.context.argc, 27U);
    EXPECT_EQ(p.context.adapter_id, 3);
    EXPECT_EQ(p.context.vendor_filter, 0x1E5D);
    EXPECT_EQ(p.context.device_filter, 0xC709);
    EXPECT_EQ(p.context.chip_select, 1);
    EXPECT_EQ(p.context.address, 524288U);
    EXPECT_EQ(p.context.size, 80000U);
    EXPECT_EQ(p.context.phy_port, 2);
    EXPECT_EQ(p.context.phy_rate, 1);
    EXPECT_EQ(p.context.phy_pattern, 6);
    EXPECT_EQ(p.context.phy_time, 16);
}

TEST(Parser, AllStandsForEveryAdapterAndPort) {
    const Parse p("-adid ALL -p ALL");
    EXPECT_EQ(p.context.flags,
              QFU_REQ_ADAPTER | QFU_REQ_ADAPTER_ALL | QFU_REQ_PHY_PORT | QFU_REQ_PHY_PORT_ALL);
}

TEST(Parser, WipeWinsOverSectorErase) {
    EXPECT_EQ(Parse("-se -wpa").context.flags, QFU_REQ_WIPE);
}

TEST(Parser, IgnoresWhatItDoesNotKnowAndTakesTheFirstOfTwo) {
    const Parse p("-Y -addr 1 -addr 2 word");
    EXPECT_EQ(p.status, EFI_SUCCESS);
    EXPECT_EQ(p.context.flags, QFU_REQ_ADDRESS);
    EXPECT_EQ(p.context.address, 1U);
}

TEST(Parser, KeepsTheLowBitsOfNumbersThatAreTooLarge) {
    EXPECT_EQ(Parse("-adid 65537").context.adapter_id, 1);
    EXPECT_EQ(Parse("-addr 0x123456789").context.address, 0x23456789U);
    EXPECT_EQ(Parse("-sz 4294967297").context.size, 1U);
    const Parse slot("-csid 0x10000");
    EXPECT_EQ(slot.status, EFI_SUCCESS);
    EXPECT_EQ(slot.context.chip_select, 0);
    EXPECT_EQ(Parse("-t 65537").context.phy_time, 1);
    EXPECT_EQ(Parse("-cvid 0x91E5D").context.vendor_filter, 0x1E5D);
}

TEST(Parser, EmptyValuesCountAsZero) {
    const Parse p(
        std::vector<std::string>{"qfu", "-adid", "", "-cvid", "0x", "-addr", "", "-t", "0x"});
    EXPECT_EQ(p.status, EFI_SUCCESS);
    EXPECT_EQ(p.context.flags,
              QFU_REQ_ADAPTER | QFU_REQ_VENDOR | QFU_REQ_ADDRESS | QFU_REQ_PHY_TIME);
    EXPECT_EQ(p.context.vendor_filter, 0);
}

constexpr char kDigits24[] = "000000000000000000000001";

TEST(Parser, RefusesValuesThatAreLongerThan23Characters) {
    EXPECT_EQ(Parse(std::string("-addr ") + (kDigits24 + 1)).context.address, 1U);
    EXPECT_EQ(Parse(std::string("-addr ") + kDigits24).printed,
              std::string("The address value isn't a Dec(") + kDigits24 + ").\r\n");
    EXPECT_EQ(Parse("-cvid 0x1111111111222222222233").printed,
              "The Vendor ID isn't a Hex(0x1111111111222222222233).\r\n");
}

TEST(Parser, NeverReadsBehindTheLastArgument) {
    std::vector<std::string> arguments(50, "x");
    arguments[49] = "-addr";
    EXPECT_EQ(Parse(arguments).printed, "The address value isn't a Dec(<NULL>).\r\n");
}

TEST(Parser, OpensTheFirstOfTheFilesThatItIsGiven) {
    Lab lab;
    lab.kind(1);
    lab.write_file("a-name-of-many-letters.bin", std::string(300, 'x'));
    const auto run =
        lab.run("-rfb dump.bin -wbf a-name-of-many-letters.bin -addr 0x80000 -getparm p.nsh");
    EXPECT_TRUE(run.text().starts_with(
        ">>The file name is a-name-of-many-letters.bin and its size is 300.\nA"));
    EXPECT_FALSE(lab.exists("dump.bin"));
    EXPECT_FALSE(lab.exists("p.nsh"));
}

TEST(Parser, LeavesFilesAloneWhenAValueIsBad) {
    Lab lab;
    lab.write_file("backup.bin", "kept");
    lab.run("-rfb backup.bin -addr 12G");
    lab.run("-getparm backup.bin -adid x");
    EXPECT_EQ(lab.read_text("backup.bin"), "kept");
}

TEST(Parser, NamesFilesThatDoNotOpen) {
    Lab lab;
    EXPECT_EQ(lab.run("-wbf none.bin").text(),
              "Error line 1605. The file none.bin did not open.\n"
              "-if:The none.bin file can't open.\nprocess_file_fun() has warning!!(2)\n");
    EXPECT_EQ(lab.run("-getparm no/dir").text(),
              "Error line 1613. The file no/dir can't be created.\n"
              ">>The no/dir file can't open.\nprocess_file_fun() has warning!!(2)\n");
}

TEST(Parser, ClosesTheImageWhenTheChipListIsMissing) {
    Lab lab;
    lab.remove_chip_list();
    lab.write_file("image.bin", "12");
    EXPECT_EQ(lab.run("-wbf image.bin").text(),
              ">>The file name is image.bin and its size is 2.\n"
              "Error line 1605. The file spilist.bin did not open.\n"
              "The spilist.bin file can't open.\nprocess_file_fun() has warning!!(2)\n");
}

TEST(FindOption, StopsAtTheFirstAbsentArgument) {
    const char* argv[] = {"-y", "-yes", "-y", nullptr, "-l"};
    EXPECT_EQ(qfu_find_option(5, argv, "-y"), 2U);
    EXPECT_EQ(qfu_find_option(5, argv, "-l"), 0U);
    EXPECT_EQ(qfu_find_option(1, argv, "-y"), 0U);
}

TEST(Digits, AreReadUpToTheFirstOtherCharacter) {
    EXPECT_EQ(qfu_parse_hex("1aFg9"), 0x1AFU);
    EXPECT_EQ(qfu_parse_hex(""), 0U);
    EXPECT_TRUE(qfu_is_hex(""));
    EXPECT_FALSE(qfu_is_hex("0x1"));
    EXPECT_FALSE(qfu_is_decimal("1 "));
}

} // namespace
