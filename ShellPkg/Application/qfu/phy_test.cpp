#include "phy_test.h"

#include "adapter.h"
#include "console.h"
#include "context.h"
#include "platform/clock.h"
#include "status_text.h"

#include <array>
#include <cstddef>

const char QFU_PHY_USAGE[] =
    "\n-phytest [-p <phy id>] [-r <phy rate>][-n <pattern>][-a][-h]\n\n"
    "Options:\n"
    "    -p, --port <phy id or ALL>\n"
    "    -n, --pattern <pattern>\n"
    "    -lback, --loopback Loopback test.\n"
    "    -erctn, --error continue.\n"
    "    -t, --only valid with -l parameter, time <test duration>, unit: second\n"
    "    -h, --help\n"
    "Examples:\n"
    "  ./qfu -phytest -p ALL\n"
    "    Test all phy(s) and produce all rate Eye Diagram.\n"
    "  ./qfu -phytest -p 0 \n"
    "      Test phy 0 and produce 1.5Gb/s Eye Diagram.\n"
    "  ./qfu -phytest -p 0 -lback -t 1\n"
    "      Test phy 0 and produce 3Gb/s Eye Diagram for 10 seconds.\n";

namespace {

/// Registers of AHCI space.
constexpr std::uint32_t AHCI_HOST_CONTROL = 0x04;
constexpr std::uint32_t AHCI_PORTS_IMPLEMENTED = 0x0C;
constexpr std::uint32_t AHCI_ENABLE = 0x80000000;

/// PHY test registers.
constexpr std::uint32_t PHY_RATE = 0x02;
constexpr std::uint32_t PHY_CONTROL = 0x95;
constexpr std::uint32_t PHY_PATTERN = 0x96; ///< the first of six
constexpr std::uint32_t PHY_COUNTER_LATCH = 0x9C;
constexpr std::uint32_t PHY_COUNTER_HIGH = 0x9D;
constexpr std::uint32_t PHY_COUNTER_LOW = 0x9E;
constexpr std::uint32_t PHY_ERRORS_HIGH = 0x9F;
constexpr std::uint32_t PHY_ERRORS_LOW = 0xA0;

constexpr std::uint32_t RATE_LOAD = 0x0001;
constexpr std::uint32_t CONTROL_RESET = 0x4000;
constexpr std::uint32_t STATUS_PASS = 0x2000;
constexpr std::uint32_t STATUS_LOCK = 0x1000;

/// What a port needs after the load bit has changed and after the start.
constexpr std::size_t SETTLE_US = 1000;

/// A monitor cycle lasts as long as its poll of the keyboard.
constexpr std::uint32_t CYCLE_MS = 11;

/// Where an index register and, behind it, its data register lie.
constexpr std::uint32_t SHARED_PAIR = 0xB0;
constexpr std::uint32_t FIRST_PORT_PAIR = 0x178;
constexpr std::uint32_t SECOND_PORT_PAIR = 0x1F8;
constexpr std::uint8_t GENERATION_PORT_PAIRS = 2; ///< has a pair for each port
constexpr std::uint32_t PORT_SELECT = 0x100;      ///< times the port, in an index of a shared pair
constexpr std::uint8_t LAST_SHARED_PORT = 3;

constexpr std::uint8_t RATE_COUNT = 3;

struct Rate {
    const char* text; ///< in Gb/s
    std::uint32_t word;
    std::uint32_t revision_10_word; ///< on generation 3 with revision 0x10
};
constexpr std::array<Rate, RATE_COUNT> RATES = {
    {{"1.5", 0x50, 0x10}, {"3", 0x60, 0x20}, {"6", 0x70, 0x40}}
};
constexpr Rate UNKNOWN_RATE = {"1.5", 0x70, 0x70};
constexpr std::uint8_t FASTEST_RATE = 2;

constexpr bool load_bits_are_clear() {
    for (const Rate& rate : RATES) {
        if (((rate.word | rate.revision_10_word) & RATE_LOAD) != 0) {
            return false;
        }
    }
    return true;
}
static_assert(load_bits_are_clear());

/// Who makes a pattern: one of seven built-in generators by its number, the generator that pattern
/// register 5 selects, or the pattern registers themselves.
constexpr std::uint32_t TYPE_BUILT_IN_LAST = 0x7;
constexpr std::uint32_t TYPE_SELECTED = 0xE;
constexpr std::uint32_t TYPE_REGISTERS = 0xF;

/// Bit 15 starts the generator, bits 4 to 7 are the pattern's type.
constexpr std::uint32_t control_word(std::uint32_t type) {
    return 0x8000U | type << 4;
}
static_assert(control_word(TYPE_SELECTED) == 0x80E0);

struct Pattern {
    const char* text;
    std::uint32_t type;
    std::array<std::uint16_t, 6> registers;
};

/// By pattern code.
constexpr std::array<Pattern, 21> PATTERNS = {
    {
     {"Jitter Pattern, K28.5", TYPE_SELECTED, {}},
     {"Non-compliant Low Transition Density Pattern", 2, {}},
     {"Non-compliant High Transition Density Pattern", 3, {}},
     {"Non-compliant Low Frequency Spectral Content Pattern", 4, {}},
     {"Non-compliant Switching Output Pattern", 5, {}},
     {"Low-Frequency Test Pattern", TYPE_REGISTERS, {0, 0, 0x7E7E, 0x7E7E, 0x7E7E, 0x7E7E}},
     {"Mid-Frequency Test Pattern", TYPE_REGISTERS, {0, 0, 0x7878, 0x7878, 0x7878, 0x7878}},
     {"High-Frequency Test Pattern", TYPE_REGISTERS, {0, 0, 0x4A4A, 0x4A4A, 0x4A4A, 0x4A4A}},
     {"Lone-Bit Pattern", TYPE_REGISTERS, {0, 0, 0x6B0C, 0x8B0C, 0x6B0C, 0x8B0C}},
     {"PRBS7", TYPE_SELECTED, {0, 0, 0, 0, 0, 0x80}},
     {"Linear Feedback shift register patter", 1, {}},
     {"Non-compliant Loan-Bit Pattern", 6, {}},
     {"Non-compliant Composite Pattern", 7, {}},
     {"Jitter Pattern, 1T", TYPE_SELECTED, {0, 0, 0, 0, 0, 1}},
     {"Jitter Pattern, 2T", TYPE_SELECTED, {0, 0, 0, 0, 0, 2}},
     {"Jitter Pattern, 5T", TYPE_SELECTED, {0, 0, 0, 0, 0, 3}},
     {"Jitter Pattern, 10T", TYPE_SELECTED, {0, 0, 0, 0, 0, 4}},
     {"PRBS9", TYPE_SELECTED, {0, 0, 0, 0, 0, 0x81}},
     {"PRBS15", TYPE_SELECTED, {0, 0, 0, 0, 0, 0x82}},
     {"PRBS23", TYPE_SELECTED, {0, 0, 0, 0, 0, 0x83}},
     {"PRBS31", TYPE_SELECTED, {0, 0, 0, 0, 0, 0x84}},
     }
};

/// A built-in generator takes no data, a selected one its selector alone, and a pattern in
/// registers leaves the first two alone.
constexpr bool registers_fit_types() {
    for (const Pattern& pattern : PATTERNS) {
        const auto& r = pattern.registers;
        const bool no_data = (r[2] | r[3] | r[4]) == 0;
        const bool fits =
            pattern.type == TYPE_REGISTERS ? r[2] != 0
            : pattern.type == TYPE_SELECTED
                ? no_data
                : no_data && r[5] == 0 && pattern.type >= 1 && pattern.type <= TYPE_BUILT_IN_LAST;
        if (!fits || (r[0] | r[1]) != 0) {
            return false;
        }
    }
    return true;
}
static_assert(registers_fit_types());

/// What ports 0 and 1 of boards that report eight ports need before 6 Gb/s. On port 1 the register
/// numbers are PORT_SELECT higher, whatever pair they are reached through.
struct RegisterValue {
    std::uint32_t number;
    std::uint32_t value;
};
constexpr RegisterValue PREPARATION[] = {
    {0xA2, 0x46  },
    {0xED, 0x2400},
    {0xDB, 0     },
    {0xA9, 0x5556},
    {0xD6, 0     },
    {0xD6, 0x200 },
};
constexpr std::uint32_t EIGHT_PORTS = 0xFF;
constexpr std::uint8_t PREPARED_PORTS = 2;

/// One port's PHY test registers.
class PhyPort {
  public:
    PhyPort(const QFU_ADAPTER& adapter, std::uint8_t port)
        : bridge_(adapter.root_bridge), index_(adapter.reg_base + SHARED_PAIR),
          select_((port < LAST_SHARED_PORT ? port : LAST_SHARED_PORT) * PORT_SELECT) {
        if (adapter.generation == GENERATION_PORT_PAIRS) {
            index_ = adapter.reg_base + (port == 0 ? FIRST_PORT_PAIR : SECOND_PORT_PAIR);
            select_ = 0;
        }
    }

