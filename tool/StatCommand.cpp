#include <cstdio>
#include <memory>

#include "agent/NtfsTime.h"
#include "tool/FilesOfVolume.h"

namespace {

const FileWords_t StatWords = {"PATH", 1, 1};

std::string TimeFact(uint64_t time) {
    const std::string text = NtfsTimeText(time);
    return text.empty() ? "unknown" : text;
}

void PrintFile(const std::string& path, const NtfsFileInfo_t& file) {
    std::vector<std::pair<std::string, std::string>> facts = {
        {"Path", Printable(path)},
        {"Type", FileKind(file)},
        {"Size", SizeText(file.bytes) + " (" + std::to_string(file.bytes) + " bytes)"},
        {"Attributes", AttributeLetters(file)},
        {"Created", TimeFact(file.creation)},
        {"Changed", TimeFact(file.modification)},
        {"Record changed", TimeFact(file.recordChange)},
        {"Accessed", TimeFact(file.access)},
        {"File record", std::to_string(file.frn)},
        {"Names", std::to_string(file.links)},
        {"Streams", std::to_string(file.streams.size())},
        {"Security id", std::to_string(file.securityId)},
    };
    if (file.reparseTag != 0) {
        char tag[16];
        std::snprintf(tag, sizeof(tag), "0x%08X", file.reparseTag);
        facts.emplace_back("Reparse point", tag);
    }
    PrintFacts(facts);
}

Json_t StatJson(const std::string& path, const NtfsFileInfo_t& file) {
    Json_t object{{"path", path}};
    PutFileFacts(file, object);
    object["security_id"] = file.securityId;
    object["streams"] = file.streams.size();
    return object;
}

int RunStat(const FileArguments_t& arguments) {
    return RunOnFile(arguments, [&](INtfsFiles& /*volume*/, const NtfsFileInfo_t& file) {
        if (arguments.output.json)
            PrintJson(StatJson(arguments.Rest(0), file));
        else
            PrintFile(arguments.Rest(0), file);
        return CZuError();
    });
}

}  // namespace

void AddStatCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("stat", "Tell about one file of an NTFS volume");
    const auto arguments = std::make_shared<FileArguments_t>();
    AddFileArguments(*command, *arguments, StatWords);
    command->add_flag("--json", arguments->output.json, "Print one JSON object");
    command->footer("Examples:\n"
                    "  diskstream stat monday.dset /Users/me/letter.txt\n"
                    "  diskstream stat disk.vmdk --volume Volume1 /Users/me/letter.txt\n"
                    "  diskstream stat --json disk.vmdk --volume Volume1 /");
    command->callback([arguments, &exitCode] {
        CheckFileArguments(*arguments, StatWords);
        exitCode = RunStat(*arguments);
    });
}
