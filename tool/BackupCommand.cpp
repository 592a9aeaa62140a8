#include <memory>

#include "agent/Backup.h"
#include "tool/Commands.h"
#include "tool/ProgressLine.h"

namespace {

struct BackupArguments_t {
    std::vector<std::string> words;  // the disks, and behind them the set
    std::vector<std::string> disks;
    std::string set;
    std::string compression = "zstd";
    bool flatten = false;
    bool catalog = false;
    bool force = false;
    std::string changedSince;
    std::string base;
    ImageArguments_t imageArguments;
    OutputOptions_t output;
};

// CLI11 knows no argument behind one that takes any number of words.
class CBackupUsage : public CLI::Formatter {
public:
    std::string make_usage(const CLI::App* /*program*/, std::string name) const override {
        return "Usage: " + name + " [OPTIONS] DISK... SET\n";
    }
};

void SplitWords(BackupArguments_t& arguments) {
    arguments.disks = arguments.words;
    arguments.set = arguments.disks.back();
    arguments.disks.pop_back();
    if (arguments.disks.empty())
        throw CLI::RequiredError("SET");
    if (arguments.changedSince.empty() != arguments.base.empty())
        throw CLI::ValidationError("--changed-since and --base: one needs the other");
    if (arguments.disks.size() > 1 && !arguments.base.empty())
        throw CLI::ValidationError("--base: builds on the set of one disk, so give it with one disk only");
    if (arguments.disks.size() > 1 && !arguments.imageArguments.parents.empty())
        throw CLI::ValidationError("--chain: tells of the links of one disk, so give it with one disk only");
}

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
std::string CheckBackupName(const std::string& name) {
    return name.empty() ? "the name is empty" : "";
}

// The same.
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

Json_t JsonOfDisks(const std::vector<BackedUpDisk_t>& disks) {
    Json_t array = Json_t::array();
    for (const BackedUpDisk_t& disk : disks)
        array.push_back({{"number", array.size() + 1},
                         {"image", disk.image},
                         {"type", DiskTypeName(disk.diskType)},
                         {"disk_bytes", disk.diskBytes}});
    return array;
}

void PrintJsonResult(const BackupArguments_t& arguments, const BackupResult_t& result, double seconds) {
    Json_t object{{"set", arguments.set}};
    if (result.disks.size() == 1)
        object["type"] = DiskTypeName(result.disks.front().diskType);
    object["disk_bytes"] = result.diskBytes;
    object["disks"] = JsonOfDisks(result.disks);
    object["blocks"] = result.blockCount;
    object["zero_blocks"] = result.zeroBlocks;
    if (!arguments.base.empty()) {
        object["base"] = arguments.base;
        object["unchanged_blocks"] = result.unchangedBlocks;
    }
    object["read_bytes"] = result.readBytes;
    object["stored_bytes"] = result.storedBytes;
    object["set_bytes"] = result.setBytes;
    if (arguments.catalog)
        object["catalog"] = {
            {"volumes", result.catalogVolumes}, {"files", result.catalogFiles}, {"problems", result.catalogProblems}};
    object["seconds"] = seconds;
    object["warnings"] = result.warnings;
    PrintJson(object);
}

void PrintResult(const BackupArguments_t& arguments, const BackupResult_t& result, double seconds) {
    if (arguments.output.json)
        return PrintJsonResult(arguments, result, seconds);
    if (arguments.output.quiet)
        return;
    std::vector<std::pair<std::string, std::string>> facts{{"Set", arguments.set}};
    for (const BackedUpDisk_t& disk : result.disks) {
        const std::string text = SizeText(disk.diskBytes) + ", " + DiskTypeName(disk.diskType);
        if (result.disks.size() == 1)
            facts.emplace_back("Disk", text);
        else
            facts.emplace_back("Disk " + std::to_string(facts.size()), disk.image + ", " + text);
    }
    const double rate = seconds > 0 ? static_cast<double>(result.readBytes) / seconds : 0;
    facts.emplace_back("Blocks", std::to_string(result.blockCount) + " with " + SizeText(result.readBytes) + ", " +
                                     std::to_string(result.zeroBlocks) + " of them zeros");
    if (!arguments.base.empty())
        facts.emplace_back("Unchanged", std::to_string(result.unchangedBlocks) + " blocks, in " + arguments.base);
    facts.emplace_back("Stored", SizeText(result.storedBytes) + " in a set of " + SizeText(result.setBytes));
    if (arguments.catalog)
        facts.emplace_back("Catalogue", std::to_string(result.catalogFiles) + " files of " +
                                            std::to_string(result.catalogVolumes) +
                                            (result.catalogVolumes == 1 ? " volume" : " volumes"));
    facts.emplace_back("Rate", SizeText(static_cast<uint64_t>(rate)) + "/s");
    PrintFacts(facts);
}

int Run(const BackupArguments_t& arguments) {
    BackupOptions_t options;
    options.image = arguments.imageArguments.Options();
    options.image.changedSince = arguments.changedSince;
    options.base = arguments.base;
    options.flatten = arguments.flatten;
    options.catalog = arguments.catalog;
    options.force = arguments.force;
    options.compressionLevel = CompressionLevel(arguments.compression);
    BackupResult_t result;
    CZuError error;
    double seconds = 0;
    {
        CProgressLine line("Backing up", arguments.output);
        options.progress = line.Callback();
        error = BackUpDisks(arguments.disks, arguments.set, options, result);
        seconds = line.SecondsSoFar();
    }
    if (error.IsErrorSet())
        return Fail(arguments.output, error);
    PrintWarnings(result.warnings);
    PrintResult(arguments, result, seconds);
    if (result.catalogProblems.empty())
        return ExitSuccess;
    PrintWarnings(result.catalogProblems);
    PrintComplaint(arguments.set + ": holds the disks, but the catalogue isn't whole");
    return ExitFailure;
}

}  // namespace

void AddBackupCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("backup", "Back disks up into a new backup set");
    const auto arguments = std::make_shared<BackupArguments_t>();
    command
        ->add_option("DISK", arguments->words,
                     "Images, descriptors, raw files, devices or NBD exports; the last word is the set")
        ->type_name("")
        ->required()
        ->check(CLI::Validator(CheckBackupName, ""));
    command->formatter(std::make_shared<CBackupUsage>());
    command->get_formatter()->label("REQUIRED", "");
    command->get_formatter()->label("Positionals", "Arguments");
    command->add_option("--compression", arguments->compression, "How blocks are kept; zstd, the default, is level 1")
        ->type_name("none|zstd[:LEVEL]")
        ->check(CLI::Validator(CheckCompression, ""));
    command->add_flag("--flatten", arguments->flatten,
                      "Keep the disk as it reads through its chain, as a raw disk, not the image");
    command->add_flag("--catalog", arguments->catalog,
                      "Collect what lists and restores the files of NTFS volumes from the set alone");
    AddNameArgument(*command, "--changed-since", arguments->changedSince,
                    "Only what changed, as this dirty bitmap of an NBD export tells")
        ->type_name("BITMAP");
    AddNameArgument(*command, "--base", arguments->base, "The set that has what didn't change")->type_name("SET");
    command->add_flag("-f,--force", arguments->force, "Replace a set that exists");
    AddImageArguments(*command, arguments->imageArguments);
    AddOutputArguments(*command, arguments->output);
    command->footer("Examples:\n"
                    "  diskstream backup disk.vmdk monday.dset\n"
                    "  diskstream backup --compression zstd:9 disk.vmdk monday.dset\n"
                    "  diskstream backup --catalog disk.vmdk monday.dset\n"
                    "  diskstream backup --catalog system.vhd data.vhd monday.dset\n"
                    "  diskstream backup --flatten snapshot.vhd monday.dset\n"
                    "  diskstream backup /dev/sdb monday.dset\n"
                    "  diskstream backup --type ntfs-volume /dev/sdb1 monday.dset\n"
                    "  diskstream backup nbd://host/export monday.dset\n"
                    "  diskstream backup --changed-since monday --base monday.dset \\\n"
                    "      'nbd+unix:///export?socket=/run/disk.sock' tuesday.dset");
    command->callback([arguments, &exitCode] {
        SplitWords(*arguments);
        exitCode = Run(*arguments);
    });
}
