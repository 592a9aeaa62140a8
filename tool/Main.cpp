#include <exception>

#include "agent/Version.h"
#include "tool/Commands.h"

namespace {

// A misspelt argument leaves another one missing. CLI11 tells of the missing one; the misspelt one
// is what the user can mend.
std::string WhatIsWrong(const CLI::App& program, const CLI::Error& error) {
    const std::vector<std::string> unknown = program.remaining(true);
    if (unknown.empty())
        return program.get_subcommands().empty() ? "a command is missing" : error.what();
    if (!program.get_subcommands().empty() && !program.remaining().empty())
        return unknown.front() + " stands in front of the command; options come behind it";
    const bool isOption = unknown.front().rfind('-', 0) == 0;
    if (program.get_subcommands().empty() && !isOption)
        return unknown.front() + " is no command";
    return std::string(isOption ? "no such option: " : "one argument too many: ") + unknown.front();
}

std::string UsageMessage(const CLI::App* program, const CLI::Error& error) {
    std::string name = "diskstream";
    for (const CLI::App* const command : program->get_subcommands())
        name += " " + command->get_name();
    return "diskstream: " + Printable(WhatIsWrong(*program, error)) + "\nRun `" + name + " --help` for more.\n";
}

void ChooseWords(CLI::App& program) {
    program.failure_message(UsageMessage);
    program.get_formatter()->label("SUBCOMMAND", "COMMAND");
    program.get_formatter()->label("Positionals", "Arguments");
    program.get_formatter()->label("REQUIRED", "");  // the usage line has the others in brackets
}

void AddCommands(CLI::App& program, int& exitCode) {
    AddInfoCommand(program, exitCode);
    AddBackupCommand(program, exitCode);
    AddRestoreCommand(program, exitCode);
    AddVerifyCommand(program, exitCode);
    AddConsolidateCommand(program, exitCode);
    AddListCommand(program, exitCode);
    AddPartitionsCommand(program, exitCode);
    AddVolumesCommand(program, exitCode);
    AddReadCommand(program, exitCode);
    AddCreateDiskCommand(program, exitCode);
    AddLsCommand(program, exitCode);
    AddStatCommand(program, exitCode);
    AddFindCommand(program, exitCode);
    AddCatCommand(program, exitCode);
    AddCpCommand(program, exitCode);
    AddStreamsCommand(program, exitCode);
    AddExportStreamCommand(program, exitCode);
    AddSecurityCommand(program, exitCode);
    for (CLI::App* const command : program.get_subcommands({}))
        command->group("Commands");
}

int RunCommand(int argumentCount, char** arguments) {
    int exitCode = ExitSuccess;
    CLI::App program("Image-level backup and restore of disks", "diskstream");
    ChooseWords(program);
    program.set_version_flag("--version", std::string("diskstream ") + DiskstreamVersion());
    program.require_subcommand(1);
    program.footer("Examples:\n"
                   "  diskstream info disk.vmdk\n"
                   "  diskstream backup disk.vmdk monday.dset\n"
                   "  diskstream verify monday.dset --against disk.vmdk\n"
                   "  diskstream restore monday.dset restored.vmdk\n"
                   "\n`diskstream COMMAND --help` tells more of a command. Exit codes: 0 success, 1 failure, 2 usage.");
    AddCommands(program, exitCode);
    try {
        program.parse(argumentCount, arguments);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? ExitSuccess : ExitUsage;
    }
    return exitCode;
}

}  // namespace

int main(int argumentCount, char** arguments) {
    try {
        return AfterOutput(RunCommand(argumentCount, arguments));
    } catch (const std::exception& exception) {
        PrintComplaint(exception.what());
        return ExitFailure;
    }
}
