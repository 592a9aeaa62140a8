#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/NtfsVolumeControl.h"
#include "tests/support/Bytes.h"

// Stands in front of the system's control of volumes for as long as it lives, and answers as a system does that serves
// the bitmap itself. It keeps what was asked of it.
class CFakeVolumeControl final : public INtfsVolumeControl {
public:
    // A volume of `clusters` clusters, none of them in use, in sectors of 512 bytes.
    explicit CFakeVolumeControl(uint64_t clusters, uint32_t sectorsPerCluster = 1)
        : bitmap((clusters + 7) / 8, '\0'), m_Clusters(clusters), m_Before(PutNtfsVolumeControlInFront(this)) {
        data.NumberSectors.QuadPart = static_cast<int64_t>(clusters * sectorsPerCluster);
        data.TotalClusters.QuadPart = static_cast<int64_t>(clusters);
        data.BytesPerSector = 512;
        data.BytesPerCluster = 512 * sectorsPerCluster;
    }
    CFakeVolumeControl(const CFakeVolumeControl&) = delete;
    CFakeVolumeControl& operator=(const CFakeVolumeControl&) = delete;
    ~CFakeVolumeControl() override { PutNtfsVolumeControlInFront(m_Before); }

    void Use(uint64_t lcn) { bitmap.at(lcn / 8) = static_cast<char>(bitmap.at(lcn / 8) | 1 << lcn % 8); }

    NTFS_VOLUME_DATA_BUFFER data{};
    std::string bitmap;
    uint32_t dataBytes = sizeof(NTFS_VOLUME_DATA_BUFFER);  // of its reply
    uint32_t mostBitmapBytes = 0xFFFFFFFF;                 // in one reply, the head not counted
    int allowError = 0;
    int dataError = 0;
    int bitmapError = 0;
    int lockError = 0;
    std::vector<std::string> calls;
    std::vector<uint64_t> askedLcns;

    int AllowExtendedAccess() override {
        calls.emplace_back("allow");
        return allowError;
    }

    int ReadVolumeData(NTFS_VOLUME_DATA_BUFFER& out, uint32_t& got) override {
        calls.emplace_back("data");
        out = data;
        got = dataBytes;
        return dataError;
    }

    int ReadBitmap(uint64_t firstLcn, char* reply, uint32_t replyBytes, uint32_t& got) override {
        calls.emplace_back("bitmap");
        askedLcns.push_back(firstLcn);
        got = 0;
        if (bitmapError != 0)
            return bitmapError;
        if (firstLcn >= m_Clusters)
            return 87;
        const uint64_t first = firstLcn / 8 * 8;
        const size_t wanted = bitmap.size() - first / 8;
        const auto count = std::min<size_t>({wanted, mostBitmapBytes, replyBytes - 16});
        const std::string text =
            LittleEndianBytes(first, 8) + LittleEndianBytes(m_Clusters - first, 8) + bitmap.substr(first / 8, count);
        std::copy(text.begin(), text.end(), reply);
        got = static_cast<uint32_t>(text.size());
        return count < wanted ? 234 : 0;
    }

    int Lock() override {
        calls.emplace_back("lock");
        return lockError;
    }

private:
    uint64_t m_Clusters;
    INtfsVolumeControl* m_Before;
};

// Answers every question for a bitmap with the same bytes and the same outcome.
class CScriptedBitmap final : public INtfsVolumeControl {
public:
    CScriptedBitmap(std::string bytes, uint32_t gotBytes, int outcome)
        : m_Reply(std::move(bytes)), m_Got(gotBytes), m_Outcome(outcome), m_Before(PutNtfsVolumeControlInFront(this)) {}
    CScriptedBitmap(const CScriptedBitmap&) = delete;
    CScriptedBitmap& operator=(const CScriptedBitmap&) = delete;
    ~CScriptedBitmap() override { PutNtfsVolumeControlInFront(m_Before); }

    int AllowExtendedAccess() override { return 0; }
    int ReadVolumeData(NTFS_VOLUME_DATA_BUFFER& out, uint32_t& got) override {
        out = NTFS_VOLUME_DATA_BUFFER{};
        out.NumberSectors.QuadPart = 100000000;
        out.TotalClusters.QuadPart = 100000000;
        out.BytesPerSector = 512;
        out.BytesPerCluster = 512;
        got = sizeof(out);
        return 0;
    }
    int ReadBitmap(uint64_t /*firstLcn*/, char* reply, uint32_t /*replyBytes*/, uint32_t& got) override {
        std::copy(m_Reply.begin(), m_Reply.end(), reply);
        got = m_Got;
        return m_Outcome;
    }
    int Lock() override { return 0; }

private:
    std::string m_Reply;
    uint32_t m_Got;
    int m_Outcome;
    INtfsVolumeControl* m_Before;
};
