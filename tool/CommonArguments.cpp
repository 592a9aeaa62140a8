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

}  // namespace

ImageOptions_t ImageArguments_t::Options() const {
    ImageOptions_t options;
    if (!typeName.empty())
        options.type = DiskTypeFromName(typeName);
    options.allowOutside = allowOutside;
    return options;
}

CLI::Option* AddNameArgument(CLI::App& command, const std::string& argument, std::string& name,
                             const std::string& description) {
    return command.add_option(argument, name, description)->type_name("")->check(CLI::Validator(CheckName, ""));
}

void AddImageArguments(CLI::App& command, ImageArguments_t& arguments) {
    command.add_option("--type", arguments.typeName, TypeHelp())
        ->type_name("KIND")
        ->check(CLI::Validator(CheckType, ""));
    command.add_flag("--allow-outside", arguments.allowOutside,
                     "Follow a descriptor to files that don't lie beside it or below");
}

void AddOutputArguments(CLI::App& command, OutputOptions_t& output) {
    command.add_flag("--json", output.json, "Print one JSON object");
    command.add_flag("-q,--quiet", output.quiet, "Print no progress and no summary");
}
