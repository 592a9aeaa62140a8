#include "agent/Verify.h"

#include <cstring>

#include "agent/BackupSetReader.h"
#include "agent/ErrorText.h"
#include "agent/ExtentStream.h"
#include "agent/detail/BlockRuns.h"
#include "agent/detail/ChooseDisk.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/SetBlocks.h"
#include "agent/detail/SetLists.h"
#include "agent/detail/VhdRecord.h"
#include "foundation/detail/CheckedMath.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr size_t MostDifferencesTold = 10;

bool IsZeros(const CAutoMemory<char>& bytes, uint32_t from) {
    if (bytes.GetSize() <= from)
        return true;
    const char* const data = bytes.GetPtr() + from;
    return data[0] == 0 && std::memcmp(data, data + 1, bytes.GetSize() - from - 1) == 0;
}

// Where the data of a stream's blocks begins, in bytes. In front of the blocks of a dynamic VHD lies
// the bitmap of their sectors, which says nothing of a block of zeros. In a differencing one it says
// that they are zeros whatever the older links hold.
CZuError FindDataStart(const SetStream_t& stream, const CAutoMemory<char>& record, uint32_t& dataStart) {
    dataStart = 0;
    if (stream.diskType != DiskType_VhdDynamic)
        return CZuError();
    CVhdRecord vhd;
    ZU_RETURN_IF_ERROR(vhd.Open(record));
    dataStart = vhd.Shape().bitmapSectors << SectorShift;
    return CZuError();
}

// The blocks of an image's stream, beside those of the set's. A block that only one side has must
// be zeros: images may keep zeros or leave them out.
class CImageSide {
public:
    CZuError Open(const DiskExtent_t& extent) {
        ZU_RETURN_IF_ERROR(m_Stream.Open(extent));
        return Advance();
    }

    uint32_t BlockSectors() const { return m_Stream.BlockSectors(); }
    const std::optional<BlockPlace_t>& Place() const { return m_Place; }
    const CAutoMemory<char>& Bytes() const { return m_Bytes; }
    CZuError Advance() { return m_Stream.Next(m_Bytes, m_Place); }

private:
    CExtentStream m_Stream;
    std::optional<BlockPlace_t> m_Place;
    CAutoMemory<char> m_Bytes;
};

// Makes the list of a stream's blocks again, to prove the one that the set has.
class CRunsProof {
public:
    void Add(uint64_t number) { Dropped(m_Runs.Add(number)); }  // it fails where its pieces can't be taken alone

    bool IsOf(const SetPart_t& part) {
        Dropped(m_Runs.Finish());
        return m_Bytes == part.bytes && m_Digest.Result() == part.digest;
    }

private:
    CZuError TakePiece(const std::string& piece) {
        const BlockDigest_t digest = DigestOf(piece.data(), piece.size());
        m_Digest.Add(digest.data(), digest.size());
        m_Bytes += piece.size();
        return CZuError();
    }

    CRunningDigest m_Digest;
    uint64_t m_Bytes = 0;
    CBlockRuns m_Runs{[this](const std::string& piece) { return TakePiece(piece); }};
};

class CVerifyRun {
public:
    CVerifyRun(const VerifyOptions_t& options, VerifyResult_t& result) : m_Options(options), m_Result(result) {}

    CZuError Run(const std::string& setName) {
        ZU_RETURN_IF_ERROR(m_Set.Open(setName));
        ZU_RETURN_IF_ERROR(m_Set.OpenBases(m_Options.bases));
        for (const SetStream_t& stream : m_Set.Streams())
            m_Progress.totalBytes += m_Set.StoredBytesOf(stream);
        for (const SetPart_t& part : m_Set.Parts())
            m_Progress.totalBytes += part.bytes;
        if (m_Options.against.has_value())
            ZU_RETURN_IF_ERROR(OpenImage(*m_Options.against));
        for (const SetStream_t& stream : m_Set.Streams())
            ZU_RETURN_IF_ERROR(VerifyStream(stream));
        for (const SetPart_t& part : m_Set.Parts())
            ZU_RETURN_IF_ERROR(VerifyPart(part));
        for (const SetVolume_t& volume : m_Set.Volumes())
            ZU_RETURN_IF_ERROR(m_Set.ProveEntries(volume));
        return CZuError();
    }

private:
    CZuError OpenImage(const std::string& name) {
        ZU_RETURN_IF_ERROR(ChooseDisk(m_Set, m_Options.disk, m_Disk));
        ZU_RETURN_IF_ERROR(OpenAsTheSetIs(name));
        const size_t streamCount = m_Set.StreamsOf(m_Disk.id).size();
        if (m_Image->Extents().size() != streamCount)
            return Refusal(CZuString::Format("{1}: has {2} extents where the set {3} has {4} streams", name,
                                             m_Image->Extents().size(), m_Set.Path(), streamCount));
        CompareFiles();
        return CZuError();
    }

    // A set of a raw disk holds what the image makes together with its chain, whatever its kind.
    CZuError OpenAsTheSetIs(const std::string& name) {
        ImageOptions_t options = m_Options.image;
        const bool isRaw = m_Disk.product == VirtualProdType_Physical || m_Disk.diskType == DiskType_VMInfoDisk;
        options.rawUnlessKnown = isRaw;
        if (m_Disk.diskType == DiskType_NTFSVolume && !options.type.has_value())
            options.type = DiskType_NTFSVolume;  // what is free isn't in the set
        m_Image.emplace();
        return isRaw ? m_Image->OpenFlattened(name, options) : m_Image->Open(name, options);
    }

