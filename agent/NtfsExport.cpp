#include "agent/NtfsExport.h"

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "agent/ErrorText.h"
#include "agent/detail/StagedFile.h"
#include "foundation/ZuFile.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr int ownerReadsAndWrites = 0600;

// What takes the bytes can't answer with an error: it is kept until the reading has ended.
struct Output_t {
    CZuFile file;
    CZuError error;
    Progress_t done;
};

bool WritePiece(Output_t& output, const ProgressCallback_t& progress, const char* bytes, uint32_t size) {
    output.error = WriteFileAt(output.file, output.done.doneBytes, 0, bytes, size, nullptr);
    if (output.error.IsErrorSet())
        return false;
    output.done.doneBytes += size;
    if (progress && !progress(output.done))
        output.error = Refusal("The export was cancelled");
    return !output.error.IsErrorSet();
}

}  // namespace

CZuError ExportBackupStream(INtfsFiles& volume, uint64_t frn, const std::string& target, bool isReplacing,
                            const ProgressCallback_t& progress) {
    CStagedFile staged;
    ZU_RETURN_IF_ERROR(staged.Begin(target, isReplacing));
    Output_t output;
    ZU_RETURN_IF_ERROR(
        ErrorAt(target, output.file.Open(staged.TemporaryName().c_str(),
                                         OpenForWriting | OpenCreating | OpenOnlyNew | OpenAsBinary | OpenNotInherited,
                                         ownerReadsAndWrites)));
    ZU_RETURN_IF_ERROR(volume.ReadBackupStream(
        frn, [&](const char* bytes, uint32_t size) { return WritePiece(output, progress, bytes, size); }));
    ZU_RETURN_IF_ERROR(ErrorAt(target, output.error));
    ZU_RETURN_IF_ERROR(ErrorAt(target, output.file.Close()));
    return staged.Commit();
}
