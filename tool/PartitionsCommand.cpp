#include <algorithm>
#include <memory>

#include "agent/VolumeSet.h"
#include "tool/Commands.h"

namespace {

struct PartitionsArguments_t {
    std::vector<std::string> disks;
    ImageArguments_t imageArguments;
    OutputOptions_t output;
};

Json_t JsonOf(const PartitionInfo_t& partition) {
    Json_t object{{"number", partition.number}};
    if (!partition.name.empty())
        object["name"] = partition.name;
    if (partition.typeGuid.empty())
        object["type_id"] = partition.typeId;
    else
        object["type_guid"] = partition.typeGuid;
    object["type"] = partition.typeName;
    if (!partition.guid.empty())
        object["guid"] = partition.guid;
    object["start_sector"] = partition.startSector;
    object["sectors"] = partition.sectors;
    object["bytes"] = SectorsJson(partition.sectors);
    object["bootable"] = partition.isBootable;
    object["extended"] = partition.isExtended;
    object["logical"] = partition.isLogical;
    object["file_system"] = partition.fileSystem.empty() ? Json_t() : Json_t(partition.fileSystem);
    return object;
}

// Tables have logical partitions where the extended one stands; people look for numbers.
std::vector<PartitionInfo_t> ByNumber(std::vector<PartitionInfo_t> partitions) {
    std::stable_sort(
        partitions.begin(), partitions.end(),
        [](const PartitionInfo_t& left, const PartitionInfo_t& right) { return left.number < right.number; });
    return partitions;
}

Json_t JsonOf(const CWholeDisk& disk, const PartitionTable_t& table) {
    Json_t object{{"disk", disk.Path()}, {"scheme", SchemeName(table.scheme)}, {"sectors", disk.TotalSectors()}};
    if (!table.diskGuid.empty())
        object["guid"] = table.diskGuid;
    if (table.scheme == PartitionScheme_t::Mbr)
        object["signature"] = table.diskSignature;
    if (table.scheme == PartitionScheme_t::None)
        object["file_system"] = table.fileSystem.empty() ? Json_t() : Json_t(table.fileSystem);
    object["partitions"] = Json_t::array();
    for (const PartitionInfo_t& partition : ByNumber(table.partitions))
        object["partitions"].push_back(JsonOf(partition));
    return object;
}

std::vector<std::string> RowOf(const PartitionInfo_t& partition) {
    return {std::to_string(partition.number),
            partition.isBootable ? "*" : "",
            std::to_string(partition.startSector),
            std::to_string(partition.sectors),
            SectorsText(partition.sectors),
            partition.typeName,
            partition.fileSystem.empty() ? "-" : partition.fileSystem,
            partition.name.empty() ? "-" : partition.name,
            partition.guid.empty() ? "-" : partition.guid};
}

void PrintText(const CWholeDisk& disk, const PartitionTable_t& table) {
    std::string head = disk.Path() + ": " + SizeText(disk.TotalSectors() * 512) + ", ";
    if (table.scheme == PartitionScheme_t::None)
        head += "no partition table" + (table.fileSystem.empty() ? "" : ", " + table.fileSystem + " on the whole disk");
    else
        head += std::string(SchemeName(table.scheme)) + (table.diskGuid.empty() ? "" : " " + table.diskGuid);
    std::puts(Printable(head).c_str());
    if (table.scheme == PartitionScheme_t::None)
        return;
    std::vector<std::vector<std::string>> rows;
    for (const PartitionInfo_t& partition : ByNumber(table.partitions))
        rows.push_back(RowOf(partition));
    PrintTable({"Number", "Boot", "Start", "Sectors", "Size", "Type", "File system", "Name", "GUID"}, rows);
}

int Run(const PartitionsArguments_t& arguments) {
    CVolumeSet set;
    const CZuError error = OpenDisks(arguments.disks, arguments.imageArguments, set);
    if (error.IsErrorSet())
        return Fail(arguments.output, error);
    Json_t object{{"disks", Json_t::array()}};
    for (size_t index = 0; index < set.Disks().size(); ++index) {
        if (arguments.output.json)
            object["disks"].push_back(JsonOf(*set.Disks()[index], set.Tables()[index]));
        else
            PrintText(*set.Disks()[index], set.Tables()[index]);
    }
    if (arguments.output.json)
        PrintJson(object);
    return ExitSuccess;
}

}  // namespace

void AddPartitionsCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("partitions", "List the partitions of disks");
    const auto arguments = std::make_shared<PartitionsArguments_t>();
    AddDiskArguments(*command, arguments->disks, arguments->imageArguments);
    command->add_flag("--json", arguments->output.json, "Print one JSON object");
    command->footer("Examples:\n"
                    "  diskstream partitions disk.vmdk\n"
                    "  diskstream partitions --json /dev/sdb disk.vhd");
    command->callback([arguments, &exitCode] { exitCode = Run(*arguments); });
}
