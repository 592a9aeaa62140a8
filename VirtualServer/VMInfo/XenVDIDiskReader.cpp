#include "VirtualServer/VMInfo/XenVDIDiskReader.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <limits>
#include <list>
#include <map>
#include <thread>

#include "VirtualServer/VMInfo/IVMInfo.h"
#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "foundation/LgDebug.h"
#include "foundation/ZuFile.h"
#include "foundation/ZuPath.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/FileSystem.h"

namespace {

constexpr char BehindDataStore = 18;
constexpr char MapSeparator[] = ":::>";

constexpr char NotInExpectedFormat[] =
    "OpenDisk() failed. Not in expected format. Expected format=\"<VDIGUID>#\\\\?\\PhysicalDriveX\"";

constexpr int WriteTries = 30;
constexpr unsigned int WaitMilliseconds = 2000;
constexpr unsigned int DeviceNotThere = 2;
constexpr unsigned int DeviceNotReady = 21;

constexpr int NoServer = -1;        // the answer of a server that isn't there
constexpr int OwnerMayWrite = 128;  // of a configuration file

using MapOfTexts_t = std::map<std::string, std::string>;
using ListOfTexts_t = std::list<std::string>;

ListOfTexts_t ListOf(const MapOfTexts_t& map) {
    ListOfTexts_t list;
    for (const auto& [key, value] : map)
        list.emplace_back(key).append(MapSeparator).append(value);
    return list;
}

// An entry without a separator is a key alone.
MapOfTexts_t MapOf(const ListOfTexts_t& list) {
    constexpr size_t separatorBytes = sizeof(MapSeparator) - 1;
    MapOfTexts_t map;
    for (const std::string& entry : list) {
        const size_t separator = entry.find(MapSeparator);
        const bool isPair = separator != std::string::npos;
        map[entry.substr(0, separator)] = isPair ? entry.substr(separator + separatorBytes) : std::string();
    }
    return map;
}

// What `atoi` makes of a text; a number beyond its range, for which `atoi` promises nothing, becomes the nearest in it.
int IntegerOf(const std::string& text) {
    const long long number = std::strtoll(text.c_str(), nullptr, 10);
    return static_cast<int>(
        std::clamp<long long>(number, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

VirtualServer::XenVDIRecord MessageOf(const xen_vdi_record& record) {
    VirtualServer::XenVDIRecord message;
    message.SetUuid(record.uuid);
    message.SetName_label(record.name_label);
    message.SetName_description(record.name_description);
    message.SetSr_guid(record.sr_guid);
    message.SetVbdguids(record.vbd_guids);
    message.SetVirtual_size(record.virtual_size);
    message.SetPhysical_utilisation(record.physical_utilisation);
    message.SetType(std::to_string(record.type));
    message.SetSharable(record.sharable);
    message.SetRead_only(record.read_only);
    message.SetOther_config(ListOf(record.other_config));
    message.SetStorage_lock(record.storage_lock);
    message.SetLocation(record.location);
    message.SetManaged(record.managed);
    message.SetMissing(record.missing);
    message.SetParentvdiguid(record.parent_vdi_guid);
    message.SetXenstore_data(ListOf(record.xenstore_data));
    message.SetSm_config(ListOf(record.sm_config));
    message.SetIs_a_snapshot(record.is_a_snapshot);
    message.SetSnapshot_of_guid(record.snapshot_of_guid);
    message.SetSnapshotguids(record.snapshot_guids);
    message.SetSnapshot_time(record.snapshot_time);
    message.SetTags(record.tags);
    return message;
}

CZuError RefusalWithCode(const char* text, eXmlMsgRet code) {
    char number[16];
    std::snprintf(number, sizeof(number), "%x", static_cast<unsigned int>(code));
    return Refusal(CZuString(text) + " Code [0x" + number + "]");
}

// The identifier becomes a file's name, so that one that would lead out of the directory is no sound one.
bool IsFileName(const std::string& identifier) {
    constexpr std::string_view outside("/\\\0", 3);
    return identifier.find_first_of(outside) == std::string::npos && identifier.find("..") == std::string::npos;
}

CZuError ReadRecordMessage(CAutoMemory<char>& metadata, std::string& text, VirtualServer::XenVDIRecord& message) {
    text.assign(metadata.GetPtr(), metadata.GetSize());
    text.resize(std::min(text.find('\0'), text.size()));
    LgDebug().DebugLvl("CXenVDIDiskReader::CreateDisk", 2, "XML-char: [%s]", text.c_str());
    LgDebug().DebugLvl("CXenVDIDiskReader::CreateDisk", 2, "XML-string: [%s]", text.c_str());
    eXmlMsgRet code = message.unserialize(text);
    if (code == XmlMsgRet_Success && !IsFileName(message.GetUuid()))
        code = XmlMsgRet_BadValue;
    if (code != XmlMsgRet_Success)
        return RefusalWithCode("Failed to unserialize VM metadata file list.", code);
    return CZuError();
}

// What an earlier try left under this name goes first, be it a link, which might lead anywhere.
CZuError WriteConfigurationFile(const std::string& name, const std::string& text) {
    RemoveFile(name);
    CZuFile file;
    ZU_RETURN_IF_ERROR(file.Open(name.c_str(), OpenCreating | OpenForBoth | OpenOnlyNew, OwnerMayWrite));
    uint32_t sizeBytes = 0;
    if (!NarrowTo32(text.size(), sizeBytes))
        return Refusal(OutOfMemory);
    ZU_RETURN_IF_ERROR(WriteFileAt(file, 0, 0, text.data(), sizeBytes, nullptr));
    return file.Close();
}

// Nothing reads these files, and a disk is restored without them as well as with them: a failure goes to the log.
void KeepForPeople(const std::string& name, const std::string& text) {
    const CZuError error = WriteConfigurationFile(name, text);
    if (error.IsErrorSet())
        LgDebug().Error("CXenVDIDiskReader::CreateDisk", "%s: %s", name.c_str(), error.ConvertToString());
}

CZuError CreationFailure(int answer) {
    return Refusal(CZuString::Format("VMInfo::CreateVDI() failed with error {1}", answer));
}

}  // namespace

void CXenVDIDiskReader::SetVMInfo(IVMInfo* info, const char* /*first*/, const char* /*second*/) {
    m_VMInfo = info;
}

void CXenVDIDiskReader::SetDataStore(const char* name) {
    m_DataStore = name != nullptr ? name : "";
    const size_t end = m_DataStore.find(BehindDataStore);
    if (end == std::string::npos)
        return;
    m_DataStore.resize(end);
    m_Record.sr_guid = m_DataStore;
}

CZuError CXenVDIDiskReader::OpenDisk(const char* name) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        const std::string both = name != nullptr ? name : "";
        const size_t separator = both.find('#');
        if (separator == std::string::npos)
            return Refusal(NotInExpectedFormat);
        m_Record.uuid = both.substr(0, separator);
        m_Record.sr_guid.clear();
        ZU_RETURN_IF_ERROR(CPhysicalDiskReader::OpenDisk(name + separator + 1));
        return CZuError();
    });
}

