// Plays the scripts beside this file: what is done to a model, what it answers, and its complaints.
//
// "PLACE: ACCESS..." is a line of accesses: "10<5" writes, "10>5" reads and compares, "10>!5" wants
// anything else, "10>" only reads, "spi: 9F>EF" sends bytes and receives some. Numbers are
// hexadecimal, times decimal. "20us" lets time pass, "power" takes power away and gives it back,
// "zeros" fills the chip. Complaints follow " => ", with " | " between them; otherwise there must
// be none. "NAME = ACCESS..." gives accesses a name. Machines and faults are described as in
// sessions.
#include "hardware/hex.h"
#include "tests/player/machine_lines.h"

#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <sstream>

namespace {

using namespace emulator;

std::uint32_t number(const std::string& text) {
    return static_cast<std::uint32_t>(std::stoul(text, nullptr, 16));
}

std::vector<std::uint8_t> bytes(const std::string& digits) {
    std::vector<std::uint8_t> result;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        result.push_back(static_cast<std::uint8_t>(number(digits.substr(i, 2))));
    }
    return result;
}

class Script {
  public:
    void play(const std::string& line) {
        const std::size_t equals = line.find(" = ");
        if (line.starts_with("machine") || line.starts_with("fault")) {
            describe(line);
        } else if (equals != line.npos) {
            names_[line.substr(0, equals)] = line.substr(equals + 3);
        } else {
            if (!machine_) {
                machine_ = build_machine(lines_.describe(), clock_, images_);
                machine_->assign_bars();
            }
            const std::size_t arrow = line.find(" => ");
            carry_out(line.substr(0, arrow));
            std::string complaints;
            for (const std::string& misuse : machine_->journal().take_misuses()) {
                complaints += (complaints.empty() ? "" : " | ") + misuse;
            }
            EXPECT_EQ(complaints, arrow == line.npos ? "" : line.substr(arrow + 4));
        }
    }

  private:
    Adapter& adapter() { return machine_->adapter(0); }
    SpiChip* spi() { return adapter().spi().chip(); }
    NorChip* nor() { return adapter().nor() == nullptr ? nullptr : adapter().nor()->chip(); }
    std::span<std::uint8_t> contents() { return nor() ? nor()->contents() : spi()->contents(); }

    /// Takes lines as sessions have them, with " ; " between them. Chips are never busy unless one
    /// says so.
    void describe(const std::string& line) {
        std::istringstream parts(std::regex_replace(line, std::regex(" ; "), "\n"));
        for (std::string part; std::getline(parts, part);) {
            lines_.take(part);
            if (part.starts_with("machine")) {
                lines_.take("time none");
            }
        }
        machine_.reset();
    }

    void carry_out(const std::string& accesses) {
        std::istringstream words(accesses);
        for (std::string word; words >> word;) {
            if (names_.contains(word)) {
                carry_out(names_[word]);
            } else if (word.ends_with(':')) {
                place_ = word.substr(0, word.size() - 1);
            } else if (word == "power") {
                adapter().power_up();
            } else if (word == "zeros") {
                std::ranges::fill(contents(), std::uint8_t{0});
            } else if (word.ends_with("us")) {
                clock_.advance_us(std::stoull(word));
            } else {
                access(word);
            }
        }
    }

    void access(const std::string& word) {
        const std::size_t at = std::min(word.find_first_of("<>"), word.size());
        const std::string target = word.substr(0, at);
        const std::string value = word.substr(std::min(at + 1, word.size()));
        if (place_ == "spi") {
            const auto expected = bytes(value);
            std::vector<std::uint8_t> received(expected.size());
            spi()->clock(bytes(target), received);
            EXPECT_EQ(received, expected) << word;
        } else if (word[at] == '<') {
            write(number(target), number(value));
        } else {
            const std::uint32_t read = this->read(number(target));
            const bool differs = value.starts_with('!');
            EXPECT_TRUE(value.empty() || (read == number(value.substr(differs))) != differs)
                << word << ": " << hex(read, 1);
        }
    }

    /// Bytes of an access: two at a place like "BAR0.2".
    int width() const { return place_.ends_with(".2") ? 2 : 4; }

    /// The bus address of a register: in "BAR0", or behind a pair like "B0" in BAR 5, which gets
    /// the index. "B0+100" adds that to each index.
    std::uint64_t select(std::uint32_t reg) {
        const auto bar = [this](std::uint32_t n) {
            return adapter().pci().read(0x10 + 4 * n, 4) & ~0xFU;
        };
        if (place_.starts_with("BAR")) {
            return bar(number(place_.substr(3, 1))) + reg;
        }
        std::istringstream place(place_);
        std::uint32_t pair = 0;
        std::uint32_t first = 0;
        place >> std::hex >> pair >> first;
        machine_->memory_write(bar(5) + pair, first + reg, 4);
        return bar(5) + pair + 4;
    }

    std::uint32_t read(std::uint32_t at) {
        return place_ == "flash"              ? contents()[at]
               : place_ == "nor"              ? nor()->read(at)
               : place_.starts_with("config") ? adapter().config_read(at, width())
                                              : machine_->memory_read(select(at), width());
    }

    void write(std::uint32_t at, std::uint32_t value) {
        if (place_ == "flash") {
            contents()[at] = static_cast<std::uint8_t>(value);
        } else if (place_ == "nor") {
            nor()->write(at, static_cast<std::uint16_t>(value));
        } else if (place_.starts_with("config")) {
            adapter().config_write(at, value, width());
        } else {
            machine_->memory_write(select(at), value, width());
        }
    }

    std::map<std::string, std::string> names_;
    session::MachineLines lines_;
    VirtualClock clock_;
    ImageFiles images_;
    std::unique_ptr<Machine> machine_;
    std::string place_;
};

class Models : public testing::TestWithParam<const char*> {};

TEST_P(Models, DoWhatTheirScriptSays) {
    std::ifstream file(QFU_SOURCE_DIR "/tests/hardware/" + std::string(GetParam()) + ".txt");
    ASSERT_TRUE(file);
    Script script;
    for (std::string line; std::getline(file, line);) {
        SCOPED_TRACE(line);
        if (!line.empty() && line[0] != '#') {
            script.play(line);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, Models, testing::Values("adapter", "spi", "nor", "phy"),
                         [](const auto& info) { return std::string(info.param); });

} // namespace
