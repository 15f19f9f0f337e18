// Any bytes as a chip list: the program's loader and the tool's reader must survive them, agree on
// what is a list, and mean the same by it.
#include "check.h"
#include "context.h"
#include "image.h"
#include "platform/system.h"
#include "uefi/firmware.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace {

using Bytes = std::vector<std::uint8_t>;

void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "chip_list_fuzz: %s\n", what);
        std::abort();
    }
}

/// Firmware with a volume in a folder that goes with it.
class Shell {
  public:
    Shell()
        : folder_(make_folder()), file_(folder_ / "spilist.bin", std::ios::binary),
          machine_(clock_), firmware_(machine_, clock_, folder_) {
        firmware_.activate(emulator::Shell::kCurrent, {"qfu"});
        platform::attach(firmware_.image(), firmware_.table());
    }
    Shell(const Shell&) = delete;
    Shell& operator=(const Shell&) = delete;
    ~Shell() { std::filesystem::remove_all(folder_); }

    /// Whether the program takes the bytes for a list.
    bool program_takes(const Bytes& bytes) {
        // Written over and cut: file systems wait for the disk when a file is emptied first.
        file_.seekp(0);
        file_.write(reinterpret_cast<const char*>(bytes.data()),
                    static_cast<std::streamsize>(bytes.size()));
        file_.flush();
        std::filesystem::resize_file(folder_ / "spilist.bin", bytes.size());
        bool taken = false;
        {
            QFU_CONTEXT context{};
            require(qfu_chiplist_load(context) == EFI_SUCCESS, "the file cannot be opened");
            taken = context.chip_list != nullptr;
            if (taken) {
                walk(*context.chip_list);
            }
        }
        require(firmware_.resources() == emulator::Resources{}, "something was not given back");
        return taken;
    }

  private:
    static std::filesystem::path make_folder() {
        std::string name = (std::filesystem::temp_directory_path() / "qfu-fuzz-XXXXXX").string();
        return mkdtemp(name.data());
    }

    /// Looks at all that the driver looks at, as far as the list's ends.
    static void walk(const QFU_CHIP_LIST& list) {
        std::size_t opcodes = 0;
        while (list.id_opcodes[opcodes] != 0) {
            ++opcodes;
        }
        require(opcodes < list.id_opcodes.size(), "the opcodes have no end");
        std::size_t records = 0;
        while (list.records[records].whole_size != 0) {
            qfu_spiflash_id_match(list.records[records], 0x001640EF);
            ++records;
        }
        require(records > 0 && records < list.records.size(), "the records have no end");
    }

    std::filesystem::path folder_;
    std::ofstream file_;
    emulator::VirtualClock clock_;
    emulator::Machine machine_;
    emulator::Firmware firmware_;
};

std::uint32_t id_of(const QFU_CHIP_ENTRY& entry) {
    std::uint32_t id = 0;
    for (std::size_t i = 0; i < 4 && i < entry.id_len; ++i) {
        id |= std::uint32_t{entry.id_bytes[i]} << 8 * i;
    }
    return id;
}

/// Of a list with nothing to find, each record is the one that its chip gets, and the bytes can be
/// made again from what was read.
void require_served(const chiplist::ChipList& list) {
    for (const chiplist::Chip& chip : list.chips) {
        const auto first = std::ranges::find_if(list.chips, [&](const chiplist::Chip& other) {
            return qfu_spiflash_id_match(other.entry, id_of(chip.entry)) == 0;
        });
        require(&*first == &chip, "a record is hidden");
        require(chip.entry.sector_size != 0 && chip.entry.block_size != 0, "an erase never ends");
    }
    const Bytes again = chiplist::encode(list);
    require(qfu_chiplist_valid(again), "what was read cannot be built");
    require(chiplist::decode(again).chips.size() == list.chips.size(), "a record was lost");
}

void try_list(Shell& shell, const Bytes& bytes) {
    const chiplist::ChipList list = chiplist::decode(bytes);
    const std::vector<chiplist::Finding> findings = chiplist::check(list);
    require(shell.program_takes(bytes) == !chiplist::is_rejected(findings),
            "the program and the tool do not agree");
    if (findings.empty()) {
        require_served(list);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Shell shell;
    Bytes bytes(data, data + size);
    try_list(shell, bytes);
    if (size >= sizeof(QFU_CHIP_LIST)) {
        // Once more with the sum made right, or no other change would ever be looked at.
        std::uint8_t sum = 0;
        for (std::size_t i = 0; i < sizeof(QFU_CHIP_LIST); ++i) {
            sum = static_cast<std::uint8_t>(sum + bytes[i]);
        }
        std::uint8_t& spare = bytes[offsetof(QFU_CHIP_LIST, reserved_5)];
        spare = static_cast<std::uint8_t>(spare - sum);
        try_list(shell, bytes);
    }
    return 0;
}
