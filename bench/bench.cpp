#include "bench.h"

#include "image.h"
#include "source.h"

#include <cstdlib>
#include <fstream>
#include <random>

namespace bench {

using namespace emulator;

Bench::Bench(const Subject& subject) {
    std::string name = (std::filesystem::temp_directory_path() / "qfu-bench-XXXXXX").string();
    folder_ = mkdtemp(name.data());
    write("spilist.bin",
          chiplist::encode(chiplist::read_source(QFU_SOURCE_DIR "/chiplist/chips.toml")));
    Adapter& adapter = machine_.add(*find_adapter_model(0x1E5D, subject.device), {0, 2, 0}, 0);
    if (subject.nor_id != 0) {
        contents_ =
            machine_.add_nor_chip(adapter, *find_nor_part(subject.nor_id), kNeverBusy).contents();
    } else {
        contents_ =
            machine_.add_spi_chip(adapter, *find_spi_part(subject.spi_part), kNeverBusy).contents();
    }
    machine_.assign_bars();
    firmware_.emplace(machine_, clock_, folder_);
}

Bench::~Bench() {
    std::filesystem::remove_all(folder_);
}

void Bench::write(const std::string& name, const Bytes& bytes) const {
    std::ofstream out(folder_ / name, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

EFI_STATUS Bench::run(const std::vector<std::string>& options) {
    std::vector<std::string> arguments = {kCommandName};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return run_program(*firmware_, Shell::kCurrent, arguments);
}

Bytes random_bytes(std::size_t count) {
    std::mt19937 random(1);
    Bytes bytes(count);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

} // namespace bench
