// Any arguments of flash, with a blank after each. Numbers are read in another way, too, and
// a request that is taken must fit its command.
#include "bench.h"
#include "flash/request.h"

#include <map>
#include <regex>

namespace {

/// Whether a word is this number, decimal or hexadecimal, and nothing else.
bool is_number(const std::string& word, std::uint64_t number) {
    static const std::regex kHexadecimal("0[xX][0-9a-fA-F]+");
    static const std::regex kDecimal("[0-9]+");
    const int base = std::regex_match(word, kHexadecimal) ? 16 : 10;
    return (base == 16 || std::regex_match(word, kDecimal)) &&
           std::stoull(word, nullptr, base) == number;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    flash::Text why;
    flash::keep_reason_in(why);
    std::vector<std::u16string> words;
    for (fuzz::Input input(data, size); !input.empty();) {
        const std::string_view word = input.line(' ');
        words.emplace_back(word.begin(), std::ranges::find(word, '\0'));
    }
    std::vector<CHAR16*> arguments;
    for (std::u16string& word : words) {
        arguments.push_back(reinterpret_cast<CHAR16*>(word.data()));
    }
    flash::Request request{};
    const flash::Parsed parsed = flash::parse(arguments, request);
    EXPECT_EQ(parsed == flash::Parsed::REFUSED, !why.characters().empty());
    if (parsed != flash::Parsed::REQUEST) {
        return 0;
    }
    std::map<std::string, std::string> given; // options with their values; "" for the file
    for (std::size_t i = 1; i < words.size(); ++i) {
        const std::string word(words[i].begin(), words[i].end());
        const bool has_value = word[0] == '-' && word != "-all" && word != "-y";
        i += has_value ? 1 : 0;
        const std::string value(words.at(i).begin(), words.at(i).end());
        EXPECT_TRUE(given.emplace(word[0] == '-' ? word : "", value).second) << word << " twice";
    }
    const std::string command(words[0].begin(), words[0].end());
    const bool has_range = std::regex_match(command, std::regex("backup|erase|blank"));
    const bool has_file = std::regex_match(command, std::regex("write|verify|backup|restore|job"));
    EXPECT_EQ(request.has(flash::FILE) && request.file.text[0] != 0, has_file);
    EXPECT_EQ(given.contains("-sz"), has_range && given.contains("-addr"));
    EXPECT_FALSE(given.contains("-model") && given.contains("-adid"));
    const std::map<std::string, std::uint64_t> numbers = {
        {"-addr", request.address    },
        {"-sz",   request.size       },
        {"-n",    request.times      },
        {"-adid", request.adapter    },
        {"-csid", request.chip_select},
    };
    for (const auto& [option, value] : given) {
        EXPECT_TRUE(!numbers.contains(option) || is_number(value, numbers.at(option))) << option;
    }
    return 0;
}
