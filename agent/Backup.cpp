#include "agent/Backup.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>

#include "agent/BackupSetReader.h"
#include "agent/BackupSetWriter.h"
#include "agent/ErrorText.h"
#include "agent/ExtentStream.h"
#include "agent/Version.h"
#include "agent/WholeDisk.h"
#include "agent/detail/BlockBatch.h"
#include "agent/detail/CatalogWriter.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/StagedFile.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/UtcTime.h"

namespace {

SetInfo_t InfoOfNow() {
    SetInfo_t info;
    info.createdUtc = UtcTimeText();
    info.writer = std::string("diskstream ") + DiskstreamVersion();
    return info;
}

SetDisk_t DiskOf(const CDiskImage& image, int64_t id) {
    SetDisk_t disk;
    disk.id = id;
    disk.imageName = image.DiskType() == DiskType_VMInfoDisk
                         ? image.Extents().front().name  // a URI has no name for files
                         : std::filesystem::path(image.Path()).filename().string();
    disk.product = image.Product();
    disk.diskType = image.DiskType();
    disk.diskSectors = image.TotalSectors();
    disk.hasParent = image.HasParent();
    disk.parentName = image.ParentName();
    return disk;
}

SetStream_t StreamOf(const DiskExtent_t& extent, int64_t id, int64_t disk, uint32_t blockSectors) {
    SetStream_t stream;
    stream.id = id;
    stream.disk = disk;
    stream.fileName = extent.name;
    stream.diskType = extent.diskType;
    stream.blockSectors = blockSectors;
    stream.diskSectors = extent.diskSectors;
    stream.fileBytes = extent.fileBytes;
    return stream;
}

// One backup on its way.
class CBackupRun {
public:
    CBackupRun(const BackupOptions_t& options, BackupResult_t& result) : m_Options(options), m_Result(result) {}

    CZuError Run(const std::vector<std::string>& imageNames, const std::string& setName) {
        ZU_RETURN_IF_ERROR(RefuseDisks(imageNames));
        ZU_RETURN_IF_ERROR(OpenImages(imageNames));
        for (const CDiskImage& image : m_Images)
            ZU_RETURN_IF_ERROR(RefuseOwnFiles(image, setName));
        ZU_RETURN_IF_ERROR(OpenBase(setName));
        ZU_RETURN_IF_ERROR(m_Writer.Create(setName, m_Options.force));
        if (m_Base.has_value())
            ZU_RETURN_IF_ERROR(m_Writer.BuildOn(*m_Base));
        ZU_RETURN_IF_ERROR(WriteDisks());
        if (m_Options.catalog)
            ZU_RETURN_IF_ERROR(WriteCatalog(imageNames));
        ZU_RETURN_IF_ERROR(m_Writer.Commit(InfoOfNow()));
        m_Result.setBytes = m_Writer.SizeBytes();
        return CZuError();
    }

private:
    CZuError RefuseDisks(const std::vector<std::string>& imageNames) const {
        if (imageNames.empty())
            return Refusal("There is no disk to back up");
        if (imageNames.size() != 1 && !m_Options.image.parents.empty())
            return Refusal("The links of a chain can be told for one disk only; back the disks up into a set each");
        for (size_t index = 1; index < imageNames.size(); ++index) {
            for (size_t older = 0; older < index; ++older) {
                if (IsSameFile(imageNames[older], imageNames[index]))
                    return Refusal(imageNames[index] + ": is the same disk as " + imageNames[older]);
            }
        }
        return CZuError();
    }

    CZuError OpenImages(const std::vector<std::string>& names) {
        for (const std::string& name : names) {
            CDiskImage& image = m_Images.emplace_back();
            ZU_RETURN_IF_ERROR(m_Options.flatten ? image.OpenFlattened(name, m_Options.image)
                                                 : image.Open(name, m_Options.image));
            m_Result.warnings.insert(m_Result.warnings.end(), image.Warnings().begin(), image.Warnings().end());
            m_Result.disks.push_back({image.Path(), image.DiskType(), image.TotalSectors() << SectorShift});
            m_Result.diskBytes += m_Result.disks.back().diskBytes;
            if (image.HasParent() && m_Options.catalog)
                return Refusal(name + ": is one link of a chain; a catalogue needs the whole disk: add --flatten");
            WarnOfParent(image);
        }
        return CZuError();
    }

