#include "agent/NtfsCopy.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "agent/ErrorText.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/StagedDirectory.h"
#include "agent/detail/StagedFile.h"
#include "foundation/detail/ErrorHandling.h"
#include "platform/FileSystem.h"

namespace {

constexpr char Cancelled[] = "The copying was cancelled";

CZuError SystemRefusal(const std::string& where) {
    return ErrorAt(where, SystemFailure(errno != 0 ? errno : EIO));
}

// A file or directory that is written: where it lies as yet, and where people will find it.
struct CopyPlace_t {
    std::string name;
    std::string finalName;

    CopyPlace_t Below(const std::string& path) const { return {name + "/" + path, finalName + "/" + path}; }
};

void KeepTimes(const CopyPlace_t& place, const NtfsFileInfo_t& file, std::vector<std::string>& problems) {
    const int error = SetFileTimes(place.name, file.creation, file.access, file.modification);
    if (error != 0)
        problems.push_back(DescribeError(ErrorAt(place.finalName + ": its times", SystemFailure(error))));
}

// Names of this system hold neither separators nor zeros, and two of them stand for other directories.
bool IsPossibleName(const std::string& name) {
    const std::filesystem::path path(name);
    return !name.empty() && name != "." && name != ".." && name.find('\0') == std::string::npos &&
           !path.has_root_path() && !path.has_parent_path();
}

std::string LinkText(uint32_t tag) {
    char text[64];
    std::snprintf(text, sizeof(text), "is a link (reparse point 0x%08X), which isn't followed", tag);
    return text;
}

bool HasHoles(const NtfsFileInfo_t& file) {
    return std::any_of(file.streams.begin(), file.streams.end(),
                       [](const NtfsStreamInfo_t& stream) { return stream.name.empty() && stream.isSparse; });
}

bool IsZero(const char* bytes, uint32_t size) {
    return size != 0 && bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0;
}

// A sparse file stays one: of its zeros only the place is kept.
bool WritePiece(std::FILE* output, const char* bytes, uint32_t size, bool hasHoles) {
    if (hasHoles && IsZero(bytes, size))
        return std::fseek(output, static_cast<long>(size), SEEK_CUR) == 0;
    return std::fwrite(bytes, 1, size, output) == size;
}

bool SetSize(const std::string& name, uint64_t bytes) {
    std::error_code failed;
    std::filesystem::resize_file(name, bytes, failed);
    errno = failed.value();
    return !failed;
}

class CCopier {
public:
    CCopier(INtfsFiles& volume, NtfsCopy_t& copy) : m_Volume(volume), m_Copy(copy) {}

    // A name that stands already is refused: a damaged directory may hold one twice.
    CZuError CopyFile(const NtfsFileInfo_t& file, const CopyPlace_t& place) {
        errno = 0;
        std::FILE* const output = std::fopen(place.name.c_str(), "wbx");
        if (output == nullptr)
            return SystemRefusal(place.finalName);
        std::setvbuf(output, nullptr, _IONBF, 0);  // pieces are large: a buffer would only copy them again
        bool isWritten = true;
        const CZuError error = m_Volume.ReadStream(file.frn, "", [&](const char* bytes, uint32_t size) {
            isWritten = WritePiece(output, bytes, size, HasHoles(file));
            return isWritten && Advance(size);
        });
        const int writeError = errno;
        const bool isClosed = std::fclose(output) == 0 && (!HasHoles(file) || SetSize(place.name, file.bytes));
        CZuError outcome = error;
        if (!error.IsErrorSet() && m_IsCancelled)
            outcome = Refusal(Cancelled);
        else if (!error.IsErrorSet() && !(isWritten && isClosed))
            outcome = WriteFailure(place, isWritten ? errno : writeError);
        if (outcome.IsErrorSet())
            std::remove(place.name.c_str());  // what was written of it is no file of that name
        else
            ++m_Copy.files;
        return outcome;
    }

    // Fills a directory. Times of directories are set last: each file in one changes them.
    CZuError CopyTree(const NtfsFileInfo_t& directory, const CopyPlace_t& place) {
        NtfsListing_t listing;
        listing.isRecursive = true;
        listing.withMetadata = m_Copy.withMetadata;
        listing.withStreams = true;
        std::vector<std::pair<CopyPlace_t, NtfsFileInfo_t>> directories = {{place, directory}};
        ZU_RETURN_IF_ERROR(m_Volume.List(directory.frn, listing, [&](const NtfsEntry_t& entry) {
            CopyEntry(entry, place.Below(entry.path), directories);
            return !IsEnded();
        }));
        if (m_IsCancelled)
            return Refusal(Cancelled);
        ZU_RETURN_IF_ERROR(m_WriteFailure);
        for (auto each = directories.rbegin(); each != directories.rend(); ++each)
            KeepTimes(each->first, each->second, m_Copy.problems);
        m_Copy.directories = directories.size();
        m_Copy.problems.insert(m_Copy.problems.end(), listing.problems.begin(), listing.problems.end());
        return CZuError();
    }

private:
    bool IsEnded() const { return m_IsCancelled || m_WriteFailure.IsErrorSet(); }

