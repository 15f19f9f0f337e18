#include "main.h"

#include "bounds.h"
#include "cmdline.h"
#include "console.h"
#include "context.h"
#include "discover.h"
#include "flash_cmd.h"
#include "listing.h"
#include "platform/pool.h"
#include "platform/shell.h"
#include "platform/system.h"

#include <array>
#include <span>

namespace {

/// The arguments in ASCII; an absent one is null.
using ArgumentVector = std::array<const char*, QFU_MAX_ARGS>;

std::size_t length_of(const CHAR16* text) {
    std::size_t length = 0;
    while (text[length] != 0) {
        ++length;
    }
    return length;
}

/// Copies the arguments into `text`, the low 8 bits of each character, until their budget is spent.
/// The argument that goes beyond it becomes empty, the ones behind it stay absent.
ArgumentVector convert_arguments(std::span<const CHAR16* const> arguments, char* text) {
    ArgumentVector argv{};
    std::size_t budget = 0;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::size_t length = length_of(arguments[i]);
        budget += length * sizeof(CHAR16);
        if (budget > QFU_ARG_TEXT_SIZE) {
            argv[i] = "";
            break;
        }
        argv[i] = text;
        for (std::size_t c = 0; c < length; ++c) {
            *text++ = static_cast<char>(arguments[i][c] & 0xFF);
        }
        *text++ = 0;
    }
    return argv;
}
// Each accepted character takes two bytes of the budget but one of the buffer, and one byte ends
// each argument.
static_assert(QFU_ARG_TEXT_SIZE / sizeof(CHAR16) + QFU_MAX_ARGS <= QFU_ARG_TEXT_SIZE);

void run(QFU_ADAPTER& adapter) {
    qfu_current_slot(adapter);
    process_file_fun(adapter);
}

std::span<QFU_ADAPTER> found_adapters(QFU_CONTEXT& context) {
    return std::span(context.adapters).first(context.adapter_count);
}

void run_named_adapters(QFU_CONTEXT& context) {
    if (context.has(QFU_REQ_ADAPTER_ALL)) {
        for (QFU_ADAPTER& adapter : found_adapters(context)) {
            run(adapter);
        }
    } else if (context.adapter_id < context.adapter_count) {
        run(context.adapters[context.adapter_id]);
    }
}

/// The adapter number that a key stands for; a key that is no digit stands for none.
std::size_t choice_of(char key) {
    const char entry[] = {key, 0};
    return qfu_is_decimal(entry) ? qfu_parse_decimal(entry) : QFU_MAX_ADAPTERS;
}

void ask_and_run(QFU_CONTEXT& context) {
    for (const QFU_ADAPTER& adapter : found_adapters(context)) {
        qfu_print("%d. VenId=%x, DevId=%x => ", adapter.index, adapter.vendor_id,
                  adapter.device_id);
        qfu_print("Bus=%x, Dev=%x, Fun=%x\n", adapter.bus, adapter.dev, adapter.func);
    }
    qfu_print("The total of Adapter are %d.\n", context.adapter_count);
    qfu_print("Please choose one(0 ~ %d; Q: Exit):", context.adapter_count - 1);
    QFU_KEY key{};
    qfu_read_key(true, key);
    const auto character = static_cast<char>(key.character & 0xFF);
    if (character == 'q' || character == 'Q') {
        qfu_print("\n");
        return;
    }
    const std::size_t choice = choice_of(character);
    if (choice < context.adapter_count) {
        qfu_print("%d\n", choice);
        run(context.adapters[choice]);
    }
}

/// Runs the command on the adapter that the request or the user names; the first rule that applies.
void choose_and_run(QFU_CONTEXT& context) {
    const bool writes_script = context.file && (context.file_mode & QFU_FILE_MODE_SCRIPT) != 0;
    if (writes_script && context.has(QFU_REQ_ADAPTER) &&
        context.adapter_id < context.adapter_count) {
        run(context.adapters[context.adapter_id]);
    } else if (context.has(QFU_REQ_LIST)) {
        qfu_list_adapters(found_adapters(context));
    } else if (context.adapter_count == 1) {
        run(context.adapters[0]);
    } else if (context.has(QFU_REQ_ADAPTER)) {
        run_named_adapters(context);
    } else {
        ask_and_run(context);
    }
}

/// Everything behind the arguments. @param context  null when there was no memory for it
EFI_STATUS run_request(QFU_CONTEXT* context, std::uint32_t count, const ArgumentVector& argv) {
    const EFI_STATUS status = qfu_parse_command_line(context, count, argv.data());
    if (EFI_ERROR(status)) {
        qfu_print("process_file_fun() has warning!!(%x)\n", status);
        return status;
    }
    qfu_discover(qfu_supported_adapters(), *context);
    if (context->adapter_count == 0) {
        qfu_print("\nNo Found any Adapter.\n");
        return EFI_UNSUPPORTED;
    }
    choose_and_run(*context);
    return status;
}

} // namespace

EFI_STATUS EFIAPI qfu_entry(EFI_HANDLE image, EFI_SYSTEM_TABLE* table) {
    platform::attach(image, table);
    qfu_page_mode = false;
    qfu_printer = qfu_print_to_console;
    qfu_page_lines = 0;
    platform::Arguments arguments{};
    if (!platform::arguments(arguments)) {
        return EFI_UNSUPPORTED;
    }
    return qfu_main(arguments.count, arguments.values) == EFI_SUCCESS ? EFI_SUCCESS
                                                                      : EFI_UNSUPPORTED;
}

EFI_STATUS qfu_main(std::size_t argc, const CHAR16* const* argv) {
    if (argc == 0) {
        return EFI_SUCCESS;
    }
    const platform::Pool<char> text(QFU_ARG_TEXT_SIZE);
    if (!text) {
        qfu_print("*str_buffer_ptr==> resource is not enough.\n");
        return EFI_OUT_OF_RESOURCES;
    }
    const std::size_t count = qfu_smaller(argc, QFU_MAX_ARGS);
    const ArgumentVector arguments = convert_arguments({argv, count}, text.get());
    for (std::size_t i = 0; i < count; ++i) {
        qfu_print("[%d]: %s\n", i, arguments[i]);
    }
    const platform::Pool<QFU_CONTEXT> context(1);
    if (!context) {
        qfu_print("Resource is not enough.[2]\n");
    }
    return run_request(context.get(), static_cast<std::uint32_t>(count), arguments);
}