    std::uint32_t read(std::uint32_t number) const {
        qfu_mem_write32(bridge_, index_, select_ | number);
        return qfu_mem_read32(bridge_, index_ + 4);
    }
    void write(std::uint32_t number, std::uint32_t value) const {
        write_unselected(select_ | number, value);
    }
    /// The number is the whole index word.
    void write_unselected(std::uint32_t number, std::uint32_t value) const {
        qfu_mem_write32(bridge_, index_, number);
        qfu_mem_write32(bridge_, index_ + 4, value);
    }
    /// A count of 32 bits in two registers of 16, the high one read first.
    std::uint32_t read_count(std::uint32_t high, std::uint32_t low) const {
        const std::uint32_t upper = read(high) << 16;
        return upper | read(low);
    }

  private:
    platform::RootBridge* bridge_;
    std::uint32_t index_;
    std::uint32_t select_;
};

const Rate& rate_of(std::uint8_t index) {
    return index < RATES.size() ? RATES[index] : UNKNOWN_RATE;
}

std::uint32_t rate_word(const QFU_ADAPTER& adapter, std::uint8_t index) {
    const Rate& rate = rate_of(index);
    const bool revision_10 = adapter.generation == 3 && (adapter.class_rev & 0xFF) == 0x10;
    return revision_10 ? rate.revision_10_word : rate.word;
}

/// Turns AHCI mode on, without which the ports do not listen. @returns the ports implemented
std::uint32_t enable_ahci(const QFU_ADAPTER& adapter) {
    const std::uint32_t control = adapter.reg_base + AHCI_HOST_CONTROL;
    const std::uint32_t value = qfu_mem_read32(adapter.root_bridge, control);
    qfu_mem_write32(adapter.root_bridge, control, value | AHCI_ENABLE);
    qfu_mem_read32(adapter.root_bridge, control); // the write has arrived when this returns
    return qfu_mem_read32(adapter.root_bridge, adapter.reg_base + AHCI_PORTS_IMPLEMENTED);
}

void prepare_fastest_rate(const PhyPort& phy, std::uint8_t port) {
    for (const RegisterValue& step : PREPARATION) {
        phy.write_unselected(step.number + port * PORT_SELECT, step.value);
    }
}

void reset(const PhyPort& phy) {
    phy.write(PHY_CONTROL, CONTROL_RESET);
    phy.write(PHY_CONTROL, 0);
}

/// The port takes the rate over with the falling load bit.
void load_rate(const PhyPort& phy, std::uint32_t word) {
    phy.write(PHY_RATE, word);
    phy.write(PHY_RATE, word | RATE_LOAD);
    platform::stall(SETTLE_US);
    phy.write(PHY_RATE, word);
    platform::stall(SETTLE_US);
}

const char* pattern_text(std::uint8_t code) {
    return code < PATTERNS.size() ? PATTERNS[code].text : "";
}

/// Loads the pattern, if there is one with the code, and lets the port send it.
void start_pattern(const PhyPort& phy, std::uint8_t code) {
    std::uint32_t type = 0;
    if (code < PATTERNS.size()) {
        std::uint32_t number = PHY_PATTERN;
        for (const std::uint16_t value : PATTERNS[code].registers) {
            phy.write(number++, value);
        }
        type = PATTERNS[code].type;
    }
    phy.write(PHY_CONTROL, control_word(type));
    platform::stall(SETTLE_US);
}

/// Looks at the port once and prints what is wrong. @returns true when nothing is
bool check_port(const PhyPort& phy) {
    bool good = true;
    const std::uint32_t status = phy.read(PHY_CONTROL);
    if ((status & STATUS_PASS) == 0) {
        good = false;
        qfu_print("PHY test control not pass\n");
    }
    if ((status & STATUS_LOCK) == 0) {
        good = false;
        qfu_print("PHY test control not lock\n");
    }
    const std::uint32_t errors = phy.read_count(PHY_ERRORS_HIGH, PHY_ERRORS_LOW);
    if (errors != 0) {
        good = false;
        qfu_print("PHY test PRBS error counter 0x%lX\n", errors);
    }
    phy.read(PHY_COUNTER_LATCH);
    if (phy.read_count(PHY_COUNTER_HIGH, PHY_COUNTER_LOW) == 0) {
        good = false;
        qfu_print("PHY test PRBS counter is zero\n");
    }
    return good;
}

/// When a monitor with a duration ends.
class Deadline {
  public:
    /// @param seconds  0: never, and the clock is not asked
    explicit Deadline(std::uint16_t seconds)
        : seconds_(seconds), cycles_((seconds * MILLISECONDS + CYCLE_MS - 1) / CYCLE_MS) {
        if (seconds_ != 0) {
            start_ = qfu_time_seconds();
        }
    }

