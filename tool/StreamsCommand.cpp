#include <memory>

#include "tool/FilesOfVolume.h"

namespace {

const FileWords_t StreamsWords = {"PATH", 1, 1};

std::string KindOf(const NtfsStreamInfo_t& stream) {
    std::string kind = stream.isResident ? "in the record" : "";
    const auto add = [&kind](bool isIt, const char* word) {
        if (isIt)
            kind += (kind.empty() ? "" : ", ") + std::string(word);
    };
    add(stream.isCompressed, "compressed");
    add(stream.isSparse, "sparse");
    add(stream.isEncrypted, "encrypted");
    return kind;
}

Json_t StreamsJson(const std::string& path, const NtfsFileInfo_t& file) {
    Json_t object{{"path", path}, {"streams", Json_t::array()}};
    for (const NtfsStreamInfo_t& stream : file.streams)
        object["streams"].push_back({{"name", stream.name},
                                     {"bytes", stream.bytes},
                                     {"stored_bytes", stream.storedBytes},
                                     {"resident", stream.isResident},
                                     {"encrypted", stream.isEncrypted},
                                     {"compressed", stream.isCompressed},
                                     {"sparse", stream.isSparse}});
    return object;
}

int RunStreams(const FileArguments_t& arguments) {
    return RunOnFile(arguments, [&](INtfsFiles& /*volume*/, const NtfsFileInfo_t& file) {
        if (arguments.output.json) {
            PrintJson(StreamsJson(arguments.Rest(0), file));
            return CZuError();
        }
        std::vector<std::vector<std::string>> rows;
        for (const NtfsStreamInfo_t& stream : file.streams)
            rows.push_back({stream.name.empty() ? "(contents)" : Printable(stream.name), std::to_string(stream.bytes),
                            std::to_string(stream.storedBytes), KindOf(stream)});
        PrintTable({"Name", "Bytes", "On disk", "Kind"}, rows);
        return CZuError();
    });
}

}  // namespace

void AddStreamsCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("streams", "List the streams of a file of an NTFS volume");
    const auto arguments = std::make_shared<FileArguments_t>();
    AddFileArguments(*command, *arguments, StreamsWords);
    command->add_flag("--json", arguments->output.json, "Print one JSON object");
    command->footer("`diskstream cat --stream NAME` writes one of them.\n"
                    "Examples:\n"
                    "  diskstream streams disk.vmdk --volume Volume1 /setup.exe\n"
                    "  diskstream streams --json disk.vmdk --volume Volume1 '/$Extend/$UsnJrnl'");
    command->callback([arguments, &exitCode] {
        CheckFileArguments(*arguments, StreamsWords);
        exitCode = RunStreams(*arguments);
    });
}