    void CompareFiles() {
        const std::vector<SmallFile_t>& imageFiles = m_Image->SmallFiles();
        const std::span<const SetFile_t> setFiles = m_Set.FilesOf(m_Disk.id);
        for (size_t index = 0; index < setFiles.size(); ++index) {
            if (index >= imageFiles.size() || imageFiles[index].bytes != setFiles[index].bytes)
                AddDifference("the file " + setFiles[index].name);
        }
    }

    // The extent of the image that should hold the same, or null where there is none to compare with.
    const DiskExtent_t* ExtentFor(const SetStream_t& stream) const {
        if (!m_Image.has_value() || stream.disk != m_Disk.id)
            return nullptr;
        const auto place = static_cast<size_t>(&stream - m_Set.StreamsOf(m_Disk.id).data());
        return &m_Image->Extents()[place];
    }

    CZuError VerifyStream(const SetStream_t& stream) {
        const DiskExtent_t* const extent = ExtentFor(stream);
        CAutoMemory<char> record;
        ZU_RETURN_IF_ERROR(m_Set.ReadRecord(stream, record));
        if (extent != nullptr)
            ZU_RETURN_IF_ERROR(ErrorAt(m_Set.Path(), FindDataStart(stream, record, m_DataStart)));
        record.Free();
        std::optional<CImageSide> image;
        if (extent != nullptr)
            ZU_RETURN_IF_ERROR(OpenSide(stream, *extent, image.emplace()));
        CRunsProof runs;
        ZU_RETURN_IF_ERROR(ForEachBlock(m_Set, stream, [&](BatchBlock_t& block) {
            if (!block.block.isInherited)
                runs.Add(block.block.number);
            CZuError counting = Count(block);
            return counting.IsErrorSet() || !image.has_value() ? counting : Compare(stream, block, *image);
        }));
        const SetPart_t* const runsPart = m_Set.FindPart(BlocksPartName(stream.id));
        if (runsPart != nullptr && !runs.IsOf(*runsPart))
            return m_Set.Damaged("the list of the blocks of " + stream.fileName);
        return image.has_value() ? PassOver(stream, ~uint64_t{0}, *image) : CZuError();
    }

    CZuError VerifyPart(const SetPart_t& part) {
        ZU_RETURN_IF_ERROR(m_Set.ProvePart(part));
        m_Progress.doneBytes += part.bytes;
        return TellProgress();
    }

    CZuError OpenSide(const SetStream_t& stream, const DiskExtent_t& extent, CImageSide& side) {
        ZU_RETURN_IF_ERROR(side.Open(extent));
        if (side.BlockSectors() != stream.blockSectors)
            return Refusal(CZuString::Format("{1}: has blocks of {2} sectors where the set has {3}; it is an image of "
                                             "another kind",
                                             extent.path, side.BlockSectors(), stream.blockSectors));
        if (extent.diskSectors != stream.diskSectors)
            AddDifference("the size of " + stream.fileName);
        return CZuError();
    }

    CZuError Count(const BatchBlock_t& block) {
        ++m_Result.blockCount;
        m_Result.plainBytes += block.plain.GetSize();
        m_Progress.doneBytes += block.block.encoded.sizeBytes;
        return TellProgress();
    }

    CZuError TellProgress() const {
        const bool goesOn = !m_Options.progress || m_Options.progress(m_Progress);
        return goesOn ? CZuError() : Refusal("The verification was cancelled");
    }

    CZuError Compare(const SetStream_t& stream, const BatchBlock_t& block, CImageSide& image) {
        ZU_RETURN_IF_ERROR(PassOver(stream, block.block.number, image));
        if (!image.Place().has_value() || image.Place()->number != block.block.number) {
            if (!IsZeros(block.plain, m_DataStart))
                AddDifference(stream, block.block.number);
            return CZuError();
        }
        const bool isSame = image.Bytes().GetSize() == block.plain.GetSize() &&
                            std::memcmp(image.Bytes().GetPtr(), block.plain.GetPtr(), block.plain.GetSize()) == 0;
        if (!isSame)
            AddDifference(stream, block.block.number);
        return image.Advance();
    }

    // The image's blocks in front of block `number`, which the set doesn't have.
    CZuError PassOver(const SetStream_t& stream, uint64_t number, CImageSide& image) {
        while (image.Place().has_value() && image.Place()->number < number) {
            if (!IsZeros(image.Bytes(), m_DataStart))
                AddDifference(stream, image.Place()->number);
            ZU_RETURN_IF_ERROR(TellProgress());
            ZU_RETURN_IF_ERROR(image.Advance());
        }
        return CZuError();
    }

    void AddDifference(const SetStream_t& stream, uint64_t number) {
        AddDifference(
            CZuString::Format("block {1} of {2}, at sector {3}", number, stream.fileName, number * stream.blockSectors)
                .c_str());
    }

    void AddDifference(const std::string& what) {
        ++m_Result.differenceCount;
        if (m_Result.differences.size() < MostDifferencesTold)
            m_Result.differences.push_back(what);
    }

    const VerifyOptions_t& m_Options;
    VerifyResult_t& m_Result;
    CBackupSetReader m_Set;
    SetDisk_t m_Disk;  // the one that is compared
    std::optional<CDiskImage> m_Image;
    uint32_t m_DataStart = 0;  // in the blocks of the current stream
    Progress_t m_Progress;
};

}  // namespace

CZuError VerifySet(const std::string& set, const VerifyOptions_t& options, VerifyResult_t& result) {
    return WithinMemory(OutOfMemory, [&] {
        result = VerifyResult_t();
        return CVerifyRun(options, result).Run(set);
    });
}
