// The input is the record of a Xen host's disk image, as XML from a backup set that somebody else wrote. What is read
// of it has to come back from what is written of it, in both forms, and memory follows the text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "VirtualServer/VMInfo/XenVDIRecord.h"
#include "fuzz/support/Demand.h"
#include "fuzz/support/MemoryCeiling.h"

namespace {

using VirtualServer::XenVDIRecord;

constexpr uint64_t LeastBytes = 64 * 1024;  // what reading takes anyway
constexpr uint64_t MostPerByte = 64;

bool AreSame(const XenVDIRecord& one, const XenVDIRecord& other) {
    return one.GetUuid() == other.GetUuid() && one.GetName_label() == other.GetName_label() &&
           one.GetName_description() == other.GetName_description() && one.GetSr_guid() == other.GetSr_guid() &&
           one.GetVbdguids() == other.GetVbdguids() && one.GetVirtual_size() == other.GetVirtual_size() &&
           one.GetPhysical_utilisation() == other.GetPhysical_utilisation() && one.GetType() == other.GetType() &&
           one.GetSharable() == other.GetSharable() && one.GetRead_only() == other.GetRead_only() &&
           one.GetOther_config() == other.GetOther_config() && one.GetStorage_lock() == other.GetStorage_lock() &&
           one.GetLocation() == other.GetLocation() && one.GetManaged() == other.GetManaged() &&
           one.GetMissing() == other.GetMissing() && one.GetParentvdiguid() == other.GetParentvdiguid() &&
           one.GetXenstore_data() == other.GetXenstore_data() && one.GetSm_config() == other.GetSm_config() &&
           one.GetIs_a_snapshot() == other.GetIs_a_snapshot() &&
           one.GetSnapshot_of_guid() == other.GetSnapshot_of_guid() &&
           one.GetSnapshotguids() == other.GetSnapshotguids() && one.GetSnapshot_time() == other.GetSnapshot_time() &&
           one.GetTags() == other.GetTags();
}

eXmlMsgRet ReadWithinCeiling(XenVDIRecord& message, std::string& text) {
    const CMemoryCeiling ceiling(LeastBytes + MostPerByte * text.size());
    return message.unserialize(text);
}

void DemandThatItComesBack(XenVDIRecord& message, bool isDocument) {
    std::string text;
    Demand(message.serialize(text, isDocument) == XmlMsgRet_Success, "what was read can be written");
    XenVDIRecord again;
    Demand(again.unserialize(text) == XmlMsgRet_Success, "what was written can be read");
    Demand(AreSame(message, again), "it comes back as it was");
}

// Any bytes at all may be a text of a record.
void TryAsText(const std::string& bytes) {
    XenVDIRecord message;
    message.SetName_description(bytes);
    message.SetTags({bytes, "", bytes});
    DemandThatItComesBack(message, false);
    DemandThatItComesBack(message, true);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(data, data + size);
    TryAsText(text);
    XenVDIRecord message;
    message.SetUuid("as before");
    const XenVDIRecord before = message;
    const eXmlMsgRet result = ReadWithinCeiling(message, text);
    Demand(result >= XmlMsgRet_Success && result <= XmlMsgRet_BadValue, "a result is one of those told");
    if (result != XmlMsgRet_Success) {
        Demand(AreSame(before, message), "a failure changes nothing");
        return 0;
    }
    DemandThatItComesBack(message, false);
    DemandThatItComesBack(message, true);
    return 0;
}
