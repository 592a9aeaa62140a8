#include "agent/detail/PartitionTypeNames.h"

#include <algorithm>
#include <cstdio>

#include "VirtualServer/VMInfo/UtilityFunctions.h"

namespace {

struct MbrType_t {
    uint8_t id;
    const char* name;
};

constexpr MbrType_t MbrTypes[] = {
    {0x01, "FAT12"},
    {0x04, "FAT16 <32M"},
    {0x05, "Extended"},
    {0x06, "FAT16"},
    {0x07, "NTFS/exFAT"},
    {0x0B, "FAT32"},
    {0x0C, "FAT32 (LBA)"},
    {0x0E, "FAT16 (LBA)"},
    {0x0F, "Extended (LBA)"},
    {0x11, "Hidden FAT12"},
    {0x14, "Hidden FAT16 <32M"},
    {0x16, "Hidden FAT16"},
    {0x17, "Hidden NTFS"},
    {0x1B, "Hidden FAT32"},
    {0x1C, "Hidden FAT32 (LBA)"},
    {0x1E, "Hidden FAT16 (LBA)"},
    {0x27, "Windows recovery"},
    {0x39, "Plan 9"},
    {0x42, "Windows dynamic disk"},
    {0x63, "Unix System V"},
    {0x82, "Linux swap"},
    {0x83, "Linux"},
    {0x85, "Linux extended"},
    {0x8E, "Linux LVM"},
    {0xA5, "FreeBSD"},
    {0xA6, "OpenBSD"},
    {0xA8, "Darwin UFS"},
    {0xA9, "NetBSD"},
    {0xAF, "HFS/HFS+"},
    {0xBE, "Solaris boot"},
    {0xBF, "Solaris"},
    {0xEB, "BeOS file system"},
    {0xEE, "GPT protective"},
    {0xEF, "EFI system"},
    {0xFB, "VMFS"},
    {0xFC, "VMkernel core"},
    {0xFD, "Linux RAID"},
};

struct GptType_t {
    const char* guid;
    const char* name;
};

constexpr GptType_t GptTypes[] = {
    {"{C12A7328-F81F-11D2-BA4B-00A0C93EC93B}", "EFI system"},
    {"{21686148-6449-6E6F-744E-656564454649}", "BIOS boot"},
    {"{E3C9E316-0B5C-4DB8-817D-F92DF00215AE}", "Microsoft reserved"},
    {"{EBD0A0A2-B9E5-4433-87C0-68B6B72699C7}", "Basic data"},
    {"{5808C8AA-7E8F-42E0-85D2-E1E90434CFB3}", "Windows LDM metadata"},
    {"{AF9B60A0-1431-4F62-BC68-3311714A69AD}", "Windows LDM data"},
    {"{DE94BBA4-06D1-4D40-A16A-BFD50179D6AC}", "Windows recovery"},
    {"{E75CAF8F-F680-4CEE-AFA3-B001E56EFC2D}", "Windows storage spaces"},
    {"{0FC63DAF-8483-4772-8E79-3D69D8477DE4}", "Linux"},
    {"{0657FD6D-A4AB-43C4-84E5-0933C84B4F4F}", "Linux swap"},
    {"{E6D6D379-F507-44C2-A23C-238F2A3DF928}", "Linux LVM"},
    {"{A19D880F-05FC-4D3B-A006-743F0F84911E}", "Linux RAID"},
    {"{4F68BCE3-E8CD-4DB1-96E7-FBCAF984B709}", "Linux root (x86-64)"},
    {"{44479540-F297-41B2-9AF7-D131D5F0458A}", "Linux root (x86)"},
    {"{933AC7E1-2EB4-4F13-B844-0E14E2AEF915}", "Linux home"},
    {"{3B8F8425-20E0-4F3B-907F-1A25A76F98E8}", "Linux server data"},
    {"{BC13C2FF-59E6-4262-A352-B275FD6F7172}", "Linux extended boot"},
    {"{CA7D7CCB-63ED-4C53-861C-1742536059CC}", "Linux LUKS"},
    {"{48465300-0000-11AA-AA11-00306543ECAC}", "HFS+"},
    {"{7C3457EF-0000-11AA-AA11-00306543ECAC}", "APFS"},
    {"{516E7CB4-6ECF-11D6-8FF8-00022D09712B}", "FreeBSD data"},
    {"{516E7CB6-6ECF-11D6-8FF8-00022D09712B}", "FreeBSD UFS"},
    {"{516E7CBA-6ECF-11D6-8FF8-00022D09712B}", "FreeBSD ZFS"},
    {"{6A898CC3-1DD2-11B2-99A6-080020736631}", "ZFS"},
    {"{AA31E02A-400F-11DB-9590-000C2911D1B8}", "VMFS"},
};

}  // namespace

std::string MbrTypeName(uint8_t typeId) {
    const auto* const row = std::find_if(std::begin(MbrTypes), std::end(MbrTypes),
                                         [&](const MbrType_t& each) { return each.id == typeId; });
    if (row != std::end(MbrTypes))
        return row->name;
    char text[16];
    std::snprintf(text, sizeof(text), "type 0x%02X", typeId);
    return text;
}

std::string GptTypeName(const GUID& type) {
    const CZuString text = FormatGuidText(type);
    const auto* const row = std::find_if(std::begin(GptTypes), std::end(GptTypes),
                                         [&](const GptType_t& each) { return text == each.guid; });
    return row != std::end(GptTypes) ? row->name : std::string("type ") + text.c_str();
}
