#include <cstdio>
#include <memory>

#include "agent/Verify.h"
#include "tool/Commands.h"
#include "tool/ProgressLine.h"

namespace {

struct VerifyArguments_t {
    std::string set;
    std::string against;
    std::optional<uint64_t> disk;
    std::vector<std::string> bases;
    ImageArguments_t imageArguments;
    OutputOptions_t output;
};

std::string ResultText(const VerifyArguments_t& arguments, const VerifyResult_t& result) {
    std::string text =
        arguments.set + ": sound, " + std::to_string(result.blockCount) + " blocks with " + SizeText(result.plainBytes);
    if (!arguments.against.empty() && result.differenceCount == 0)
        text += "; " + arguments.against + " holds the same";
    return text;
}

void PrintResult(const VerifyArguments_t& arguments, const VerifyResult_t& result, double seconds) {
    if (arguments.output.json) {
        PrintJson({{"set", arguments.set},
                   {"sound", true},
                   {"blocks", result.blockCount},
                   {"plain_bytes", result.plainBytes},
                   {"difference_count", result.differenceCount},
                   {"differences", result.differences},
                   {"seconds", seconds}});
    } else if (!arguments.output.quiet) {
        std::puts(Printable(ResultText(arguments, result)).c_str());
    }
}

void PrintDifferences(const VerifyArguments_t& arguments, const VerifyResult_t& result) {
    PrintComplaint(arguments.against + " and the set " + arguments.set + " differ in " +
                   std::to_string(result.differenceCount) + (result.differenceCount == 1 ? " place:" : " places:"));
    for (const std::string& difference : result.differences)
        std::fprintf(stderr, "  %s\n", Printable(difference).c_str());
    if (result.differenceCount > result.differences.size())
        std::fprintf(stderr, "  and %llu more\n",
                     static_cast<unsigned long long>(result.differenceCount - result.differences.size()));
}

int Run(const VerifyArguments_t& arguments) {
    VerifyOptions_t options;
    options.image = arguments.imageArguments.Options();
    options.disk = arguments.disk;
    options.bases = arguments.bases;
    if (!arguments.against.empty())
        options.against = arguments.against;
    VerifyResult_t result;
    CZuError error;
    double seconds = 0;
    {
        CProgressLine line("Verifying", arguments.output);
        options.progress = line.Callback();
        error = VerifySet(arguments.set, options, result);
        seconds = line.SecondsSoFar();
    }
    if (error.IsErrorSet())
        return Fail(arguments.output, error);
    PrintResult(arguments, result, seconds);
    if (result.differenceCount == 0)
        return ExitSuccess;
    PrintDifferences(arguments, result);
    return ExitFailure;
}

}  // namespace

void AddVerifyCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("verify", "Prove every byte of a backup set");
    const auto arguments = std::make_shared<VerifyArguments_t>();
    AddNameArgument(*command, "SET", arguments->set, "Backup set")->required();
    AddNameArgument(*command, "--against", arguments->against, "Disk image that should hold the same")
        ->type_name("IMAGE");
    command
        ->add_option("--disk", arguments->disk, "Which disk of a set of several the image is, by its number in `list`")
        ->type_name("NUMBER")
        ->check(CLI::Range(1, 1 << 23).description(""));
    AddBasesOption(*command, arguments->bases);
    AddImageArguments(*command, arguments->imageArguments);
    AddOutputArguments(*command, arguments->output);
    command->footer("Examples:\n"
                    "  diskstream verify monday.dset\n"
                    "  diskstream verify monday.dset --against disk.vmdk\n"
                    "  diskstream verify monday.dset --disk 2 --against data.vmdk\n"
                    "  diskstream verify tuesday.dset --base monday.dset --against nbd://host/export");
    command->callback([arguments, &exitCode] { exitCode = Run(*arguments); });
}
