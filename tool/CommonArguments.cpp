#include "tool/Commands.h"

ImageOptions_t ImageArguments_t::Options() const {
    ImageOptions_t options;
    if (!typeName.empty())
        options.type = DiskTypeFromName(typeName);
    options.allowOutside = allowOutside;
    return options;
}

void AddImageArguments(CLI::App& command, ImageArguments_t& arguments) {
    command.add_option("--type", arguments.typeName, "Kind of the image, instead of what its file tells")
        ->check(CLI::IsMember(SelectableDiskTypeNames()));
    command.add_flag("--allow-outside", arguments.allowOutside,
                     "Follow a descriptor to files that don't lie beside it or below");
}

void AddOutputArguments(CLI::App& command, OutputOptions_t& output) {
    command.add_flag("--json", output.json, "Print one JSON object");
    command.add_flag("-q,--quiet", output.quiet, "Print no progress and no summary");
}