    /// To be asked once a cycle. While the clock cannot be read, no time passes and the cycles
    /// decide; when it shows a time for the first time, that is the start.
    bool passed() {
        if (seconds_ == 0) {
            return false;
        }
        cycles_ -= cycles_ == 0 ? 0 : 1;
        const std::uint32_t now = qfu_time_seconds();
        if (now == QFU_TIME_UNKNOWN) {
            return cycles_ == 0;
        }
        if (start_ == QFU_TIME_UNKNOWN) {
            start_ = now;
        }
        return now - start_ >= seconds_;
    }

  private:
    static constexpr std::uint32_t MILLISECONDS = 1000;

    std::uint32_t seconds_;
    std::uint32_t cycles_; ///< left when only they count
    std::uint32_t start_ = QFU_TIME_UNKNOWN;
};

/// @returns 0 when every cycle was good, else 1
std::uint8_t monitor(const PhyPort& phy, Deadline& deadline, bool stop_on_error) {
    std::uint8_t result = 0;
    QFU_KEY key{};
    do {
        if (!check_port(phy)) {
            result = 1;
        }
        if (result != 0 && stop_on_error) {
            return result;
        }
    } while (!deadline.passed() && !qfu_read_key(false, key));
    return result;
}

/// Days from the start of 1970 to a date of the Gregorian calendar. Counted in years that start
/// with March, so that the leap day is the last.
constexpr std::int32_t days_since_1970(std::int32_t year, std::int32_t month, std::int32_t day) {
    month -= 2;
    if (month <= 0) {
        month += 12;
        --year;
    }
    return year / 4 - year / 100 + year / 400 + 367 * month / 12 + day + 365 * year - 719499;
}
static_assert(days_since_1970(1970, 1, 1) == 0);
static_assert(days_since_1970(2000, 3, 1) - days_since_1970(2000, 2, 29) == 1);
static_assert(days_since_1970(2100, 3, 1) - days_since_1970(2100, 2, 28) == 1);
static_assert(days_since_1970(2027, 1, 1) - days_since_1970(2026, 1, 1) == 365);

/// What a request runs, in order: the rates of each port.
struct Plan {
    const char* prefix; ///< of its result lines
    std::uint32_t first_port;
    std::uint32_t end_port;
    std::uint32_t first_rate;
    std::uint32_t end_rate;
    bool stop_ends_port_alone; ///< stopping on an error skips the port's other rates; else all ends
};

Plan plan_for(const QFU_ADAPTER& adapter) {
    const QFU_CONTEXT& request = *adapter.context;
    const bool one_port = request.has(QFU_REQ_PHY_PORT);
    const std::uint32_t port = request.phy_port & 0xFFU;
    const std::uint32_t rate = request.phy_rate & 0xFFU;
    if (request.has(QFU_REQ_PHY_PORT_ALL)) {
        return {"", 0, adapter.port_count, 0, RATE_COUNT, true};
    }
    if (request.has(QFU_REQ_PHY_RATE)) {
        const std::uint32_t first = one_port ? port : 0;
        const std::uint32_t end = one_port ? port + 1 : adapter.port_count;
        return {"**", first, end, rate, rate + 1, false};
    }
    if (one_port) {
        return {"*", port, port + 1, 0, RATE_COUNT, false};
    }
    return {};
}

void print_result(const Plan& plan, const QFU_PHY_RUN& run, std::uint8_t result) {
    const char* rate = rate_of(run.rate).text;
    if (result == 0) {
        qfu_print("%sPhy test successfully on Port %d at Link Rate %sGb/s.\n", plan.prefix,
                  run.port, rate);
    } else {
        qfu_print("%sPHY test failed on Port %d at Link Rate %sGb/s(error %d: %s).\n", plan.prefix,
                  run.port, rate, result, qfu_status_string(result));
    }
}

/// Runs the plan with what the request says about each run.
std::uint8_t carry_out(QFU_ADAPTER& adapter, const Plan& plan, QFU_PHY_RUN run) {
    std::uint8_t result = 0;
    bool failed = false;
    for (std::uint32_t port = plan.first_port; port < plan.end_port; ++port) {
        for (std::uint32_t rate = plan.first_rate; rate < plan.end_rate; ++rate) {
            run.port = static_cast<std::uint8_t>(port);
            run.rate = static_cast<std::uint8_t>(rate);
            result = doPhyTestPort(adapter, run);
            if (!run.loopback) {
                continue;
            }
            print_result(plan, run, result);
            failed = failed || result != 0;
            if (result == 0 || !run.stop_on_error) {
                continue;
            }
            if (!plan.stop_ends_port_alone) {
                return 1;
            }
            break;
        }
    }
    return failed ? 1 : result;
}

} // namespace

