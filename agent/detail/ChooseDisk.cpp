#include "agent/detail/ChooseDisk.h"

#include "foundation/detail/ErrorHandling.h"

namespace {

// "1 (system.vmdk), 2 (data.vmdk)"
std::string NumberedDisks(const CBackupSetReader& set) {
    std::string text;
    for (const SetDisk_t& disk : set.Disks())
        text += (text.empty() ? "" : ", ") + std::to_string(disk.id + 1) + " (" + disk.imageName + ")";
    return text;
}

}  // namespace

CZuError ChooseDisk(const CBackupSetReader& set, const std::optional<uint64_t>& number, SetDisk_t& disk) {
    const std::vector<SetDisk_t>& disks = set.Disks();
    if (!number.has_value() && disks.size() != 1)
        return Refusal(set.Path() + ": holds several disks; say --disk with the number of one: " + NumberedDisks(set));
    const uint64_t wanted = number.value_or(1);
    if (wanted == 0 || wanted > disks.size())
        return Refusal(CZuString::Format("{1}: has no disk {2}; it holds {3}", set.Path(), wanted, NumberedDisks(set)));
    disk = disks[static_cast<size_t>(wanted) - 1];
    return CZuError();
}