    // A set without what didn't change is worth nothing, so that its base has to be one that fits.
    CZuError OpenBase(const std::string& setName) {
        const std::string& changedSince = m_Options.image.changedSince;
        if (m_Options.base.empty() && changedSince.empty())
            return CZuError();
        if (m_Options.base.empty() || changedSince.empty())
            return Refusal("A set of what changed needs both the bitmap that tells it and the base that has the rest");
        if (m_Images.size() != 1 || m_Images.front().DiskType() != DiskType_VMInfoDisk || m_Options.flatten)
            return Refusal("What changed is known of one disk that a server exports, such as nbd://host/export");
        if (IsSameFile(m_Options.base, setName))
            return Refusal(setName + ": is the base itself; give another name for the set");
        CBackupSetReader& base = m_BaseSet.emplace();
        ZU_RETURN_IF_ERROR(base.Open(m_Options.base));
        const CDiskImage& image = m_Images.front();
        const std::vector<SetStream_t>& streams = base.Streams();
        const bool isOfOneDisk = base.Disks().size() == 1 && streams.size() == 1;
        if (!isOfOneDisk || base.Disks().front().diskType != image.DiskType() ||
            streams.front().blockSectors != FlatBlockSectors)
            return Refusal(m_Options.base +
                           ": isn't the set of one disk that a server exported, so it can't be a base");
        if (streams.front().diskSectors != image.TotalSectors())
            return Refusal(CZuString::Format("{1}: holds a disk of {2} sectors, and {3} has {4} now; back it up whole",
                                             m_Options.base, streams.front().diskSectors, image.Path(),
                                             image.TotalSectors()));
        m_Base = SetBase_t{std::filesystem::path(m_Options.base).filename().string(), base.Identity(), changedSince};
        return CZuError();
    }

    // Replacing is for older sets. The image's own files are what the set is made from.
    static CZuError RefuseOwnFiles(const CDiskImage& image, const std::string& setName) {
        bool isOwn = IsSameFile(image.Path(), setName);
        for (const DiskExtent_t& extent : image.Extents())
            isOwn = isOwn || IsSameFile(extent.path, setName) || IsOfChain(extent, setName);
        return isOwn ? Refusal(setName +
                               ": is a file of the image that is to be backed up; give another name for the set")
                     : CZuError();
    }

    static bool IsOfChain(const DiskExtent_t& extent, const std::string& setName) {
        if (extent.chain == nullptr)
            return false;
        for (const CDiskImage& link : extent.chain->Links()) {
            if (IsSameFile(link.Path(), setName) ||
                std::any_of(link.Extents().begin(), link.Extents().end(),
                            [&](const DiskExtent_t& each) { return IsSameFile(each.path, setName); }))
                return true;
        }
        return false;
    }

    void WarnOfParent(const CDiskImage& image) {
        if (!image.HasParent())
            return;
        const std::string parent = image.ParentName().empty() ? "another image" : image.ParentName();
        m_Result.warnings.push_back(image.Path() + " is one link of a chain: the set holds this link alone, and not " +
                                    parent + ", on which it builds; --flatten keeps the whole disk");
    }

    CZuError WriteDisks() {
        for (const CDiskImage& image : m_Images) {
            for (const DiskExtent_t& extent : image.Extents())
                m_Progress.totalBytes += extent.fileBytes;
        }
        int64_t disk = 0;
        for (const CDiskImage& image : m_Images)
            ZU_RETURN_IF_ERROR(WriteDisk(image, disk++));
        return CZuError();
    }