CZuError CXenVDIDiskReader::CreateDisk(const char* name, xen_vdi_record& record, bool /*flag*/, std::string& device,
                                       CAutoMemory<char>& metadata) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        std::string text;
        VirtualServer::XenVDIRecord message;
        ZU_RETURN_IF_ERROR(ReadRecordMessage(metadata, text, message));
        TakeOver(message);
        ZU_RETURN_IF_ERROR(SetDiskSize(static_cast<uint64_t>(m_Record.virtual_size)));
        const int prepared = PrepareImage();

        const std::string place = CZuPath::GetParent(name).c_str() + ("\\" + message.GetUuid());
        KeepForPeople(place + ".origConfig", text);
        if (MessageOf(m_Record).serialize(text, true) != XmlMsgRet_Success)
            return Refusal("Failed to unserialize new VDI data:");
        KeepForPeople(place + ".newConfig", text);

        if (prepared != 0)
            return CreationFailure(prepared);
        record = m_Record;
        const int made = MakeImage(device);
        if (made != 0)
            return CreationFailure(made);
        ZU_RETURN_IF_ERROR(CPhysicalDiskReader::CreateDisk(device.c_str()));
        return CZuError();
    });
}

CZuError CXenVDIDiskReader::GetMetadataInfo(CAutoMemory<char>& metadata) {
    metadata.Alloc(0);
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        // Callers know this failure by its text, which ends here.
        if (m_VMInfo == nullptr || m_VMInfo->GetVDIRecord(m_Record) != 0)
            return Refusal("VDI ");
        std::string text;
        const eXmlMsgRet code = MessageOf(m_Record).serialize(text, true);
        if (code != XmlMsgRet_Success)
            return RefusalWithCode("Failed to serialize VM metadata file list.", code);
        uint32_t sizeBytes = 0;
        if (!NarrowTo32(text.size(), sizeBytes) || metadata.Alloc(sizeBytes) == nullptr)
            return Refusal(OutOfMemory);
        std::copy(text.begin(), text.end(), metadata.GetPtr());
        return CZuError();
    });
}

