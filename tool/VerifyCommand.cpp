#include <cstdio>
#include <memory>

#include "agent/Verify.h"
#include "tool/Commands.h"
#include "tool/ProgressLine.h"

namespace {

struct Arguments_t {
    std::string set;
    std::string against;
    ImageArguments_t imageArguments;
    OutputOptions_t output;
};

void PrintResult(const Arguments_t& arguments, const VerifyResult_t& result, double seconds) {
    if (arguments.output.json) {
        PrintJson({{"sound", true},
                   {"blocks", result.blockCount},
                   {"plain_bytes", result.plainBytes},
                   {"difference_count", result.differenceCount},
                   {"differences", result.differences},
                   {"seconds", seconds}});
    } else if (!arguments.output.quiet) {
        std::printf("%s: sound, %llu blocks with %s\n", arguments.set.c_str(),
                    static_cast<unsigned long long>(result.blockCount), SizeText(result.plainBytes).c_str());
    }
}

void PrintDifferences(const Arguments_t& arguments, const VerifyResult_t& result) {
    std::fprintf(stderr, "diskstream: %s and the set %s differ in %llu places:\n", arguments.against.c_str(),
                 arguments.set.c_str(), static_cast<unsigned long long>(result.differenceCount));
    for (const std::string& difference : result.differences)
        std::fprintf(stderr, "  %s\n", difference.c_str());
    if (result.differenceCount > result.differences.size())
        std::fprintf(stderr, "  and %llu more\n",
                     static_cast<unsigned long long>(result.differenceCount - result.differences.size()));
}

int Run(const Arguments_t& arguments) {
    VerifyOptions_t options;
    options.image = arguments.imageArguments.Options();
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
    const auto arguments = std::make_shared<Arguments_t>();
    command->add_option("SET", arguments->set, "Backup set")->required();
    command->add_option("--against", arguments->against, "Disk image that should hold the same");
    AddImageArguments(*command, arguments->imageArguments);
    AddOutputArguments(*command, arguments->output);
    command->footer("Examples:\n"
                    "  diskstream verify monday.dset\n"
                    "  diskstream verify monday.dset --against disk.vmdk");
    command->callback([arguments, &exitCode] { exitCode = Run(*arguments); });
}
