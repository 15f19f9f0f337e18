// Plays the scripts beside this file: what is done to a model, what it answers, and its complaints.
//
// "PLACE: ACCESS..." is a line of accesses: "10<5" writes, "10>5" reads and compares, "10>" only
// reads, "spi: 9F>EF" sends bytes and receives some. Numbers are hexadecimal, times decimal.
// "20us" lets time pass, "power" takes power away and gives it back, "zeros" fills the chip.
// Complaints follow " => ", with " | " between them; otherwise there must be none.
// "NAME = ACCESS..." gives accesses a name.
#include "hardware/machine.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iomanip>
#include <map>
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

/// Words of a line as keys and values: `on "read id" nth 2`.
struct Settings : std::map<std::string, std::string> {
    explicit Settings(std::istream& words) {
        for (std::string key; words >> key;) {
            words >> std::quoted((*this)[key]);
        }
    }
    std::uint32_t value(const char* key, std::uint32_t usual) {
        return contains(key) ? number(at(key)) : usual;
    }
    std::uint8_t byte(const char* key, std::uint8_t usual) {
        return static_cast<std::uint8_t>(value(key, usual));
    }
};

class Script {
  public:
    void play(const std::string& line) {
        std::istringstream words(line);
        std::string first;
        words >> first;
        if (first == "machine") {
            build(words);
        } else if (first == "fault") {
            add_fault(words);
        } else if (const std::size_t equals = line.find(" = "); equals != line.npos) {
            names_[first] = line.substr(equals + 3);
        } else {
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

    void build(std::istream& words) {
        std::string device;
        words >> device;
        Settings settings(words);
        machine_ = std::make_unique<Machine>(clock_);
        const auto& model = *find_adapter_model(0x1E5D, static_cast<std::uint16_t>(number(device)));
        machine_->add(model, {0, 2, 0}, settings.byte("revision", 0x11));
        const BusyTimes times = settings["time"] == "typical" ? BusyTimes{} : kNeverBusy;
        if (settings.contains("spi")) {
            machine_->add_spi_chip(adapter(), *find_spi_part(settings["spi"]), times);
        }
        if (settings.contains("nor")) {
            machine_->add_nor_chip(adapter(), *find_nor_part(number(settings["nor"])), times);
        }
        if (settings.contains("ports")) {
            adapter().phy()->set_ports_implemented(number(settings["ports"]));
        }
        machine_->assign_bars();
    }

    void add_fault(std::istream& words) {
        std::string kind;
        words >> std::quoted(kind);
        Settings settings(words);
        const std::uint32_t nth = settings.value("nth", 1);
        const std::uint32_t times = settings.value("times", 0);
        if (const auto phy = phy_fault_kind_named(kind)) {
            adapter().phy()->add_fault(
                {*phy, settings.byte("port", 0), nth, times, settings.value("value", 0)});
            return;
        }
        const auto on = operation_named(settings["on"]);
        Fault fault{fault_kind_named(kind).value(), on, {}, nth, times,
                    settings.byte("mask", 0xFF)};
        if (settings.contains("address")) {
            fault.address = settings.value("address", 0);
        }
        (nor() ? nor()->faults() : spi()->faults()).add(fault);
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
            EXPECT_TRUE(value.empty() || read == number(value)) << word << ": " << hex(read, 1);
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
    VirtualClock clock_;
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
