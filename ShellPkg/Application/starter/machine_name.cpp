#include "machine_name.h"

#include "shell_variable.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace {

EFI_GUID smbios_guid = {
    0xEB9D2D31, 0x2D88, 0x11D3, {0x9A, 0x16, 0x00, 0x90, 0x27, 0x3F, 0xC1, 0x4D}
};
EFI_GUID smbios3_guid = {
    0xF2FD1544, 0x9794, 0x4A2C, {0x99, 0x2E, 0xE5, 0xBB, 0xCF, 0x20, 0xE3, 0x94}
};
constexpr std::size_t kMostLetters = 64;

struct Name {
    std::array<char16_t, kMostLetters> text{};
    std::size_t length = 0;

    void add(char letter) {
        if (length < kMostLetters) {
            text[length++] = static_cast<char16_t>(letter);
        }
    }
};

/// The structures of the SMBIOS tables. `end` is behind the last.
struct Structures {
    const std::uint8_t* at = nullptr;
    const std::uint8_t* end = nullptr;
};

template <class T>
T read(const std::uint8_t* at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

Structures structures(const EFI_SYSTEM_TABLE* system) {
    Structures found;
    for (UINTN i = 0; i < system->NumberOfTableEntries; ++i) {
        const EFI_CONFIGURATION_TABLE& table = system->ConfigurationTable[i];
        const auto* entry = static_cast<const std::uint8_t*>(table.VendorTable);
        if (std::memcmp(&table.VendorGuid, &smbios3_guid, sizeof smbios3_guid) == 0) {
            const auto* at = reinterpret_cast<const std::uint8_t*>(read<std::uint64_t>(entry + 16));
            return {at, at + read<std::uint32_t>(entry + 12)};
        }
        if (std::memcmp(&table.VendorGuid, &smbios_guid, sizeof smbios_guid) == 0) {
            const std::uintptr_t address = read<std::uint32_t>(entry + 24);
            const auto* at = reinterpret_cast<const std::uint8_t*>(address);
            found = {at, at + read<std::uint16_t>(entry + 22)};
        }
    }
    return found;
}

/// The structure behind the one at `at`: after its texts, which two zeros end.
const std::uint8_t* next(const Structures& all, const std::uint8_t* at) {
    at += at[1];
    while (all.end - at >= 2 && (at[0] != 0 || at[1] != 0)) {
        ++at;
    }
    return at + 2;
}

/// The system's structure, or null.
const std::uint8_t* system_structure(const Structures& all) {
    constexpr std::uint8_t kSystem = 1;
    constexpr std::ptrdiff_t kHead = 4;
    constexpr std::uint8_t kWithUuid = 25;
    for (const std::uint8_t* at = all.at; all.end - at > kHead; at = next(all, at)) {
        if (at[1] < kHead || at[1] > all.end - at) {
            return nullptr;
        }
        if (at[0] == kSystem) {
            return at[1] >= kWithUuid ? at : nullptr;
        }
    }
    return nullptr;
}

/// The first three fields of a UUID stand with their lowest byte first. All zeros or all ones mean
/// that the machine has none.
Name uuid_name(const std::uint8_t* uuid) {
    constexpr std::array<std::uint8_t, 16> kOrder = {3, 2, 1,  0,  5,  4,  7,  6,
                                                     8, 9, 10, 11, 12, 13, 14, 15};
    constexpr char kDigits[] = "0123456789abcdef";
    Name name;
    bool set = false;
    for (std::size_t i = 0; i < kOrder.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            name.add('-');
        }
        const std::uint8_t byte = uuid[kOrder[i]];
        set = set || (byte != uuid[0] || (byte != 0 && byte != 0xFF));
        name.add(kDigits[byte >> 4]);
        name.add(kDigits[byte & 15]);
    }
    return set ? name : Name{};
}

bool is_plain(std::uint8_t letter) {
    return (letter >= '0' && letter <= '9') || (letter >= 'a' && letter <= 'z') ||
           (letter >= 'A' && letter <= 'Z') || letter == '.' || letter == '_' || letter == '-';
}

/// The text of that number, counted from 1, behind a structure.
Name text_name(const Structures& all, const std::uint8_t* structure, std::uint8_t number) {
    const std::uint8_t* at = structure + structure[1];
    for (; number > 1 && at < all.end && *at != 0; --number) {
        while (at < all.end && *at != 0) {
            ++at;
        }
        ++at;
    }
    Name name;
    for (; number == 1 && at < all.end && *at != 0; ++at) {
        if (!is_plain(*at)) {
            return {};
        }
        name.add(static_cast<char>(*at));
    }
    return name;
}

void tell(EFI_SYSTEM_TABLE* system, const char16_t* variable, const Name& name) {
    static constexpr std::array kUnknown = {u'u', u'n', u'k', u'n', u'o', u'w', u'n'};
    set_shell_variable(system, variable,
                       name.length == 0 ? std::span<const char16_t>(kUnknown)
                                        : std::span(name.text).first(name.length));
}

} // namespace

void tell_machine_name(EFI_SYSTEM_TABLE* system) {
    constexpr std::size_t kSerial = 7;
    constexpr std::size_t kUuid = 8;
    const Structures all = structures(system);
    const std::uint8_t* found = system_structure(all);
    const Name serial = found == nullptr ? Name{} : text_name(all, found, found[kSerial]);
    const Name uuid = found == nullptr ? Name{} : uuid_name(found + kUuid);
    tell(system, u"QfuSerial", serial);
    tell(system, u"QfuMachine", uuid.length == 0 ? serial : uuid);
}
