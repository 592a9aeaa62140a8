#include <memory>

#include "agent/Consolidate.h"
#include "tool/Commands.h"
#include "tool/ProgressLine.h"

namespace {

struct ConsolidateArguments_t {
    std::string set;
    std::string target;
    ConsolidateOptions_t options;
    OutputOptions_t output;
};

void PrintResult(const ConsolidateArguments_t& arguments, const ConsolidateResult_t& result, double seconds) {
    if (arguments.output.json) {
        PrintJson({{"set", arguments.set},
                   {"new_set", arguments.target},
                   {"sets", result.setCount},
                   {"blocks", result.blockCount},
                   {"stored_bytes", result.storedBytes},
                   {"set_bytes", result.setBytes},
                   {"seconds", seconds}});
        return;
    }
    if (arguments.output.quiet)
        return;
    PrintFacts({{"Set", arguments.target},
                {"From", std::to_string(result.setCount) + (result.setCount == 1 ? " set" : " sets")},
                {"Blocks", std::to_string(result.blockCount)},
                {"Stored", SizeText(result.storedBytes) + " in a set of " + SizeText(result.setBytes)}});
}

int Run(const ConsolidateArguments_t& arguments) {
    ConsolidateOptions_t options = arguments.options;
    ConsolidateResult_t result;
    CZuError error;
    double seconds = 0;
    {
        CProgressLine line("Consolidating", arguments.output);
        options.progress = line.Callback();
        error = ConsolidateSet(arguments.set, arguments.target, options, result);
        seconds = line.SecondsSoFar();
    }
    if (error.IsErrorSet())
        return Fail(arguments.output, error);
    PrintResult(arguments, result, seconds);
    return ExitSuccess;
}

}  // namespace

void AddConsolidateCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command =
        program.add_subcommand("consolidate", "Make a backup set that needs no base of one that builds on others");
    const auto arguments = std::make_shared<ConsolidateArguments_t>();
    AddNameArgument(*command, "SET", arguments->set, "Backup set")->required();
    AddNameArgument(*command, "NEW", arguments->target, "The set to make")->required();
    AddBasesOption(*command, arguments->options.bases);
    command->add_flag("-f,--force", arguments->options.force, "Replace a set that exists");
    AddOutputArguments(*command, arguments->output);
    command->footer("Examples:\n"
                    "  diskstream consolidate friday.dset week.dset\n"
                    "  diskstream consolidate --base /backup/older friday.dset week.dset");
    command->callback([arguments, &exitCode] { exitCode = Run(*arguments); });
}
