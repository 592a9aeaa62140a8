#include <cstdio>
#include <memory>

#include "agent/NtfsCopy.h"
#include "foundation/detail/ErrorHandling.h"
#include "tool/FilesOfVolume.h"
#include "tool/ProgressLine.h"

namespace {

struct CpArguments_t : FileArguments_t {
    bool isRecursive = false;
    bool isReplacing = false;
    bool withMetadata = false;
};

const FileWords_t CpWords = {"PATH TARGET", 2, 2};

void PrintCopied(const CpArguments_t& arguments, const NtfsCopy_t& copy) {
    if (arguments.output.json)
        PrintJson({{"files", copy.files},
                   {"directories", copy.directories},
                   {"bytes", copy.bytes},
                   {"problems", copy.problems}});
    else if (!arguments.output.quiet)
        std::printf("%llu %s, %s\n", static_cast<unsigned long long>(copy.files), copy.files == 1 ? "file" : "files",
                    SizeText(copy.bytes).c_str());
}

// What was left out is told of when the result is out, which says it in JSON.
int RunCp(const CpArguments_t& arguments) {
    bool isWhole = true;
    const int exitCode = RunOnVolume(arguments, [&](INtfsFiles& volume) -> CZuError {
        NtfsCopy_t copy;
        copy.isRecursive = arguments.isRecursive;
        copy.isReplacing = arguments.isReplacing;
        copy.withMetadata = arguments.withMetadata;
        {
            CProgressLine line("Copying", arguments.output);
            copy.progress = line.Callback();
            ZU_RETURN_IF_ERROR(CopyFromNtfs(volume, arguments.Rest(0), arguments.Rest(1), copy));
        }
        PrintCopied(arguments, copy);
        PrintWarnings(copy.problems);
        isWhole = copy.problems.empty();
        return CZuError();
    });
    if (isWhole)
        return exitCode;
    PrintComplaint("the copy isn't whole: some of it was left out");
    return ExitFailure;
}

}  // namespace

void AddCpCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("cp", "Copy files out of an NTFS volume");
    const auto arguments = std::make_shared<CpArguments_t>();
    AddFileArguments(*command, *arguments, CpWords);
    command->add_flag("-r,--recursive", arguments->isRecursive, "Copy a directory with all that lies below it");
    command->add_flag("--all", arguments->withMetadata, "Copy the files that make the volume itself too, such as $MFT");
    command->add_flag("-f,--force", arguments->isReplacing, "Replace a file that exists");
    AddOutputArguments(*command, arguments->output);
    command->footer("Contents and times are copied, names as UTF-8. The target appears when it is whole. Of a tree,\n"
                    "encrypted files, links and what can't be read are left out and named; the exit code is 1 then.\n"
                    "Examples:\n"
                    "  diskstream cp -r monday.dset /Users/me restored\n"
                    "  diskstream cp disk.vmdk --volume Volume1 /Users/me/letter.txt .\n"
                    "  diskstream cp -r disk.vmdk --volume Volume1 /Users/me restored");
    command->callback([arguments, &exitCode] {
        CheckFileArguments(*arguments, CpWords);
        exitCode = RunCp(*arguments);
    });
}
