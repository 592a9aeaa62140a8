#include <memory>
#include <optional>

#include "agent/ErrorText.h"
#include "agent/NamePattern.h"
#include "agent/NtfsTime.h"
#include "foundation/detail/ErrorHandling.h"
#include "tool/FilesOfVolume.h"

namespace {

struct FindArguments_t : FileArguments_t {
    std::string pattern = "*";
    std::string type;
    std::optional<uint64_t> leastBytes;
    std::optional<uint64_t> mostBytes;
    std::string changedSince;
    std::string changedBefore;
    bool isLong = false;
};

const FileWords_t FindWords = {"[PATH]", 0, 1};

// Empty when it is one, as CLI11 wants it.
std::string CheckTime(const std::string& text) {
    return NtfsTimeFromText(text).has_value() ? "" : "must be a time such as 2026-01-31 or 2026-01-31T12:00:00";
}

class CFilter {
public:
    explicit CFilter(const FindArguments_t& arguments)
        : m_Arguments(arguments), m_Pattern(arguments.pattern), m_Since(NtfsTimeFromText(arguments.changedSince)),
          m_Before(NtfsTimeFromText(arguments.changedBefore)) {}

    bool Takes(const NtfsEntry_t& entry) const {
        const NtfsFileInfo_t& file = entry.file;
        const bool isSized = !file.isDirectory && (!m_Arguments.leastBytes || file.bytes >= *m_Arguments.leastBytes) &&
                             (!m_Arguments.mostBytes || file.bytes <= *m_Arguments.mostBytes);
        const bool asksForSize = m_Arguments.leastBytes || m_Arguments.mostBytes;
        return (!asksForSize || isSized) && (m_Arguments.type.empty() || m_Arguments.type == FileKind(file)) &&
               (!m_Since || file.modification >= *m_Since) && (!m_Before || file.modification < *m_Before) &&
               m_Pattern.Matches(entry.name);
    }

private:
    const FindArguments_t& m_Arguments;
    CNamePattern m_Pattern;
    std::optional<uint64_t> m_Since;
    std::optional<uint64_t> m_Before;
};

// Gives what fits of all that lies below the file's path, which the paths given begin with.
CZuError FindBelow(INtfsFiles& volume, const FindArguments_t& arguments, std::vector<std::string>& problems,
                   const TakeNtfsEntry_t& take) {
    NtfsFileInfo_t start;
    ZU_RETURN_IF_ERROR(volume.FindFile(arguments.Rest(0), start));
    if (!start.isDirectory)
        return Refusal(arguments.Rest(0) + ": is no directory");
    NtfsListing_t listing;
    listing.isRecursive = true;
    const CFilter filter(arguments);
    const CZuError error = volume.List(start.frn, listing, [&](const NtfsEntry_t& entry) {
        if (!entry.file.problem.empty())
            listing.problems.push_back(entry.path + ": " + entry.file.problem);
        return !filter.Takes(entry) || take(entry);
    });
    problems = std::move(listing.problems);
    if (error.IsErrorSet())
        problems.push_back(DescribeError(error));
    return CZuError();
}

CZuError FindAsJson(INtfsFiles& volume, const FindArguments_t& arguments, std::vector<std::string>& problems) {
    std::optional<CJsonListing> listing;
    const auto begin = [&] {
        if (!listing.has_value())
            listing.emplace(arguments.volume, arguments.Rest(0).empty() ? "/" : arguments.Rest(0));
    };
    ZU_RETURN_IF_ERROR(FindBelow(volume, arguments, problems, [&](const NtfsEntry_t& entry) {
        begin();
        listing->Put(entry);
        return true;
    }));
    begin();
    listing->End(problems);
    return CZuError();
}

int RunFind(const FindArguments_t& arguments) {
    std::vector<std::string> problems;
    const int exitCode = RunOnVolume(arguments, [&](INtfsFiles& volume) -> CZuError {
        if (arguments.output.json)
            return FindAsJson(volume, arguments, problems);
        return FindBelow(volume, arguments, problems, [&](const NtfsEntry_t& entry) {
            PrintEntry(entry, arguments.isLong);
            return true;
        });
    });
    return EndListing(exitCode, problems);
}

}  // namespace

void AddFindCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("find", "Find files of an NTFS volume by name, size or time");
    const auto arguments = std::make_shared<FindArguments_t>();
    AddFileArguments(*command, *arguments, FindWords);
    AddNameArgument(*command, "--name", arguments->pattern,
                    "Names to find: * stands for any characters, ? for one; case doesn't matter")
        ->type_name("PATTERN");
    AddBytesOption(*command, "--min-size", arguments->leastBytes, "Files of at least so many bytes");
    AddBytesOption(*command, "--max-size", arguments->mostBytes, "Files of at most so many bytes");
    for (const auto& [option, value, text] :
         {std::tuple("--changed-since", &arguments->changedSince, "Files changed at that time (UTC) or later"),
          std::tuple("--changed-before", &arguments->changedBefore, "Files changed before that time (UTC)")})
        command->add_option(option, *value, text)->type_name("TIME")->check(CLI::Validator(CheckTime, ""));
    command->add_option("--kind", arguments->type, "Only this kind: file, directory or link")
        ->type_name("KIND")
        ->check(CLI::IsMember({"file", "directory", "link"}));
    command->add_flag("-l,--long", arguments->isLong, "Print attributes, sizes and times of change (UTC) as well");
    command->add_flag("--json", arguments->output.json, "Print one JSON object");
    command->footer("Paths go from PATH on. Times are 2026-01-31 or 2026-01-31T12:00:00; sizes may have K, M, G or T\n"
                    "behind them.\n"
                    "Examples:\n"
                    "  diskstream find monday.dset --name '*.docx' --changed-since 2026-01-01\n"
                    "  diskstream find monday.dset --volume Volume1 /Users --min-size 100M -l\n"
                    "  diskstream find disk.vmdk --volume Volume1 --name 'ntuser*' --json");
    command->callback([arguments, &exitCode] {
        CheckFileArguments(*arguments, FindWords);
        exitCode = RunFind(*arguments);
    });
}
