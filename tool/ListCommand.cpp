#include <memory>

#include "agent/BackupSetReader.h"
#include "tool/Commands.h"

namespace {

struct ListArguments_t {
    std::string set;
    OutputOptions_t output;
};

using Facts_t = std::vector<std::pair<std::string, std::string>>;

bool HasSeveralDisks(const CBackupSetReader& set) {
    return set.Disks().size() > 1;
}

std::string NumberOf(int64_t disk) {
    return std::to_string(disk + 1);
}

void PutDisk(const SetDisk_t& disk, Json_t& object) {
    object["image"] = disk.imageName;
    object["type"] = DiskTypeName(disk.diskType);
    object["disk_bytes"] = SectorsJson(disk.diskSectors);
    if (disk.hasParent)
        object["parent"] = disk.parentName;
}

Json_t DisksJson(const CBackupSetReader& set) {
    Json_t array = Json_t::array();
    for (const SetDisk_t& disk : set.Disks()) {
        Json_t object{{"number", disk.id + 1}};
        PutDisk(disk, object);
        array.push_back(object);
    }
    return array;
}

Json_t StreamsJson(const CBackupSetReader& set) {
    Json_t array = Json_t::array();
    for (const SetStream_t& stream : set.Streams())
        array.push_back({{"disk", stream.disk + 1},
                         {"file", stream.fileName},
                         {"type", DiskTypeName(stream.diskType)},
                         {"block_bytes", uint64_t{stream.blockSectors} * 512},
                         {"disk_bytes", stream.diskSectors * 512},
                         {"blocks", stream.blockCount},
                         {"stored_bytes", stream.storedBytes}});
    return array;
}

Json_t FilesJson(const CBackupSetReader& set) {
    Json_t array = Json_t::array();
    for (const SetFile_t& file : set.Files())
        array.push_back({{"disk", file.disk + 1}, {"file", file.name}, {"bytes", file.bytes.size()}});
    return array;
}

void PutCatalogue(const CBackupSetReader& set, Json_t& object) {
    for (const SetVolume_t& volume : set.Volumes())
        object["volumes"].push_back({{"volume", volume.name}, {"entries", volume.entryCount}});
    for (const SetPart_t& part : set.Parts()) {
        if (!IsListOfBlocks(part))
            object["parts"].push_back({{"part", part.name}, {"bytes", part.bytes}});
    }
}

void PutBase(const CBackupSetReader& set, Json_t& object) {
    object["identity"] = IdentityText(set.Identity());
    const std::optional<SetBase_t>& base = set.Info().base;
    if (base.has_value())
        object["base"] = {
            {"set", base->name}, {"identity", IdentityText(base->identity)}, {"changed_since", base->changedSince}};
}

// A set of one disk tells of it at the top, too.
Json_t JsonOf(const CBackupSetReader& set) {
    Json_t object{{"set", set.Path()}};
    if (!HasSeveralDisks(set))
        PutDisk(set.Disks().front(), object);
    object["created"] = set.Info().createdUtc;
    object["writer"] = set.Info().writer;
    PutBase(set, object);
    object["disks"] = DisksJson(set);
    object["streams"] = StreamsJson(set);
    object["files"] = FilesJson(set);
    PutCatalogue(set, object);
    return object;
}

std::string ParentText(const SetDisk_t& disk) {
    return disk.parentName.empty() ? "another image" : disk.parentName;
}

void AddExtents(const CBackupSetReader& set, const SetDisk_t& disk, Facts_t& facts) {
    for (const SetFile_t& file : set.FilesOf(disk.id))
        facts.emplace_back("File", file.name + ", " + SizeText(file.bytes.size()));
    for (const SetStream_t& stream : set.StreamsOf(disk.id))
        facts.emplace_back("Stream", stream.fileName + ", " + DiskTypeName(stream.diskType) + ", " +
                                         std::to_string(stream.blockCount) + " blocks of " +
                                         SizeText(uint64_t{stream.blockSectors} * 512) + ", stored in " +
                                         SizeText(stream.storedBytes));
}

void AddOnlyDisk(const CBackupSetReader& set, Facts_t& facts) {
    const SetDisk_t& disk = set.Disks().front();
    facts.emplace_back("Image", disk.imageName);
    facts.emplace_back("Type", DiskTypeName(disk.diskType));
    facts.emplace_back("Disk size", SectorsText(disk.diskSectors));
    facts.emplace_back("Created", set.Info().createdUtc + " by " + set.Info().writer);
    if (disk.hasParent)
        facts.emplace_back("Parent", ParentText(disk));
    AddExtents(set, disk, facts);
}

void AddDisks(const CBackupSetReader& set, Facts_t& facts) {
    facts.emplace_back("Created", set.Info().createdUtc + " by " + set.Info().writer);
    for (const SetDisk_t& disk : set.Disks()) {
        facts.emplace_back("Disk " + NumberOf(disk.id), disk.imageName + ", " + DiskTypeName(disk.diskType) + ", " +
                                                            SectorsText(disk.diskSectors) +
                                                            (disk.hasParent ? ", builds on " + ParentText(disk) : ""));
        AddExtents(set, disk, facts);
    }
}

void PrintText(const CBackupSetReader& set) {
    Facts_t facts{{"Set", set.Path()}};
    if (set.Info().base.has_value())
        facts.emplace_back("Builds on", set.Info().base->name + " (" + IdentityText(set.Info().base->identity) +
                                            "), what changed since " + set.Info().base->changedSince);
    if (HasSeveralDisks(set))
        AddDisks(set, facts);
    else
        AddOnlyDisk(set, facts);
    for (const SetVolume_t& volume : set.Volumes())
        facts.emplace_back("Volume", volume.name + ", " + std::to_string(volume.entryCount) + " entries");
    for (const SetPart_t& part : set.Parts()) {
        if (!IsListOfBlocks(part))
            facts.emplace_back("Part", part.name + ", " + SizeText(part.bytes));
    }
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
