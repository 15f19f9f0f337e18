#include "story.h"

#include "lab.h"
#include "support/table_reader.h"

namespace firmware {
namespace {

using support::TableReader;

void read_file(const toml::table& table, const std::filesystem::path& source, Volume& files) {
    TableReader reader(table, source);
    const std::string name = reader.text("name");
    VolumeFile file;
    if (reader.has("text")) {
        const std::string text = reader.text("text");
        file.bytes.assign(text.begin(), text.end());
    } else {
        const auto size = static_cast<std::size_t>(reader.number("pattern", 0, 1 << 20, 0));
        file.bytes =
            lab::pattern(size, static_cast<std::uint32_t>(reader.number("seed", 1, 99, 1)));
    }
    file.read_only = reader.number("read_only", 0, 1, 0) == 1;
    file.folder = reader.number("folder", 0, 1, 0) == 1;
    reader.finish();
    files[name] = file;
}

Step read_step(const toml::table& table, const std::filesystem::path& source) {
    TableReader reader(table, source);
    Step step{reader.text("run", ""), reader.text("keys", ""), reader.text("shell", ""),
              reader.texts("prints")};
    if (step.run.empty() == step.shell.empty()) {
        reader.fail("run", "a step has either this or \"shell\"");
    }
    reader.finish();
    return step;
}

} // namespace

Story load_story(const std::filesystem::path& file) {
    const toml::table root = support::parse_toml(file);
    TableReader reader(root, file);
    Story story;
    story.machine =
        emulator::load_machine_file(QFU_SOURCE_DIR "/emulator/machines/" + reader.text("machine"));
    for (auto& adapter : story.machine.adapters) {
        if (adapter.spi) {
            adapter.spi->image.clear(); // a story starts with blank chips and keeps nothing
        }
        if (adapter.nor) {
            adapter.nor->image.clear();
        }
    }
    story.misuse = reader.texts("misuse");
    story.files["spilist.bin"].bytes = lab::shipped_chip_list();
    for (const toml::table* table : reader.tables("file")) {
        read_file(*table, file, story.files);
    }
    for (const toml::table* table : reader.tables("step")) {
        story.steps.push_back(read_step(*table, file));
    }
    reader.finish();
    return story;
}

} // namespace firmware