CZuError CXenVDIDiskReader::WriteBlock(uint64_t number, unsigned int sectors, CAutoMemory<char>& data) {
    constexpr char function[] = "CXenVDIDiskReader::WriteBlock";
    for (int triesLeft = WriteTries;;) {
        CZuError error = CPhysicalDiskReader::WriteBlock(number, sectors, data);
        if (!error.IsErrorSet())
            return error;
        const unsigned int code = error.GetErrorCode();
        if (code != DeviceNotReady && code != DeviceNotThere) {
            LgDebug().DebugLvl(function, -1, "Error [0x%x] writing to disk [%s]", code, error.ConvertToString());
            ZU_RETURN_IF_ERROR(error);
        }
        --triesLeft;
        LgDebug().DebugLvl(function, -1, "Error [0x%x] writing to disk [%s]. Retry counts remaining = %d", code,
                           error.ConvertToString(), triesLeft);
        WaitForDevice(WaitMilliseconds);
        if (triesLeft < 1)
            ZU_RETURN_IF_ERROR(error);
    }
}

void CXenVDIDiskReader::WaitForDevice(unsigned int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

int CXenVDIDiskReader::PrepareImage() {
    return m_VMInfo != nullptr ? m_VMInfo->PrepareVDI(m_Record) : NoServer;
}

int CXenVDIDiskReader::MakeImage(std::string& device) {
    return m_VMInfo != nullptr ? m_VMInfo->CreateVDI(m_Record, std::string(), device) : NoServer;
}

// What a new image has of an old one. The identifiers of the image and of what hangs on it are the host's to give.
void CXenVDIDiskReader::TakeOver(const VirtualServer::XenVDIRecord& message) {
    m_Record.name_label = message.GetName_label();
    m_Record.name_description = message.GetName_description();
    m_Record.virtual_size = message.GetVirtual_size();
    m_Record.sr_guid = m_DataStore;
    m_Record.type = IntegerOf(message.GetType());
    m_Record.sharable = message.GetSharable();
    m_Record.read_only = message.GetRead_only();
    m_Record.other_config = MapOf(message.GetOther_config());
    m_Record.storage_lock = message.GetStorage_lock();
    m_Record.location = message.GetLocation();
    m_Record.managed = message.GetManaged();
    m_Record.missing = false;
    m_Record.xenstore_data = MapOf(message.GetXenstore_data());
    m_Record.sm_config = MapOf(message.GetSm_config());
    m_Record.is_a_snapshot = false;
    m_Record.snapshot_of_guid.clear();
    m_Record.snapshot_time.clear();
    m_Record.tags = message.GetTags();
}
