#include <memory>

#include "agent/CreateDisk.h"
#include "tool/Commands.h"

namespace {

struct CreateDiskArguments_t {
    std::string target;
    std::string format;
    std::optional<uint64_t> size;
    bool force = false;
    OutputOptions_t output;
};

std::string CheckFormat(const std::string& format) {
    return format == "vmdk" || format == "vhd" ? "" : "must be vmdk or vhd";
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

ProductType_t ProductFor(const CreateDiskArguments_t& arguments) {
    const bool isVhd = arguments.format.empty() ? EndsWith(arguments.target, ".vhd") : arguments.format == "vhd";
    return isVhd ? VirtualProdType_HyperV : VirtualProdType_VMware;
}

int Run(const CreateDiskArguments_t& arguments) {
    std::vector<std::string> files;
    const CZuError error =
        CreateEmptyDisk(arguments.target, *arguments.size / 512, ProductFor(arguments), arguments.force, files);
    if (error.IsErrorSet())
        return Fail(arguments.output, error);
    if (arguments.output.json) {
        PrintJson({{"files", files}, {"volume_bytes", *arguments.size}, {"first_sector", 63}});
    } else if (!arguments.output.quiet) {
        for (const std::string& file : files)
            std::puts(Printable(file).c_str());
    }
    return ExitSuccess;
}

std::string CheckSectors(const std::optional<uint64_t>& size) {
    return *size % 512 != 0 || *size == 0 ? "--size must be a multiple of 512 bytes, and not 0" : "";
}

}  // namespace

void AddCreateDiskCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command =
        program.add_subcommand("create-disk", "Make an empty disk around one NTFS partition of a given size");
    const auto arguments = std::make_shared<CreateDiskArguments_t>();
    AddNameArgument(*command, "TARGET", arguments->target, "Disk to make: a fixed VHD, or a VMDK descriptor")
        ->required();
    AddBytesOption(*command, "--size", arguments->size, "Size of the partition")->required();
    command->add_option("--format", arguments->format, "Kind of disk; by the target's name unless given, vmdk in doubt")
        ->type_name("vmdk|vhd")
        ->check(CLI::Validator(CheckFormat, ""));
    command->add_flag("-f,--force", arguments->force, "Replace files that exist");
    AddOutputArguments(*command, arguments->output);
    command->footer("Examples:\n"
                    "  diskstream create-disk --size 10G volume.vhd\n"
                    "  diskstream create-disk --size 512M --format vmdk volume.vmdk");
    command->callback([arguments, &exitCode] {
        if (const std::string complaint = CheckSectors(arguments->size); !complaint.empty())
            throw CLI::ValidationError(complaint);
        exitCode = Run(*arguments);
    });
}