    // Disks that are in the set stay there, whatever is the matter with their volumes.
    CZuError WriteCatalog(const std::vector<std::string>& imageNames) {
        m_Images.clear();  // a server may take one connection at a time
        CVolumeSet disks;
        const CZuError error = disks.Open(imageNames, m_Options.image);
        if (error.IsErrorSet()) {
            m_Result.catalogProblems.push_back(DescribeError(error));
            return CZuError();
        }
        for (const std::string& warning : disks.Warnings()) {
            if (std::find(m_Result.warnings.begin(), m_Result.warnings.end(), warning) == m_Result.warnings.end())
                m_Result.warnings.push_back(warning);
        }
        CatalogOptions_t options;
        options.blockSectors = m_BlockSectors;
        options.isFlattened = m_Options.flatten;
        options.compressionLevel = m_Options.compressionLevel;
        CatalogResult_t result;
        ZU_RETURN_IF_ERROR(CollectCatalog(disks, m_Writer, options, result));
        m_Result.catalogVolumes = result.volumes;
        m_Result.catalogFiles = result.files;
        m_Result.catalogProblems = std::move(result.problems);
        m_Result.warnings.insert(m_Result.warnings.end(), result.warnings.begin(), result.warnings.end());
        return CZuError();
    }

    CZuError WriteDisk(const CDiskImage& image, int64_t disk) {
        ZU_RETURN_IF_ERROR(m_Writer.AddDisk(DiskOf(image, disk)));
        m_BlockSectors.push_back(0);
        for (const DiskExtent_t& extent : image.Extents())
            ZU_RETURN_IF_ERROR(WriteStream(extent, disk));
        for (const SmallFile_t& file : image.SmallFiles())
            ZU_RETURN_IF_ERROR(m_Writer.AddFile({file.name, file.bytes, disk}));
        return CZuError();
    }

    // The bytes to come are known only when each stream has been opened; opening is cheap beside
    // reading, but holds tables, so one stream is open at a time.
    CZuError WriteStream(const DiskExtent_t& extent, int64_t disk) {
        CExtentStream stream;
        ZU_RETURN_IF_ERROR(stream.Open(extent));
        m_BlockSectors.back() = stream.BlockSectors();
        m_Progress.totalBytes -= extent.fileBytes;
        m_Progress.totalBytes += stream.ExpectedBytes();
        ZU_RETURN_IF_ERROR(m_Writer.BeginStream(StreamOf(extent, m_NextStream++, disk, stream.BlockSectors()),
                                                stream.TakeRecord(), m_Options.compressionLevel));
        ZU_RETURN_IF_ERROR(MoveBlocks(stream));
        ZU_RETURN_IF_ERROR(m_Writer.EndStream());
        WarnOfUnknownBlocks(extent);
        return CZuError();
    }

    // Compressing takes longer than all else. A digest alone takes less than another thread's way to the bytes, so
    // without compression it is made where they are read.
    CZuError MoveBlocks(CExtentStream& stream) {
        const PipelineShape_t shape(stream.BlockSectors());
        const bool isCompressing = m_Options.compressionLevel != NoCompression;
        const size_t workers = isCompressing ? shape.workers : 1;
        std::vector<std::unique_ptr<CBlockEncoder>> encoders;
        for (size_t worker = 0; worker < workers; ++worker)
            encoders.push_back(std::make_unique<CBlockEncoder>(m_Options.compressionLevel));

        CZuError reading;
        CZuError writing;
        const auto read = [&](BlockBatch_t& batch) {
            const bool isRead = ReadBatch(stream, shape.blocksPerBatch, batch, reading);
            if (isRead && !isCompressing)
                EncodeBatch(*encoders.front(), batch);
            return isRead;
        };
        const auto encode = [&](BlockBatch_t& batch, size_t worker) {
            if (isCompressing)
                EncodeBatch(*encoders[worker], batch);
        };
        const auto write = [&](BlockBatch_t& batch) { return WriteBatch(batch, writing); };
        BlockPipeline_t(shape.batches, workers).Run(read, encode, write);
        ZU_RETURN_IF_ERROR(reading);
        ZU_RETURN_IF_ERROR(writing);
        return CZuError();
    }

    bool ReadBatch(CExtentStream& stream, size_t mostBlocks, BlockBatch_t& batch, CZuError& error) {
        batch.count = 0;
        while (batch.count < mostBlocks) {
            bool isThere = false;
            error = ReadNext(stream, batch.Add(), isThere);
            if (error.IsErrorSet() || !isThere) {
                batch.DropLast();
                break;
            }
        }
        return batch.count != 0 && !error.IsErrorSet();
    }

