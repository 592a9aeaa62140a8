#include <cstdio>
#include <memory>

#include "agent/ErrorText.h"
#include "agent/NtfsTime.h"
#include "tool/FilesOfVolume.h"

namespace {

struct LsArguments_t : FileArguments_t {
    bool isRecursive = false;
    bool isLong = false;
    bool withMetadata = false;
};

const FileWords_t LsWords = {"[PATH]", 0, 1};

// One line, put together by hand: a listing has many.
std::string LineOf(const LsArguments_t& arguments, const NtfsEntry_t& entry) {
    std::string line;
    if (arguments.isLong) {
        constexpr size_t sizeWidth = 15;
        const std::string size = std::to_string(entry.file.bytes);
        const std::string time = NtfsTimeText(entry.file.modification);
        line = AttributeLetters(entry.file);
        line.append(size.size() < sizeWidth ? sizeWidth - size.size() : 1, ' ').append(size).append("  ");
        if (time.empty())
            line.append("-                  ");
        else
            line.append(time, 0, 10).append(1, ' ').append(time, 11, 8);
        line.append("  ");
    }
    line += Printable(entry.path);
    line += entry.file.isDirectory ? "/\n" : "\n";
    return line;
}

void PrintEntry(const LsArguments_t& arguments, const NtfsEntry_t& entry) {
    const std::string line = LineOf(arguments, entry);
    std::fwrite(line.data(), 1, line.size(), stdout);  // a failure is told of at the end
}

// An object of many thousand files goes out file by file.
class CJsonListing {
public:
    CJsonListing(const std::string& volume, const std::string& path) {
        Json_t head{{"volume", volume}, {"path", path}};
        std::string text = head.dump(-1, ' ', false, Json_t::error_handler_t::replace);
        text.pop_back();
        std::printf("%s,\"entries\":[", text.c_str());
    }
    CJsonListing(const CJsonListing&) = delete;
    CJsonListing& operator=(const CJsonListing&) = delete;

    void Put(const NtfsEntry_t& entry) {
        Json_t object{{"path", entry.path}};
        PutFileFacts(entry.file, object);
        std::printf("%s\n%s", m_IsFirst ? "" : ",",
                    object.dump(-1, ' ', false, Json_t::error_handler_t::replace).c_str());
        m_IsFirst = false;
    }

    void End(const std::vector<std::string>& problems) {
        std::printf("],\n\"problems\":%s}\n",
                    Json_t(problems).dump(-1, ' ', false, Json_t::error_handler_t::replace).c_str());
    }

private:
    bool m_IsFirst = true;
};

// What can't be read of a directory or of a file is told at the end, and is a failure.
std::vector<std::string> List(const LsArguments_t& arguments, CNtfsVolume& volume, const NtfsFileInfo_t& file,
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

std::vector<std::string> ListAsJson(const LsArguments_t& arguments, CNtfsVolume& volume, const NtfsFileInfo_t& file) {
    CJsonListing listing(arguments.volume, arguments.Rest(0).empty() ? "/" : arguments.Rest(0));
    const std::vector<std::string> problems = List(arguments, volume, file, [&](const NtfsEntry_t& entry) {
        listing.Put(entry);
        return true;
    });
    listing.End(problems);
    return problems;
}

std::vector<std::string> ListAsText(const LsArguments_t& arguments, CNtfsVolume& volume, const NtfsFileInfo_t& file) {
    return List(arguments, volume, file, [&](const NtfsEntry_t& entry) {
        PrintEntry(arguments, entry);
        return true;
    });
}

// The problems are told of when the listing is out, which holds them in JSON.
int RunLs(const LsArguments_t& arguments) {
    std::vector<std::string> problems;
    const int exitCode = RunOnFile(arguments, [&](CNtfsVolume& volume, const NtfsFileInfo_t& file) {
        problems = arguments.output.json ? ListAsJson(arguments, volume, file) : ListAsText(arguments, volume, file);
        return CZuError();
    });
    if (problems.empty())
        return exitCode;
    PrintWarnings(problems);
    PrintComplaint("the listing isn't whole: some of it can't be read");
    return ExitFailure;
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
                    "  diskstream ls disk.vmdk --volume Volume1 /Users\n"
                    "  diskstream ls -r -l disk.vmdk --volume Volume1\n"
                    "  diskstream ls --json one.vhd two.vhd --volume Volume3 'Program Files'");
    command->callback([arguments, &exitCode] {
        CheckFileArguments(*arguments, LsWords);
        exitCode = RunLs(*arguments);
    });
}
