#include <algorithm>
#include <cctype>

#include "tool/Commands.h"

namespace {

// An empty name is what a script leaves of a variable that it didn't set. Empty when it is no such
// name, as CLI11 wants it.
std::string CheckName(const std::string& name) {
    return name.empty() ? "the name is empty" : "";
}

std::string CheckType(const std::string& name) {
    return DiskTypeFromName(name).has_value() ? "" : "there is no kind " + name + "; see --help for those there are";
}

// CLI11 lays the help out, but breaks no lines.
std::string TypeHelp() {
    constexpr size_t namesPerLine = 3;
    std::string text = "Kind of the image, instead of what its file tells:";
    size_t count = 0;
    for (const std::string& name : SelectableDiskTypeNames())
        text += (count++ % namesPerLine == 0 ? "\n" : " ") + name;
    return text;
}

constexpr char ByteUnits[] = "KMGT";

// False for a text that is no number of bytes.
bool ParseBytes(const std::string& text, uint64_t& bytes) {
    const size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    constexpr size_t mostDigits = 19;  // fewer than any number of 64 bits can have at most
    if (digits == 0 || digits > mostDigits || text.size() > digits + 1)
        return false;
    bytes = std::stoull(text.substr(0, digits));
    if (digits == text.size())
        return true;
    const std::string units = ByteUnits;
    const size_t unit = units.find(static_cast<char>(std::toupper(static_cast<unsigned char>(text.back()))));
    if (unit == std::string::npos)
        return false;
    const unsigned shift = 10 * (static_cast<unsigned>(unit) + 1);
    if (bytes >> (64 - shift) != 0)
        return false;
    bytes <<= shift;
    return true;
}

std::string CheckBytes(const std::string& text) {
    uint64_t bytes = 0;
    return ParseBytes(text, bytes) ? "" : text + " is no number of bytes; give digits, and perhaps K, M, G or T behind";
}

}  // namespace

ImageOptions_t ImageArguments_t::Options() const {
    ImageOptions_t options;
    if (!typeName.empty())
        options.type = DiskTypeFromName(typeName);
    options.allowOutside = allowOutside;
    options.parents = parents;
    if (patienceSeconds.has_value())
        options.patience = std::chrono::seconds(*patienceSeconds);
    return options;
}

CLI::Option* AddNameArgument(CLI::App& command, const std::string& argument, std::string& name,
                             const std::string& description) {
    return command.add_option(argument, name, description)->type_name("")->check(CLI::Validator(CheckName, ""));
}

CLI::Option* AddBytesOption(CLI::App& command, const std::string& option, std::optional<uint64_t>& bytes,
                            const std::string& description) {
    const auto take = [&bytes](const std::string& text) {
        uint64_t parsed = 0;
        ParseBytes(text, parsed);
        bytes = parsed;
    };
    return command.add_option_function<std::string>(option, take, description)
        ->type_name("BYTES")
        ->check(CLI::Validator(CheckBytes, ""));
}

void AddDiskArguments(CLI::App& command, std::vector<std::string>& disks, ImageArguments_t& arguments) {
    command.add_option("DISK", disks, "Disk images, raw files or devices")
        ->type_name("")
        ->required()
        ->check(CLI::Validator(CheckName, ""));
    AddImageArguments(command, arguments);
}

CZuError OpenDisks(const std::vector<std::string>& disks, const ImageArguments_t& arguments, CVolumeSet& set) {
    ImageOptions_t options = arguments.Options();
    options.rawUnlessKnown = true;
    CZuError error = set.Open(disks, options);
    if (!error.IsErrorSet())
        PrintWarnings(set.Warnings());
    return error;
}

void AddImageArguments(CLI::App& command, ImageArguments_t& arguments) {
    command.add_option("--type", arguments.typeName, TypeHelp())
        ->type_name("KIND")
        ->check(CLI::Validator(CheckType, ""));
    command.add_flag("--allow-outside", arguments.allowOutside,
                     "Follow an image to files that don't lie beside it or below");
    command
        .add_option("--chain", arguments.parents,
                    "Older links of the image's chain, base first, instead of those that it names")
        ->type_name("FILE,FILE,...")
        ->delimiter(',')
        ->allow_extra_args(false)  // what stands behind the list is another argument
        ->check(CLI::Validator(CheckName, ""));
    AddPatienceOption(command, arguments.patienceSeconds);
}

void AddPatienceOption(CLI::App& command, std::optional<unsigned>& seconds) {
    constexpr int mostSeconds = 86400;
    command.add_option("--patience", seconds, "How long an NBD server is waited for (15)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, mostSeconds).description(""));
}

void AddBasesOption(CLI::App& command, std::vector<std::string>& bases) {
    command.add_option("--base", bases, "A set on which SET builds, or a directory with such sets")
        ->type_name("SET")
        ->allow_extra_args(false)
        ->check(CLI::Validator(CheckName, ""));
}

void AddOutputArguments(CLI::App& command, OutputOptions_t& output) {
    command.add_flag("--json", output.json, "Print one JSON object");
    command.add_flag("-q,--quiet", output.quiet, "Print no progress and no summary");
}