    CZuError ReadNext(CExtentStream& stream, BatchBlock_t& next, bool& isThere) {
        std::optional<BlockPlace_t> place;
        ZU_RETURN_IF_ERROR(stream.Next(next.plain, place));
        isThere = place.has_value();
        if (!isThere)
            return CZuError();
        next.block.number = place->number;
        next.block.sectors = place->sectors;
        next.block.isInherited = place->isUnchanged;
        next.isUnknown = false;
        return place->isUnchanged ? TakeUnlessInBase(stream, next) : CZuError();
    }

    // A bitmap that is younger than the base doesn't name what was written between the two: what the base can't give,
    // the set has to have.
    CZuError TakeUnlessInBase(CExtentStream& stream, BatchBlock_t& next) {
        bool isInBase = false;
        ZU_RETURN_IF_ERROR(m_BaseSet->HasBlock(m_BaseSet->Streams().front(), next.block.number, isInBase));
        if (isInBase)
            return CZuError();
        next.isUnknown = true;
        next.block.isInherited = false;
        return stream.ReadUnchanged(next.block.number, next.plain);
    }

    void WarnOfUnknownBlocks(const DiskExtent_t& extent) {
        if (m_UnknownBlocks == 0)
            return;
        m_Result.warnings.push_back(
            CZuString::Format(
                "{1}: {2} blocks are neither in the base nor told by the bitmap {3}, and went into the set. "
                "If the bitmap was begun after the base was made, other changes may be missing: compare "
                "with `diskstream verify SET --against {1}`, or back the disk up whole",
                extent.path, m_UnknownBlocks, m_Options.image.changedSince)
                .c_str());
    }

    static void EncodeBatch(CBlockEncoder& encoder, BlockBatch_t& batch) {
        for (size_t index = 0; index < batch.count; ++index) {
            BatchBlock_t& each = batch.blocks[index];
            if (each.block.isInherited)
                continue;
            encoder.Encode(each.plain.GetPtr(), each.block.sectors << SectorShift, each.packed, each.block.encoded);
        }
    }

    bool WriteBatch(const BlockBatch_t& batch, CZuError& error) {
        for (size_t index = 0; index < batch.count; ++index) {
            const SetBlock_t& block = batch.blocks[index].block;
            error = m_Writer.AddBlock(block);
            if (error.IsErrorSet())
                return false;
            Count(block);
            if (batch.blocks[index].isUnknown && block.encoded.encoding != BlockEncoding_t::Zeros)
                ++m_UnknownBlocks;
        }
        m_Progress.doneBytes = m_Result.readBytes;
        if (m_Options.progress && !m_Options.progress(m_Progress))
            error = Refusal("The backup was cancelled; nothing was written");
        return !error.IsErrorSet();
    }

    void Count(const SetBlock_t& block) {
        if (block.isInherited) {
            ++m_Result.unchangedBlocks;
            return;
        }
        ++m_Result.blockCount;
        m_Result.zeroBlocks += block.encoded.encoding == BlockEncoding_t::Zeros ? 1 : 0;
        m_Result.readBytes += uint64_t{block.sectors} << SectorShift;
        m_Result.storedBytes += block.encoded.sizeBytes;
    }

    const BackupOptions_t& m_Options;
    BackupResult_t& m_Result;
    std::vector<CDiskImage> m_Images;  // in the order in which they were given
    std::optional<CBackupSetReader> m_BaseSet;
    std::optional<SetBase_t> m_Base;
    uint64_t m_UnknownBlocks = 0;  // with data that the base should have, and hasn't
    CBackupSetWriter m_Writer;
    std::vector<uint32_t> m_BlockSectors;  // of the streams of each disk
    int64_t m_NextStream = 0;
    Progress_t m_Progress;
};

}  // namespace

CZuError BackUpDisks(const std::vector<std::string>& images, const std::string& set, const BackupOptions_t& options,
                     BackupResult_t& result) {
    return WithinMemory(OutOfMemory, [&] {
        result = BackupResult_t();
        return CBackupRun(options, result).Run(images, set);
    });
}

CZuError BackUpDisk(const std::string& image, const std::string& set, const BackupOptions_t& options,
                    BackupResult_t& result) {
    return BackUpDisks({image}, set, options, result);
}
