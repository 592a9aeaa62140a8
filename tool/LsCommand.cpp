#include <memory>

#include "agent/ErrorText.h"
#include "foundation/detail/ErrorHandling.h"
#include "tool/FilesOfVolume.h"

namespace {

struct LsArguments_t : FileArguments_t {
    bool isRecursive = false;
    bool isLong = false;
    bool withMetadata = false;
};

const FileWords_t LsWords = {"[PATH]", 0, 1};

// What can't be read of a directory or of a file is told at the end, and is a failure.
std::vector<std::string> List(const LsArguments_t& arguments, INtfsFiles& volume, const NtfsFileInfo_t& file,
                              const TakeNtfsEntry_t& take) {
    if (!file.isDirectory) {
        take({arguments.Rest(0), arguments.Rest(0), file});
        return {};
    }
    NtfsListing_t listing;
    listing.isRecursive = arguments.isRecursive;
    listing.withMetadata = arguments.withMetadata;
    const CZuError error = volume.List(file.frn, listing, [&](const NtfsEntry_t& entry) {
        if (!entry.file.problem.empty())
            listing.problems.push_back(entry.path + ": " + entry.file.problem);
        return take(entry);
    });
    if (error.IsErrorSet())
        listing.problems.push_back(DescribeError(error));
    return listing.problems;
}

std::vector<std::string> ListAsJson(const LsArguments_t& arguments, INtfsFiles& volume, const NtfsFileInfo_t& file) {
    CJsonListing listing(arguments.volume, arguments.Rest(0).empty() ? "/" : arguments.Rest(0));
    const std::vector<std::string> problems = List(arguments, volume, file, [&](const NtfsEntry_t& entry) {
        listing.Put(entry);
        return true;
    });
    listing.End(problems);
    return problems;
}

std::vector<std::string> ListAsText(const LsArguments_t& arguments, INtfsFiles& volume, const NtfsFileInfo_t& file) {
    return List(arguments, volume, file, [&](const NtfsEntry_t& entry) {
        PrintEntry(entry, arguments.isLong);
        return true;
    });
}

int RunLs(const LsArguments_t& arguments) {
    std::vector<std::string> problems;
    const int exitCode = RunOnVolume(arguments, [&](INtfsFiles& volume) -> CZuError {
        NtfsFileInfo_t file;
        ZU_RETURN_IF_ERROR(volume.FindFile(arguments.Rest(0), file));
        problems = arguments.output.json ? ListAsJson(arguments, volume, file) : ListAsText(arguments, volume, file);
        return CZuError();
    });
    return EndListing(exitCode, problems);
}

}  // namespace

void AddLsCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("ls", "List the files of an NTFS volume");
    const auto arguments = std::make_shared<LsArguments_t>();
    AddFileArguments(*command, *arguments, LsWords);
    command->add_flag("-r,--recursive", arguments->isRecursive, "List all that lies below, with whole paths");
    command->add_flag("-l,--long", arguments->isLong, "Print attributes, sizes and times of change (UTC) as well");
    command->add_flag("--all", arguments->withMetadata, "List the files that make the volume itself too, such as $MFT");
    command->add_flag("--json", arguments->output.json, "Print one JSON object");
    command->footer("Attributes: d directory, r read-only, h hidden, s system, a archive, p sparse, l reparse point,\n"
                    "c compressed, e encrypted.\n"
                    "Examples:\n"
                    "  diskstream ls monday.dset /Users\n"
                    "  diskstream ls disk.vmdk --volume Volume1 /Users\n"
                    "  diskstream ls -r -l disk.vmdk --volume Volume1\n"
                    "  diskstream ls --json one.vhd two.vhd --volume Volume3 'Program Files'");
    command->callback([arguments, &exitCode] {
        CheckFileArguments(*arguments, LsWords);
        exitCode = RunLs(*arguments);
    });
}
