#include <memory>

#include "agent/Restore.h"
#include "tool/Commands.h"
#include "tool/ProgressLine.h"

namespace {

struct RestoreArguments_t {
    std::string set;
    std::string target;
    std::string asKind;
    std::optional<unsigned> patienceSeconds;
    RestoreOptions_t options;
    OutputOptions_t output;
};

// Empty when it is one, as CLI11 wants it.
std::string CheckKind(const std::string& text) {
    return text == "raw" ? "" : "must be raw; without --as, a disk is restored as what it was";
}

void PrintResult(const RestoreArguments_t& arguments, const RestoreResult_t& result, double seconds) {
    if (arguments.output.json) {
        PrintJson({{"set", arguments.set},
                   {"files", result.files},
                   {"disk_bytes", result.diskBytes},
                   {"blocks", result.blockCount},
                   {"written_bytes", result.writtenBytes},
                   {"seconds", seconds},
                   {"warnings", result.warnings}});
        return;
    }
    if (arguments.output.quiet)
        return;
    std::vector<std::pair<std::string, std::string>> facts;
    for (const std::string& file : result.files)
        facts.emplace_back("File", file);
    facts.emplace_back("Disk", SizeText(result.diskBytes));
    facts.emplace_back("Written",
                       SizeText(result.writtenBytes) + " in " + std::to_string(result.blockCount) + " blocks");
    PrintFacts(facts);
}

int Run(const RestoreArguments_t& arguments) {
    RestoreOptions_t options = arguments.options;
    options.asRaw = arguments.asKind == "raw";
    if (arguments.patienceSeconds.has_value())
        options.patience = std::chrono::seconds(*arguments.patienceSeconds);
    RestoreResult_t result;
    CZuError error;
    double seconds = 0;
    {
        CProgressLine line("Restoring", arguments.output);
        options.progress = line.Callback();
        error = RestoreDisk(arguments.set, arguments.target, options, result);
        seconds = line.SecondsSoFar();
    }
    if (error.IsErrorSet())
        return Fail(arguments.output, error);
    PrintWarnings(result.warnings);
    PrintResult(arguments, result, seconds);
    return ExitSuccess;
}

}  // namespace

void AddRestoreCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("restore", "Restore a disk from a backup set");
    const auto arguments = std::make_shared<RestoreArguments_t>();
    AddNameArgument(*command, "SET", arguments->set, "Backup set")->required();
    AddNameArgument(*command, "TARGET", arguments->target,
                    "Main file of the restored disk, a directory for it, a device or an NBD export")
        ->required();
    command->add_option("--as", arguments->asKind, "One raw image with holes, instead of the files that were backed up")
        ->type_name("raw")
        ->check(CLI::Validator(CheckKind, ""));
    command->add_option("--disk", arguments->options.disk, "Which disk of a set of several, by its number in `list`")
        ->type_name("NUMBER")
        ->check(CLI::Range(1, 1 << 23).description(""));
    command->add_flag("-f,--force", arguments->options.force, "Replace files that exist");
    command->add_flag("--allow-outside", arguments->options.allowOutside,
                      "Let files go where the set's names lead, out of the target's directory");
    AddBasesOption(*command, arguments->options.bases);
    AddPatienceOption(*command, arguments->patienceSeconds);
    AddOutputArguments(*command, arguments->output);
    command->footer("Examples:\n"
                    "  diskstream restore monday.dset disk.vmdk\n"
                    "  diskstream restore --as raw monday.dset disk.raw\n"
                    "  diskstream restore --disk 2 monday.dset data.vmdk\n"
                    "  diskstream restore --force monday.dset /dev/sdc1\n"
                    "  diskstream restore --base monday.dset tuesday.dset disk.raw\n"
                    "  diskstream restore --force tuesday.dset nbd://host/export");
    command->callback([arguments, &exitCode] { exitCode = Run(*arguments); });
}
