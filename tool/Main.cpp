#include <cstdio>
#include <exception>

#include "agent/Version.h"
#include "tool/Commands.h"
#include "tool/Interrupt.h"

namespace {

int RunCommand(int argumentCount, char** arguments) {
    int exitCode = ExitSuccess;
    CLI::App program("Image-level backup and restore of disks", "diskstream");
    program.set_version_flag("--version", std::string("diskstream ") + DiskstreamVersion());
    program.require_subcommand(1);
    program.footer("Examples:\n"
                   "  diskstream info disk.vmdk\n"
                   "  diskstream backup disk.vmdk monday.dset\n"
                   "  diskstream verify monday.dset --against disk.vmdk\n"
                   "  diskstream restore monday.dset restored.vmdk\n"
                   "\n`diskstream COMMAND --help` tells more of a command. Exit codes: 0 success, 1 failure, 2 usage.");
    AddInfoCommand(program, exitCode);
    AddBackupCommand(program, exitCode);
    AddRestoreCommand(program, exitCode);
    AddVerifyCommand(program, exitCode);
    AddListCommand(program, exitCode);
    try {
        program.parse(argumentCount, arguments);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? ExitSuccess : ExitUsage;
    }
    return exitCode;
}

}  // namespace

int main(int argumentCount, char** arguments) {
    CatchInterrupts();
    try {
        return RunCommand(argumentCount, arguments);
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "diskstream: %s\n", exception.what());
        return ExitFailure;
    }
}