    // A target that can't be written to ends the whole copy: the next file would fare no better.
    CZuError WriteFailure(const CopyPlace_t& place, int error) {
        m_WriteFailure = ErrorAt(place.finalName, SystemFailure(error != 0 ? error : EIO));
        return m_WriteFailure;
    }

    bool Advance(uint32_t bytes) {
        m_Copy.bytes += bytes;
        Progress_t progress;
        progress.doneBytes = m_Copy.bytes;
        m_IsCancelled = m_Copy.progress && !m_Copy.progress(progress);
        return !m_IsCancelled;
    }

    // What lies in a directory follows right behind it, so that its name may come again.
    void CopyEntry(const NtfsEntry_t& entry, const CopyPlace_t& place,
                   std::vector<std::pair<CopyPlace_t, NtfsFileInfo_t>>& directories) {
        if (!m_LeftOut.empty() && entry.path.compare(0, m_LeftOut.size(), m_LeftOut) == 0)
            return;
        m_LeftOut.clear();
        const std::string problem = WhatPrevents(entry);
        if (!problem.empty()) {
            LeaveOut(entry, problem);
            return;
        }
        if (entry.file.isDirectory) {
            std::error_code failed;
            if (std::filesystem::create_directory(place.name, failed))
                directories.emplace_back(place, entry.file);
            else
                LeaveOut(entry, failed ? failed.message() : "stands in its directory twice");
            return;
        }
        const CZuError error = CopyFile(entry.file, place);
        if (!error.IsErrorSet())
            KeepTimes(place, entry.file, m_Copy.problems);
        else if (!IsEnded())
            m_Copy.problems.push_back(entry.path + ": " + DescribeError(error));
    }

    void LeaveOut(const NtfsEntry_t& entry, const std::string& problem) {
        m_Copy.problems.push_back(entry.path + ": " + problem);
        if (entry.file.isDirectory || !entry.file.problem.empty())
            m_LeftOut = entry.path + "/";
    }

    static std::string WhatPrevents(const NtfsEntry_t& entry) {
        if (!entry.file.problem.empty())
            return entry.file.problem;
        if (!IsPossibleName(entry.name))
            return "is no name that a file can have here";
        if (IsNtfsLink(entry.file.reparseTag))
            return LinkText(entry.file.reparseTag);
        return "";
    }

    INtfsFiles& m_Volume;
    NtfsCopy_t& m_Copy;
    bool m_IsCancelled = false;
    CZuError m_WriteFailure;
    std::string m_LeftOut;  // a directory, with a slash behind it
};

// The last part of a path on the volume; empty for the root.
std::string LastPart(const std::string& path) {
    const size_t end = path.find_last_not_of("/\\");
    if (end == std::string::npos)
        return "";
    const size_t start = path.find_last_of("/\\", end);
    return path.substr(start == std::string::npos ? 0 : start + 1,
                       end - (start == std::string::npos ? 0 : start + 1) + 1);
}

// A directory takes the copy in, under its own name.
std::string FinalTarget(const std::string& path, const std::string& target) {
    std::error_code ignored;  // what can't be looked at shows itself when the copy is made
    if (!std::filesystem::is_directory(target, ignored))
        return target;
    const std::string name = LastPart(path);
    return name.empty() ? target : (std::filesystem::path(target) / name).string();
}

CZuError CopyOneFile(INtfsFiles& volume, const NtfsFileInfo_t& file, const std::string& target, NtfsCopy_t& copy) {
    CStagedFile staged;
    ZU_RETURN_IF_ERROR(staged.Begin(target, copy.isReplacing));
    const CopyPlace_t place{staged.TemporaryName(), target};
    ZU_RETURN_IF_ERROR(CCopier(volume, copy).CopyFile(file, place));
    KeepTimes(place, file, copy.problems);
    return staged.Commit();
}

CZuError CopyDirectory(INtfsFiles& volume, const NtfsFileInfo_t& directory, const std::string& target,
                       NtfsCopy_t& copy) {
    CStagedDirectory staged;
    ZU_RETURN_IF_ERROR(staged.Begin(target));
    ZU_RETURN_IF_ERROR(CCopier(volume, copy).CopyTree(directory, {staged.TemporaryName(), target}));
    return staged.Commit();
}

}  // namespace

CZuError CopyFromNtfs(INtfsFiles& volume, const std::string& path, const std::string& target, NtfsCopy_t& copy) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        uint64_t frn = 0;
        NtfsFileInfo_t file;
        ZU_RETURN_IF_ERROR(volume.Find(path, frn));
        ZU_RETURN_IF_ERROR(volume.Describe(frn, file));
        if (IsNtfsLink(file.reparseTag))
            return Refusal(path + ": " + LinkText(file.reparseTag));
        const std::string finalTarget = FinalTarget(path, target);
        if (!file.isDirectory)
            return CopyOneFile(volume, file, finalTarget, copy);
        if (!copy.isRecursive)
            return Refusal(path + ": is a directory; copy it with --recursive");
        return CopyDirectory(volume, file, finalTarget, copy);
    });
}
