#include "json.h"

#include "check.h"
#include "source.h"

#include <nlohmann/json.hpp>

namespace spilist {
namespace {

using Json = nlohmann::ordered_json;

Json to_json(const Chip& chip) {
    Json json;
    json["id"] = id_text(chip.entry);
    for (const SizeField& field : kSizeFields) {
        json[field.name] = chip.entry.*field.value;
    }
    for (const OpcodeField& field : kOpcodeFields) {
        json["opcodes"][field.name] = chip.entry.*field.value;
    }
    json["full_erase_seconds"] = least_erase_seconds(chip.entry);
    json["parts"] = chip.parts;
    json["note"] = chip.note;
    return json;
}

Json to_json(const Finding& finding) {
    return {
        {"line",     finding.line == 0 ? Json() : Json(finding.line)},
        {"entry",    finding.entry                                  },
        {"field",    finding.field                                  },
        {"what",     finding.what                                   },
        {"rejected", finding.effect == Effect::kRejected            }
    };
}

Json to_json(const std::vector<Finding>& findings) {
    Json json;
    json["rejected"] = is_rejected(findings);
    json["findings"] = Json::array();
    for (const Finding& finding : findings) {
        json["findings"].push_back(to_json(finding));
    }
    return json;
}

Json to_json(const ChipList& list) {
    Json json;
    json["version"] = std::to_string(list.version_hi) + "." + std::to_string(list.version_lo);
    json["id_opcodes"] = list.id_opcodes;
    json["chips"] = Json::array();
    for (const Chip& chip : list.chips) {
        json["chips"].push_back(to_json(chip));
    }
    return json;
}

Json to_json(const ChipList& list, const Match& match) {
    Json json;
    json["id"] = bytes_text(match.bytes);
    json["chosen"] = nullptr;
    json["hidden"] = Json::array();
    for (const std::size_t record : match.records) {
        Json chip = to_json(list.chips[record]);
        chip["record"] = record;
        if (record == match.records.front()) {
            json["chosen"] = chip;
        } else {
            json["hidden"].push_back(chip);
        }
    }
    return json;
}

std::string text(const Json& json) {
    return json.dump(2) + '\n';
}

} // namespace

std::string json(const std::vector<Finding>& findings) {
    return text(to_json(findings));
}

std::string json(const std::vector<Finding>& findings, const ChipList& list) {
    Json json = to_json(findings);
    json.update(to_json(list));
    return text(json);
}

std::string json(const std::vector<Finding>& findings, const ChipList& list, const Match& match) {
    Json json = to_json(findings);
    json.update(to_json(list, match));
    return text(json);
}

std::string json(const std::vector<Difference>& differences) {
    Json json = Json::array();
    for (const Difference& difference : differences) {
        json.push_back({
            {"entry",  difference.entry },
            {"field",  difference.field },
            {"before", difference.before},
            {"after",  difference.after }
        });
    }
    return text(json);
}

} // namespace spilist
