#include <memory>

#include "agent/BackupSetReader.h"
#include "tool/Commands.h"

namespace {

struct ListArguments_t {
    std::string set;
    OutputOptions_t output;
};

Json_t JsonOf(const CBackupSetReader& set) {
    const SetInfo_t& info = set.Info();
    const SetDisk_t& disk = set.Disks().front();
    Json_t object{{"set", set.Path()},
                  {"image", disk.imageName},
                  {"type", DiskTypeName(disk.diskType)},
                  {"disk_bytes", disk.diskSectors * 512},
                  {"created", info.createdUtc},
                  {"writer", info.writer}};
    if (disk.hasParent)
        object["parent"] = disk.parentName;
    object["streams"] = Json_t::array();
    for (const SetStream_t& stream : set.Streams())
        object["streams"].push_back({{"file", stream.fileName},
                                     {"type", DiskTypeName(stream.diskType)},
                                     {"block_bytes", uint64_t{stream.blockSectors} * 512},
                                     {"disk_bytes", stream.diskSectors * 512},
                                     {"blocks", stream.blockCount},
                                     {"stored_bytes", stream.storedBytes}});
    object["files"] = Json_t::array();
    for (const SetFile_t& file : set.Files())
        object["files"].push_back({{"file", file.name}, {"bytes", file.bytes.size()}});
    return object;
}

void PrintText(const CBackupSetReader& set) {
    const SetInfo_t& info = set.Info();
    const SetDisk_t& disk = set.Disks().front();
    std::vector<std::pair<std::string, std::string>> facts{{"Set", set.Path()},
                                                           {"Image", disk.imageName},
                                                           {"Type", DiskTypeName(disk.diskType)},
                                                           {"Disk size", SizeText(disk.diskSectors * 512)},
                                                           {"Created", info.createdUtc + " by " + info.writer}};
    if (disk.hasParent)
        facts.emplace_back("Parent", disk.parentName.empty() ? "another image" : disk.parentName);
    for (const SetFile_t& file : set.Files())
        facts.emplace_back("File", file.name + ", " + SizeText(file.bytes.size()));
    for (const SetStream_t& stream : set.Streams())
        facts.emplace_back("Stream", stream.fileName + ", " + DiskTypeName(stream.diskType) + ", " +
                                         std::to_string(stream.blockCount) + " blocks of " +
                                         SizeText(uint64_t{stream.blockSectors} * 512) + ", stored in " +
                                         SizeText(stream.storedBytes));
    PrintFacts(facts);
}

int Run(const ListArguments_t& arguments) {
    CBackupSetReader set;
    const CZuError error = set.Open(arguments.set);
    if (error.IsErrorSet())
        return Fail(arguments.output, error);
    if (arguments.output.json)
        PrintJson(JsonOf(set));
    else
        PrintText(set);
    return ExitSuccess;
}

}  // namespace

void AddListCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("list", "Tell what a backup set holds");
    const auto arguments = std::make_shared<ListArguments_t>();
    AddNameArgument(*command, "SET", arguments->set, "Backup set")->required();
    command->add_flag("--json", arguments->output.json, "Print one JSON object");
    command->footer("Example:\n  diskstream list monday.dset");
    command->callback([arguments, &exitCode] { exitCode = Run(*arguments); });
}