std::uint32_t qfu_time_seconds() {
    platform::WallTime time{};
    if (!platform::wall_time(time)) {
        return QFU_TIME_UNKNOWN;
    }
    const auto days = static_cast<std::uint32_t>(days_since_1970(time.year, time.month, time.day));
    return ((days * 24 + time.hour) * 60 + time.minute) * 60 + time.second;
}

std::uint8_t doPhyTestPort(QFU_ADAPTER& adapter, const QFU_PHY_RUN& run) {
    if (adapter.flash_if != QFU_FLASH_IF_INDEXED) {
        qfu_print("PHY test no supported %04X:%04X\n", adapter.vendor_id, adapter.device_id);
        return 1;
    }
    if (run.rate >= RATE_COUNT) {
        qfu_print("Wrong PHY rate.\n");
    }
    qfu_print("PHY test %s on Port %d at Link Rate %s Gb/s\n", pattern_text(run.pattern), run.port,
              rate_of(run.rate).text);
    Deadline deadline(run.duration);
    const PhyPort phy(adapter, run.port);
    const std::uint32_t ports_implemented = enable_ahci(adapter);
    if (run.rate == FASTEST_RATE && adapter.generation != 1 && ports_implemented == EIGHT_PORTS &&
        run.port < PREPARED_PORTS) {
        prepare_fastest_rate(phy, run.port);
    }
    reset(phy);
    load_rate(phy, rate_word(adapter, run.rate));
    start_pattern(phy, run.pattern);
    return run.loopback ? monitor(phy, deadline, run.stop_on_error) : 0;
}

std::uint8_t doPhyTest(QFU_ADAPTER& adapter) {
    const QFU_CONTEXT& request = *adapter.context;
    if (request.has(QFU_REQ_HELP)) {
        qfu_print("%s", QFU_PHY_USAGE);
        return 0;
    }
    QFU_PHY_RUN run{};
    run.pattern = static_cast<std::uint8_t>(request.phy_pattern);
    run.duration = request.has(QFU_REQ_PHY_TIME) ? request.phy_time : std::uint16_t{0};
    run.loopback = request.has(QFU_REQ_PHY_LOOPBACK);
    run.stop_on_error = request.has(QFU_REQ_PHY_ERCTN);
    if (!request.has(QFU_REQ_PHY_PATTERN)) {
        qfu_print("\nPattern argument, -n, is not found. Set pattern to default, PRBS7 \n");
        run.pattern = QFU_PHY_DEFAULT_PATTERN;
    }
    return carry_out(adapter, plan_for(adapter), run);
}
