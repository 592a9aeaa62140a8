#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/IVMInfo.h"

// A hypervisor that serves one disk from memory. Each answer is sound until a test sets it otherwise; what was asked is
// kept.
class CFakeVMInfo : public IVMInfo {
public:
    // A disk of `sectors` sectors, of which all bytes are set.
    explicit CFakeVMInfo(std::string disk = std::string())
        : bytes(std::move(disk)), reportedSectors(static_cast<uint32_t>(bytes.size() / 512)) {}
    CFakeVMInfo(const CFakeVMInfo&) = delete;
    CFakeVMInfo& operator=(const CFakeVMInfo&) = delete;
    virtual ~CFakeVMInfo() = default;

    std::string bytes;
    uint32_t reportedSectors;
    std::vector<std::pair<std::string, std::string>> settings;
    std::map<std::string, std::vector<VmdkFileExtents_t>> answers;  // by change id, one for each question in turn

    // The operation that fails, by the name that it has in the interface, and the error behind it.
    std::string failing;
    int lastError = 0;

    struct Transfer_t {
        uint64_t firstSector;
        uint32_t sectors;
        bool operator==(const Transfer_t& other) const {
            return firstSector == other.firstSector && sectors == other.sectors;
        }
    };
    std::vector<std::string> calls;
    std::vector<Transfer_t> reads;
    std::vector<Transfer_t> writes;
    std::map<std::string, std::vector<uint64_t>> askedPositions;
    uint64_t createdBytes = 0;

    // The next answer for the change id.
    void Answer(const std::string& changeId, uint64_t position, uint64_t length,
                const std::vector<VmdkFileStretch_t>& stretches) {
        answers[changeId].push_back({position, length, stretches});
    }

    int GetLastErrorCode() override { return lastError; }

    int SetCurrVmdkFile(const char* name1, const char* name2, const std::string& fileName,
                        VmdkFileHandle_t& handle) override {
        handle.id = HandleId;
        return Note("SetCurrVmdkFile", std::string(name1) + "|" + name2 + "|" + fileName);
    }

    int CreateVmdkFile(const char* name1, const char* name2, const std::string& baseName, VmdkFileHandle_t& handle,
                       uint64_t sizeInBytes) override {
        handle.id = HandleId;
        createdBytes = sizeInBytes;
        bytes.assign(static_cast<size_t>(sizeInBytes), '\0');
        return Note("CreateVmdkFile", std::string(name1) + "|" + name2 + "|" + baseName);
    }

    int GetCurrVmdkFileName(VmdkFileHandle_t& handle, std::string& fileName) override {
        fileName = "server's name";
        return Note("GetCurrVmdkFileName", handle);
    }

    int GetCurrVmdkFileInfo(VmdkFileHandle_t& handle, VmdkFileInfo_t& info) override {
        info.sectors = reportedSectors;
        return Note("GetCurrVmdkFileInfo", handle);
    }

    int GetCurrVmdkFileMetaData(VmdkFileHandle_t& handle,
                                std::vector<std::pair<std::string, std::string>>& pairs) override {
        pairs = settings;
        return Note("GetCurrVmdkFileMetaData", handle);
    }

    // Without an answer set for the change id, all of the disk from the position on is in it.
    int GetCurrVmdkFileExtents(VmdkFileHandle_t& handle, const char* changeId, uint64_t position,
                               VmdkFileExtents_t& extents) override {
        std::vector<uint64_t>& asked = askedPositions[changeId];
        asked.push_back(position);
        const std::vector<VmdkFileExtents_t>& mine = answers[changeId];
        const uint64_t end = uint64_t{reportedSectors} * 512;
        if (asked.size() <= mine.size())
            extents = mine[asked.size() - 1];
        else if (mine.empty())
            extents = {position, end - position, {{position, end - position}}};
        else
            extents = {position, end - position, {}};
        return Note("GetCurrVmdkFileExtents", handle);
    }

    int ReadCurrVmdkFile(VmdkFileHandle_t& handle, uint64_t firstSector, uint32_t sectors, char* buffer) override {
        reads.push_back({firstSector, sectors});
        if ((firstSector + sectors) * 512 > bytes.size())
            return 0;
        std::copy_n(bytes.data() + firstSector * 512, size_t{sectors} * 512, buffer);
        return Note("ReadCurrVmdkFile", handle);
    }

    int WriteCurrVmdkFile(VmdkFileHandle_t& handle, uint64_t firstSector, uint32_t sectors, const char* data) override {
        writes.push_back({firstSector, sectors});
        if (failing == "WriteCurrVmdkFile" || (firstSector + sectors) * 512 > bytes.size())
            return 0;
        std::copy_n(data, size_t{sectors} * 512, bytes.data() + firstSector * 512);
        return Note("WriteCurrVmdkFile", handle);
    }

    int PrepareVDI(xen_vdi_record& /*record*/) override { return 1; }
    int GetVDIRecord(xen_vdi_record& /*record*/) override { return 1; }
    int CreateVDI(xen_vdi_record& /*record*/, const std::string& /*text*/, std::string& /*device*/) override {
        return 1;
    }

protected:
    // An operation on another handle than the one given out fails.
    int Note(const std::string& operation, const VmdkFileHandle_t& handle) {
        return handle.id == HandleId ? Note(operation, std::string()) : 0;
    }
    int Note(const std::string& operation, const std::string& arguments) {
        calls.push_back(arguments.empty() ? operation : operation + "(" + arguments + ")");
        return operation == failing ? 0 : 1;
    }

private:
    static constexpr uint64_t HandleId = 4711;
};
