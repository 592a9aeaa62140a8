#include <memory>

#include "agent/ImageInfo.h"
#include "tool/Commands.h"

namespace {

struct InfoArguments_t {
    std::string image;
    ImageArguments_t imageArguments;
    OutputOptions_t output;
};

Json_t JsonOf(const ExtentInfo_t& info) {
    Json_t extent{{"file", info.extent.name},
                  {"type", DiskTypeName(info.extent.diskType)},
                  {"disk_bytes", info.extent.diskSectors * 512},
                  {"file_bytes", info.extent.fileBytes}};
    if (info.sparse.has_value()) {
        extent["grain_bytes"] = info.sparse->grainSectors * 512;
        extent["grains"] = info.sparse->grainCount;
        extent["can_be_made_again"] = info.sparse->canBeMadeAgain;
    }
    if (info.vhd.has_value()) {
        extent["unique_id"] = info.vhd->uniqueId;
        extent["creator"] = info.vhd->creator;
        extent["block_bytes"] = info.vhd->blockBytes;
        extent["blocks"] = info.vhd->blockCount;
        extent["table_entries"] = info.vhd->tableEntries;
    }
    if (info.ntfs.has_value()) {
        extent["cluster_bytes"] = info.ntfs->clusterBytes;
        extent["clusters"] = info.ntfs->clusterCount;
        extent["used_clusters"] = info.ntfs->usedClusters;
    }
    return extent;
}

Json_t JsonOf(const InfoArguments_t& arguments, const ImageInfo_t& info) {
    Json_t object{
        {"image", arguments.image}, {"type", DiskTypeName(info.diskType)}, {"disk_bytes", info.diskSectors * 512}};
    if (info.hasParent) {
        object["parent"] = info.parent.names.empty() ? "" : info.parent.names.front();
        object["parent_identity"] = info.parent.identity;
    }
    object["extents"] = Json_t::array();
    for (const ExtentInfo_t& extent : info.extents)
        object["extents"].push_back(JsonOf(extent));
    object["files"] = info.files;
    object["warnings"] = info.warnings;
    return object;
}

std::string ParentText(const ImageParent_t& parent) {
    const std::string name = parent.names.empty() ? "another image" : parent.names.front();
    return name + " (" + parent.identity + ")";
}

std::string ExtentText(const ExtentInfo_t& info) {
    std::string text = info.extent.name + ", " + DiskTypeName(info.extent.diskType) + ", " +
                       SizeText(info.extent.diskSectors * 512) + " of the disk in a file of " +
                       SizeText(info.extent.fileBytes);
    if (info.vhd.has_value() && info.vhd->blockBytes != 0)
        text += ", " + std::to_string(info.vhd->blockCount) + " of " + std::to_string(info.vhd->tableEntries) +
                " blocks of " + SizeText(info.vhd->blockBytes);
    if (info.ntfs.has_value())
        text += ", " + std::to_string(info.ntfs->usedClusters) + " of " + std::to_string(info.ntfs->clusterCount) +
                " clusters of " + SizeText(info.ntfs->clusterBytes) + " in use";
    if (!info.sparse.has_value())
        return text;
    text += ", " + std::to_string(info.sparse->grainCount) + " grains of " + SizeText(info.sparse->grainSectors * 512);
    if (!info.sparse->canBeMadeAgain)
        text += "; a backup of it can be restored with --as raw only";
    return text;
}

void PrintText(const InfoArguments_t& arguments, const ImageInfo_t& info) {
    std::vector<std::pair<std::string, std::string>> facts{
        {"Image", arguments.image},
        {"Type", DiskTypeName(info.diskType)},
        {"Disk size", SizeText(info.diskSectors * 512) + " (" + std::to_string(info.diskSectors) + " sectors)"}};
    if (info.hasParent)
        facts.emplace_back("Parent", ParentText(info.parent));
    for (const std::string& file : info.files)
        facts.emplace_back("File", file);
    for (const ExtentInfo_t& extent : info.extents)
        facts.emplace_back("Extent", ExtentText(extent));
    PrintFacts(facts);
}

int Run(const InfoArguments_t& arguments) {
    ImageInfo_t info;
    const CZuError error = DescribeImage(arguments.image, arguments.imageArguments.Options(), info);
    if (error.IsErrorSet())
        return Fail(arguments.output, error);
    if (arguments.output.json)
        PrintJson(JsonOf(arguments, info));
    else
        PrintText(arguments, info);
    PrintWarnings(info.warnings);
    return ExitSuccess;
}

}  // namespace

void AddInfoCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("info", "Tell what a disk image is");
    const auto arguments = std::make_shared<InfoArguments_t>();
    AddNameArgument(*command, "IMAGE", arguments->image, "Disk image, or its descriptor")->required();
    AddImageArguments(*command, arguments->imageArguments);
    command->add_flag("--json", arguments->output.json, "Print one JSON object");
    command->footer("Examples:\n"
                    "  diskstream info disk.vmdk\n"
                    "  diskstream info --type ntfs-volume /dev/sdb1");
    command->callback([arguments, &exitCode] { exitCode = Run(*arguments); });
}
