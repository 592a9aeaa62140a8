#include <memory>

#include "agent/NtfsExport.h"
#include "foundation/detail/ErrorHandling.h"
#include "tool/FilesOfVolume.h"
#include "tool/ProgressLine.h"

namespace {

struct ExportArguments_t : FileArguments_t {
    bool isReplacing = false;
};

const FileWords_t ExportWords = {"PATH TARGET", 2, 2};
constexpr char StandardOutput[] = "-";

int RunExport(const ExportArguments_t& arguments) {
    return RunOnFile(arguments, [&](INtfsFiles& volume, const NtfsFileInfo_t& file) -> CZuError {
        if (arguments.Rest(1) == StandardOutput)
            return volume.ReadBackupStream(file.frn, [](const char* bytes, uint32_t size) {
                return std::fwrite(bytes, 1, size, stdout) == size;  // a failure is told of at the end
            });
        CProgressLine line("Exporting", arguments.output);
        return ExportBackupStream(volume, file.frn, arguments.Rest(1), arguments.isReplacing, line.Callback());
    });
}

}  // namespace

void AddExportStreamCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command =
        program.add_subcommand("export-stream", "Write a file of an NTFS volume as a backup stream");
    const auto arguments = std::make_shared<ExportArguments_t>();
    AddFileArguments(*command, *arguments, ExportWords);
    command->add_flag("-f,--force", arguments->isReplacing, "Replace a file that exists");
    command->add_flag("-q,--quiet", arguments->output.quiet, "Print no progress");
    command->footer("A backup stream holds all of a file, in the form of Windows' own: its security descriptor,\n"
                    "contents, named streams, object id, reparse point and extended attributes. \"-\" writes to the\n"
                    "standard output.\n"
                    "Examples:\n"
                    "  diskstream export-stream disk.vmdk --volume Volume1 /Users/me/letter.txt letter.bks\n"
                    "  diskstream export-stream disk.vmdk --volume Volume1 /letter.txt - | xxd | head");
    command->callback([arguments, &exitCode] {
        CheckFileArguments(*arguments, ExportWords);
        exitCode = RunExport(*arguments);
    });
}
