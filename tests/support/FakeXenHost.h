#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/IVMInfo.h"

// A Xen host that answers what a test tells it to, and keeps what it was asked. It has no disks of other kinds.
class CFakeXenHost final : public IVMInfo {
public:
    // What each question is answered, 0 for success, and what the host does with the record before.
    int prepareAnswer = 0;
    int recordAnswer = 0;
    int createAnswer = 0;
    std::string device;  // of the image that is made
    std::function<void(xen_vdi_record&)> onPrepare;
    std::function<void(xen_vdi_record&)> onRecord;
    std::function<void(xen_vdi_record&)> onCreate;

    // The questions in their order, and the record of each as it came.
    std::vector<std::string> questions;
    std::vector<xen_vdi_record> records;
    std::string createText = "none yet";

    int PrepareVDI(xen_vdi_record& record) override { return Answer("prepare", record, onPrepare, prepareAnswer); }
    int GetVDIRecord(xen_vdi_record& record) override { return Answer("record", record, onRecord, recordAnswer); }
    int CreateVDI(xen_vdi_record& record, const std::string& text, std::string& madeDevice) override {
        createText = text;
        if (createAnswer == 0)
            madeDevice = device;
        return Answer("create", record, onCreate, createAnswer);
    }

    int GetLastErrorCode() override { return 0; }
    int SetCurrVmdkFile(const char* /*name1*/, const char* /*name2*/, const std::string& /*fileName*/,
                        VmdkFileHandle_t& /*handle*/) override {
        return 0;
    }
    int CreateVmdkFile(const char* /*name1*/, const char* /*name2*/, const std::string& /*baseName*/,
                       VmdkFileHandle_t& /*handle*/, uint64_t /*sizeInBytes*/) override {
        return 0;
    }
    int GetCurrVmdkFileName(VmdkFileHandle_t& /*handle*/, std::string& /*fileName*/) override { return 0; }
    int GetCurrVmdkFileInfo(VmdkFileHandle_t& /*handle*/, VmdkFileInfo_t& /*info*/) override { return 0; }
    int GetCurrVmdkFileMetaData(VmdkFileHandle_t& /*handle*/,
                                std::vector<std::pair<std::string, std::string>>& /*pairs*/) override {
        return 0;
    }
    int GetCurrVmdkFileExtents(VmdkFileHandle_t& /*handle*/, const char* /*changeId*/, uint64_t /*position*/,
                               VmdkFileExtents_t& /*extents*/) override {
        return 0;
    }
    int ReadCurrVmdkFile(VmdkFileHandle_t& /*handle*/, uint64_t /*firstSector*/, uint32_t /*sectors*/,
                         char* /*buffer*/) override {
        return 0;
    }
    int WriteCurrVmdkFile(VmdkFileHandle_t& /*handle*/, uint64_t /*firstSector*/, uint32_t /*sectors*/,
                          const char* /*data*/) override {
        return 0;
    }

private:
    int Answer(const char* question, xen_vdi_record& record, const std::function<void(xen_vdi_record&)>& act,
               int answer) {
        questions.emplace_back(question);
        records.push_back(record);
        if (act)
            act(record);
        return answer;
    }
};
