#include <algorithm>
#include <memory>

#include "agent/VolumeSet.h"
#include "tool/Commands.h"

namespace {

struct VolumesArguments_t {
    std::vector<std::string> disks;
    ImageArguments_t imageArguments;
    OutputOptions_t output;
};

// The disks of those given that a volume lies on, each once, in its order.
std::vector<std::string> DisksOf(const CVolumeSet& set, const VolumeInfo_t& volume) {
    std::vector<std::string> disks;
    const auto addDisksOf = [&](const LVM_Volume_t& layout) {
        for (const LVM_Segment_t& segment : layout.Segments) {
            for (const LVM_Component_t& component : segment.Components) {
                if (component.HardDiskIndex >= set.Disks().size())
                    continue;
                const std::string& path = set.Disks()[component.HardDiskIndex]->Path();
                if (std::find(disks.begin(), disks.end(), path) == disks.end())
                    disks.push_back(path);
            }
        }
    };
    addDisksOf(volume.layout);
    std::for_each(volume.mirrors.begin(), volume.mirrors.end(), addDisksOf);
    return disks;
}

std::string TextOf(const MissingDisk_t& disk) {
    return "missing " + disk.id + (disk.name.empty() ? "" : " (" + disk.name + ")");
}

Json_t JsonOf(const CVolumeSet& set, const VolumeInfo_t& volume) {
    Json_t object{{"name", volume.name}, {"scheme", SchemeName(volume)}};
    if (volume.partition != 0)
        object["partition"] = volume.partition;
    object["type"] = volume.typeName;
    if (!volume.label.empty())
        object["label"] = volume.label;
    if (!volume.group.empty())
        object["group"] = volume.group;
    if (!volume.guid.empty())
        object[volume.manager == VolumeManager_t::Lvm2 ? "id" : "guid"] = volume.guid;
    if (volume.isInternal)
        object["internal"] = true;
    if (volume.manager == VolumeManager_t::None)
        object["start_sector"] = volume.startSector;
    object["sectors"] = volume.sectors;
    object["bytes"] = SectorsJson(volume.sectors);
    object["file_system"] = volume.fileSystem.empty() ? Json_t() : Json_t(volume.fileSystem);
    object["disks"] = DisksOf(set, volume);
    object["missing_disks"] = Json_t::array();
    for (const MissingDisk_t& disk : volume.missing)
        object["missing_disks"].push_back({{"id", disk.id}, {"name", disk.name}});
    object["readable"] = volume.problem.empty();
    if (!volume.problem.empty())
        object["problem"] = volume.problem;
    return object;
}

std::string Joined(const std::vector<std::string>& texts) {
    std::string joined;
    for (const std::string& text : texts)
        joined += (joined.empty() ? "" : ", ") + text;
    return joined;
}

std::vector<std::string> RowOf(const CVolumeSet& set, const VolumeInfo_t& volume) {
    std::vector<std::string> disks = DisksOf(set, volume);
    for (const MissingDisk_t& disk : volume.missing)
        disks.push_back(TextOf(disk));
    return {volume.name,
            SchemeName(volume),
            volume.typeName + (volume.isInternal ? ", internal" : ""),
            volume.manager == VolumeManager_t::None ? std::to_string(volume.startSector) : "-",
            SectorsText(volume.sectors),
            volume.fileSystem.empty() ? "-" : volume.fileSystem,
            volume.guid.empty() ? "-" : volume.guid,
            Joined(disks)};
}

// What can't be read is said, and why.
void PrintProblems(const CVolumeSet& set) {
    std::vector<std::string> problems;
    for (const VolumeInfo_t& volume : set.Volumes()) {
        if (!volume.problem.empty())
            problems.push_back(volume.name + " can't be read: " + volume.problem);
    }
    PrintWarnings(problems);
}

int Run(const VolumesArguments_t& arguments) {
    CVolumeSet set;
    const CZuError error = OpenDisks(arguments.disks, arguments.imageArguments, set);
    if (error.IsErrorSet())
        return Fail(arguments.output, error);
    if (arguments.output.json) {
        Json_t object{{"volumes", Json_t::array()}};
        for (const VolumeInfo_t& volume : set.Volumes())
            object["volumes"].push_back(JsonOf(set, volume));
        PrintJson(object);
        return ExitSuccess;
    }
    std::vector<std::vector<std::string>> rows;
    for (const VolumeInfo_t& volume : set.Volumes())
        rows.push_back(RowOf(set, volume));
    PrintProblems(set);
    PrintTable({"Name", "Scheme", "Type", "Start", "Size", "File system", "GUID", "Disks"}, rows);
    return ExitSuccess;
}

}  // namespace

void AddVolumesCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("volumes", "List the volumes on disks");
    const auto arguments = std::make_shared<VolumesArguments_t>();
    AddDiskArguments(*command, arguments->disks, arguments->imageArguments);
    command->add_flag("--json", arguments->output.json, "Print one JSON object");
    command->footer("Examples:\n"
                    "  diskstream volumes disk.vmdk\n"
                    "  diskstream volumes --json one.vhd two.vhd\n"
                    "  diskstream volumes /dev/sdb /dev/sdc    (dynamic disks, or LVM2 physical volumes)");
    command->callback([arguments, &exitCode] { exitCode = Run(*arguments); });
}
