#include <algorithm>
#include <memory>

#include "agent/VolumeSet.h"
#include "tool/Commands.h"

namespace {

struct Arguments_t {
    std::vector<std::string> disks;
    ImageArguments_t imageArguments;
    OutputOptions_t output;
};

// The disks that a volume lies on, each once, in its order.
std::vector<std::string> DisksOf(const CVolumeSet& set, const VolumeInfo_t& volume) {
    std::vector<std::string> disks;
    for (const LVM_Segment_t& segment : volume.layout.Segments) {
        for (const LVM_Component_t& component : segment.Components) {
            const bool isThere = component.HardDiskIndex < set.Disks().size();
            const std::string name = isThere ? set.Disks()[component.HardDiskIndex]->Path() : "a missing disk";
            if (std::find(disks.begin(), disks.end(), name) == disks.end())
                disks.push_back(name);
        }
    }
    return disks;
}

Json_t JsonOf(const CVolumeSet& set, const VolumeInfo_t& volume) {
    Json_t object{{"name", volume.name}, {"scheme", SchemeName(volume.scheme)}};
    if (volume.partition != 0)
        object["partition"] = volume.partition;
    object["type"] = volume.typeName;
    if (!volume.label.empty())
        object["label"] = volume.label;
    if (!volume.guid.empty())
        object["guid"] = volume.guid;
    object["start_sector"] = volume.startSector;
    object["sectors"] = volume.sectors;
    object["bytes"] = SectorsJson(volume.sectors);
    object["file_system"] = volume.fileSystem.empty() ? Json_t() : Json_t(volume.fileSystem);
    object["disks"] = DisksOf(set, volume);
    return object;
}

std::string Joined(const std::vector<std::string>& texts) {
    std::string joined;
    for (const std::string& text : texts)
        joined += (joined.empty() ? "" : ", ") + text;
    return joined;
}

std::vector<std::string> RowOf(const CVolumeSet& set, const VolumeInfo_t& volume) {
    return {volume.name,
            SchemeName(volume.scheme),
            volume.typeName,
            std::to_string(volume.startSector),
            SectorsText(volume.sectors),
            volume.fileSystem.empty() ? "-" : volume.fileSystem,
            volume.guid.empty() ? "-" : volume.guid,
            Joined(DisksOf(set, volume))};
}

int Run(const Arguments_t& arguments) {
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
    PrintTable({"Name", "Scheme", "Type", "Start", "Size", "File system", "GUID", "Disks"}, rows);
    return ExitSuccess;
}

}  // namespace

void AddVolumesCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("volumes", "List the volumes on disks");
    const auto arguments = std::make_shared<Arguments_t>();
    AddDiskArguments(*command, arguments->disks, arguments->imageArguments);
    command->add_flag("--json", arguments->output.json, "Print one JSON object");
    command->footer("Examples:\n"
                    "  diskstream volumes disk.vmdk\n"
                    "  diskstream volumes --json one.vhd two.vhd");
    command->callback([arguments, &exitCode] { exitCode = Run(*arguments); });
}
