#include <cstdio>
#include <memory>

#include "foundation/detail/ErrorHandling.h"
#include "tool/FilesOfVolume.h"

namespace {

struct CatArguments_t : FileArguments_t {
    std::string stream;
};

const FileWords_t CatWords = {"PATH", 1, 1};

int RunCat(const CatArguments_t& arguments) {
    return RunOnFile(arguments, [&](INtfsFiles& volume, const NtfsFileInfo_t& file) -> CZuError {
        if (file.isDirectory && arguments.stream.empty())
            return Refusal("is a directory");
        return volume.ReadStream(file.frn, arguments.stream, [](const char* bytes, uint32_t size) {
            return std::fwrite(bytes, 1, size, stdout) == size;  // a failure is told of at the end
        });
    });
}

}  // namespace

void AddCatCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("cat", "Write a file of an NTFS volume to the standard output");
    const auto arguments = std::make_shared<CatArguments_t>();
    AddFileArguments(*command, *arguments, CatWords);
    AddNameArgument(*command, "--stream", arguments->stream, "Name of one of the file's other streams")
        ->type_name("NAME");
    command->footer("Examples:\n"
                    "  diskstream cat monday.dset /Users/me/letter.txt\n"
                    "  diskstream cat disk.vmdk --volume Volume1 /Users/me/letter.txt\n"
                    "  diskstream cat disk.vmdk --volume Volume1 /setup.exe --stream Zone.Identifier");
    command->callback([arguments, &exitCode] {
        CheckFileArguments(*arguments, CatWords);
        exitCode = RunCat(*arguments);
    });
}
