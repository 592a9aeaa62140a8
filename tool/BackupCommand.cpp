#include <memory>

#include "agent/Backup.h"
#include "tool/Commands.h"
#include "tool/ProgressLine.h"

namespace {

struct BackupArguments_t {
    std::string image;
    std::string set;
    std::string compression = "zstd";
    bool flatten = false;
    bool force = false;
    ImageArguments_t imageArguments;
    OutputOptions_t output;
};

constexpr char ZstdPrefix[] = "zstd:";

bool IsZstdLevel(const std::string& text) {
    if (text.empty() || text.size() > 2 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const int level = std::stoi(text);
    return level >= 1 && level <= HighestCompression();
}

std::string LevelText(const std::string& compression) {
    return compression.rfind(ZstdPrefix, 0) == 0 ? compression.substr(sizeof(ZstdPrefix) - 1) : std::string();
}

// Empty when it is one, as CLI11 wants it.
std::string CheckCompression(const std::string& text) {
    if (text == "none" || text == "zstd" || IsZstdLevel(LevelText(text)))
        return {};
    return "must be none, zstd or zstd:LEVEL with a level from 1 to " + std::to_string(HighestCompression());
}

int CompressionLevel(const std::string& text) {
    if (text == "none")
        return NoCompression;
    return text == "zstd" ? DefaultCompression : std::stoi(LevelText(text));
}

void PrintResult(const BackupArguments_t& arguments, const BackupResult_t& result, double seconds) {
    if (arguments.output.json) {
        PrintJson({{"set", arguments.set},
                   {"type", DiskTypeName(result.disks.front().diskType)},
                   {"disk_bytes", result.diskBytes},
                   {"blocks", result.blockCount},
                   {"zero_blocks", result.zeroBlocks},
                   {"read_bytes", result.readBytes},
                   {"stored_bytes", result.storedBytes},
                   {"set_bytes", result.setBytes},
                   {"seconds", seconds},
                   {"warnings", result.warnings}});
        return;
    }
    if (arguments.output.quiet)
        return;
    const double rate = seconds > 0 ? static_cast<double>(result.readBytes) / seconds : 0;
    PrintFacts({{"Set", arguments.set},
                {"Disk", SizeText(result.diskBytes) + ", " + DiskTypeName(result.disks.front().diskType)},
                {"Blocks", std::to_string(result.blockCount) + " with " + SizeText(result.readBytes) + ", " +
                               std::to_string(result.zeroBlocks) + " of them zeros"},
                {"Stored", SizeText(result.storedBytes) + " in a set of " + SizeText(result.setBytes)},
                {"Rate", SizeText(static_cast<uint64_t>(rate)) + "/s"}});
}

int Run(const BackupArguments_t& arguments) {
    BackupOptions_t options;
    options.image = arguments.imageArguments.Options();
    options.flatten = arguments.flatten;
    options.force = arguments.force;
    options.compressionLevel = CompressionLevel(arguments.compression);
    BackupResult_t result;
    CZuError error;
    double seconds = 0;
    {
        CProgressLine line("Backing up", arguments.output);
        options.progress = line.Callback();
        error = BackUpDisk(arguments.image, arguments.set, options, result);
        seconds = line.SecondsSoFar();
    }
    if (error.IsErrorSet())
        return Fail(arguments.output, error);
    PrintWarnings(result.warnings);
    PrintResult(arguments, result, seconds);
    return ExitSuccess;
}

}  // namespace

void AddBackupCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("backup", "Back a disk image up into a new backup set");
    const auto arguments = std::make_shared<BackupArguments_t>();
    AddNameArgument(*command, "IMAGE", arguments->image, "Disk image, or its descriptor")->required();
    AddNameArgument(*command, "SET", arguments->set, "Backup set to write")->required();
    command->add_option("--compression", arguments->compression, "How blocks are kept; zstd, the default, is level 1")
        ->type_name("none|zstd[:LEVEL]")
        ->check(CLI::Validator(CheckCompression, ""));
    command->add_flag("--flatten", arguments->flatten,
                      "Keep the disk as it reads through its chain, as a raw disk, not the image");
    command->add_flag("-f,--force", arguments->force, "Replace a set that exists");
    AddImageArguments(*command, arguments->imageArguments);
    AddOutputArguments(*command, arguments->output);
    command->footer("Examples:\n"
                    "  diskstream backup disk.vmdk monday.dset\n"
                    "  diskstream backup --compression zstd:9 disk.vmdk monday.dset\n"
                    "  diskstream backup --flatten snapshot.vhd monday.dset\n"
                    "  diskstream backup /dev/sdb monday.dset");
    command->callback([arguments, &exitCode] { exitCode = Run(*arguments); });
}
