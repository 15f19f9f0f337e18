#include "compile.h"

#include "qfu/discover.h"

#include <fmt/format.h>

namespace jobs {
namespace {

class Script {
  public:
    void line(const std::string& text) { text_ += text + "\r\n"; }
    void set(const std::string& variable, const std::string& value) {
        line("set -v " + variable + " \"" + value + "\"");
    }
    /// The shell has no empty variables. What it says about one that is not there goes nowhere.
    void unset(const std::string& variable) { line("set -d " + variable + " >v QfuJunk"); }
    std::string take() { return std::move(text_); }

  private:
    std::string text_ = "@echo -off\r\n";
};

/// The model as "qfu -l" prints it, with the space before it.
std::string ids(const Model& model) {
    return fmt::format(" VenId={:x}, DevId={:x},", model.vendor, model.device);
}

std::string ids_name(const Model& model) {
    return fmt::format("{:04x}:{:04x}", model.vendor, model.device);
}

std::string adapters_text(const AdapterJob& adapter) {
    std::string text = std::to_string(adapter.count) + " of " +
                       (adapter.model ? ids_name(*adapter.model) : "any model");
    for (const Place& place : adapter.places) {
        text += fmt::format(" {:02x}:{:02x}.0", place.bus, place.device);
    }
    return text;
}

std::string settings(const Job& job) {
    Script script;
    script.set("JobName", job.name);
    script.set("JobOnFailure", job.on_failure);
    script.set("JobAtEnd", job.at_end);
    std::string expected;
    for (std::size_t i = 0; i < job.adapters.size(); ++i) {
        expected += (i == 0 ? "" : ", ") + adapters_text(job.adapters[i]);
    }
    script.set("JobExpected", expected);
    for (std::size_t i = 0; i < job.adapters.size(); ++i) {
        script.unset("JobCount" + std::to_string(i));
    }
    return script.take();
}

std::string plan(const Job& job) {
    Script script;
    script.set("JobPlan", "none");
    script.set("JobDevice", "unknown");
    for (const QFU_DEVICE_ENTRY& entry : qfu_supported_adapters()) {
        const Model model{entry.vendor_id, entry.device_id};
        script.line("if \"%JobIds%\" == \"" + ids(model) + "\" then");
        script.set("JobDevice", ids_name(model));
        script.line("endif");
    }
    for (std::size_t i = 0; i < job.adapters.size(); ++i) {
        const AdapterJob& adapter = job.adapters[i];
        const std::string number = std::to_string(i);
        script.set("JobHere", adapter.places.empty() ? "yes" : "no");
        for (const Place& place : adapter.places) {
            script.line(fmt::format("if \"%JobPlace%\" == \"[Bus={:X}, Dev={:X},\" then", place.bus,
                                    place.device));
            script.set("JobHere", "yes");
            script.line("endif");
        }
        if (adapter.model) {
            script.line("if not \"%JobIds%\" == \"" + ids(*adapter.model) + "\" then");
            script.set("JobHere", "no");
            script.line("endif");
        }
        script.line("if %JobHere% == yes then");
        script.set("JobPlan", number);
        script.set("JobCount" + number, "%JobCount" + number + "%n");
        script.set("JobImage", adapter.image);
        script.set("JobAddress", fmt::format("0x{:x}", adapter.address));
        script.set("JobImageSize", std::to_string(adapter.image_size));
        script.set("JobImageSum", adapter.image_sum);
        // The space keeps "set" from taking the word for an option of its own.
        script.unset("JobChipWords");
        if (adapter.chip_select) {
            script.set("JobChipWords", " -csid " + std::to_string(*adapter.chip_select));
        }
        script.set("JobBackup", adapter.backup ? "yes" : "no");
        script.set("JobAgain", adapter.again ? "yes" : "no");
        script.line("endif");
    }
    return script.take();
}

std::string count(const Job& job) {
    Script script;
    for (std::size_t i = 0; i < job.adapters.size(); ++i) {
        const std::string number = std::to_string(i);
        script.line("if not x%JobCount" + number + "% == x" +
                    std::string(job.adapters[i].count, 'n') + " then");
        script.set("JobWrong", "yes");
        script.line("endif");
    }
    return script.take();
}

} // namespace

std::map<std::string, std::string> compile(const Job& job) {
    return {
        {"settings.nsh", settings(job)},
        {"plan.nsh",     plan(job)    },
        {"count.nsh",    count(job)   },
    };
}

} // namespace jobs
