#include "agent/CreateDisk.h"

#include <filesystem>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "agent/ErrorText.h"
#include "agent/detail/OutOfMemory.h"
#include "agent/detail/StagedFile.h"
#include "foundation/detail/ErrorHandling.h"
#include "foundation/detail/ScopeGuard.h"

namespace {

// The core keeps the low bits of a larger number.
constexpr uint64_t MostSectors = 0xFFFFFFFF;

// The files are made under their own names, which the descriptor repeats, in a directory of their
// own beside the target, and get their places when they are whole.
class CDiskMaking {
public:
    CDiskMaking(const std::string& target, ProductType_t product) : m_Product(product) {
        const std::filesystem::path path(target);
        m_Names = {path.filename().string()};
        if (product == VirtualProdType_VMware)
            m_Names.insert(m_Names.begin(), path.stem().string() + "-flat.vmdk");
        m_Directory = path.parent_path().empty() ? "." : path.parent_path();
    }

    CZuError Run(uint64_t volumeSectors, bool replacing, std::vector<std::string>& files) {
        for (const std::string& name : m_Names)
            ZU_RETURN_IF_ERROR(m_Staged.emplace_back().Begin((m_Directory / name).string(), replacing));
        const std::filesystem::path making = m_Staged.back().TemporaryName() + ".d";
        std::error_code error;
        if (!std::filesystem::create_directory(making, error))
            return ErrorAt(m_Directory.string(), SystemFailure(error.value()));
        const ScopeGuard removeDirectory([&] {
            std::error_code ignored;  // a hidden directory that nobody asked for is all that is left
            std::filesystem::remove_all(making, ignored);
        });
        ZU_RETURN_IF_ERROR(Make(volumeSectors, making));
        ZU_RETURN_IF_ERROR(MoveToStage(making));
        for (CStagedFile& file : m_Staged)
            ZU_RETURN_IF_ERROR(file.Sync());
        for (CStagedFile& file : m_Staged) {
            ZU_RETURN_IF_ERROR(file.Commit());
            files.push_back(file.Target());
        }
        return CZuError();
    }

private:
    // The core takes what follows the last backslash for the file's own name.
    CZuError Make(uint64_t volumeSectors, const std::filesystem::path& making) const {
        const std::string diskFile = making.string() + "\\" + m_Names.front();
        const std::string descriptor = (making / m_Names.back()).string();
        return ErrorAt(m_Staged.back().Target(), CHardDiskReader::CreateVirtualDisk(volumeSectors, diskFile.c_str(),
                                                                                    descriptor.c_str(), m_Product));
    }

    CZuError MoveToStage(const std::filesystem::path& making) const {
        for (size_t index = 0; index < m_Names.size(); ++index) {
            std::error_code error;
            std::filesystem::rename(making / m_Names[index], m_Staged[index].TemporaryName(), error);
            if (error)
                return ErrorAt(m_Staged[index].Target(), SystemFailure(error.value()));
        }
        return CZuError();
    }

    const ProductType_t m_Product;
    std::vector<std::string> m_Names;  // the disk's data first
    std::filesystem::path m_Directory;
    std::vector<CStagedFile> m_Staged;
};

}  // namespace

CZuError CreateEmptyDisk(const std::string& target, uint64_t volumeSectors, ProductType_t product, bool replacing,
                         std::vector<std::string>& files) {
    return WithinMemory(OutOfMemory, [&]() -> CZuError {
        files.clear();
        if (volumeSectors > MostSectors)
            return Refusal(CZuString::Format("{1}: a partition of {2} sectors is larger than its table can tell; {3}, "
                                             "just below 2 TiB, are the most",
                                             target, volumeSectors, MostSectors));
        return CDiskMaking(target, product).Run(volumeSectors, replacing, files);
    });
}
