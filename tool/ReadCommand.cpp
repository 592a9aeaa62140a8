#include <cstdio>
#include <memory>

#include "agent/ReadRange.h"
#include "tool/Commands.h"
#include "tool/ProgressLine.h"

namespace {

struct ReadArguments_t {
    std::vector<std::string> disks;
    std::string volume;
    std::optional<uint32_t> partition;
    std::optional<uint64_t> offset;
    std::optional<uint64_t> length;
    ImageArguments_t imageArguments;
    OutputOptions_t output;
};

int Run(const ReadArguments_t& arguments) {
    ImageOptions_t options = arguments.imageArguments.Options();
    options.rawUnlessKnown = true;
    ReadRange_t range;
    if (!arguments.volume.empty())
        range.volume = arguments.volume;
    range.partition = arguments.partition;
    range.offset = arguments.offset.value_or(0);
    range.length = arguments.length;
    CZuError error;
    {
        CProgressLine line("Reading", arguments.output);
        range.progress = line.Callback();
        error = ReadDiskRange(arguments.disks, options, range, [](const char* bytes, uint32_t size) {
            return std::fwrite(bytes, 1, size, stdout) == size;  // a failure is told of at the end
        });
    }
    return error.IsErrorSet() ? Fail(arguments.output, error) : ExitSuccess;
}

}  // namespace

void AddReadCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command =
        program.add_subcommand("read", "Write bytes of a volume, a partition or a disk to the standard output");
    const auto arguments = std::make_shared<ReadArguments_t>();
    AddDiskArguments(*command, arguments->disks, arguments->imageArguments);
    CLI::Option* const volume =
        AddNameArgument(*command, "--volume", arguments->volume, "Name of the volume, as `diskstream volumes` has it")
            ->type_name("NAME");
    command->add_option("--partition", arguments->partition, "Number of the partition, of one disk")
        ->type_name("N")
        ->excludes(volume);
    AddBytesOption(*command, "--offset", arguments->offset, "Where to begin; 0 unless given");
    AddBytesOption(*command, "--length", arguments->length, "How many bytes; all to the end unless given");
    command->add_flag("-q,--quiet", arguments->output.quiet, "Print no progress");
    command->footer("Examples:\n"
                    "  diskstream read disk.vmdk > disk.raw\n"
                    "  diskstream read disk.vhd --partition 1 --length 512 | xxd\n"
                    "  diskstream read disk.vmdk --volume Volume1 --offset 1M --length 64K > piece");
    command->callback([arguments, &exitCode] { exitCode = Run(*arguments); });
}
