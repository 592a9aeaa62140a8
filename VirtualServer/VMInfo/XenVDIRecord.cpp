#include "VirtualServer/VMInfo/XenVDIRecord.h"

#include <new>
#include <stdexcept>

#include "VirtualServer/VMInfo/detail/XmlMessage.h"

namespace {

template <typename Step> eXmlMsgRet WithinMemoryOfMessage(Step step) {
    try {
        return step();
    } catch (const std::bad_alloc&) {
        return XmlMsgRet_OutOfMemory;
    } catch (const std::length_error&) {
        return XmlMsgRet_OutOfMemory;
    }
}

}  // namespace

eXmlMsgRet CXmlMessageBase::serialize(std::string& out, bool isDocument) {
    return WithinMemoryOfMessage([&] {
        std::string text;
        WriteXmlMessage(MessageName(), Fields(), isDocument, text);
        out.swap(text);
        return XmlMsgRet_Success;
    });
}

eXmlMsgRet CXmlMessageBase::unserialize(std::string& in) {
    return WithinMemoryOfMessage([&] { return ReadXmlMessage(in, MessageName(), Fields()); });
}

namespace VirtualServer {

const char* XenVDIRecord::MessageName() const {
    return "XenVDIRecord";
}

std::vector<XmlMessageField_t> XenVDIRecord::Fields() {
    return {
        {"Uuid", &m_Uuid},
        {"Name_label", &m_NameLabel},
        {"Name_description", &m_NameDescription},
        {"Sr_guid", &m_SrGuid},
        {"Vbdguids", &m_Vbdguids},
        {"Virtual_size", &m_VirtualSize},
        {"Physical_utilisation", &m_PhysicalUtilisation},
        {"Type", &m_Type},
        {"Sharable", &m_Sharable},
        {"Read_only", &m_ReadOnly},
        {"Other_config", &m_OtherConfig},
        {"Storage_lock", &m_StorageLock},
        {"Location", &m_Location},
        {"Managed", &m_Managed},
        {"Missing", &m_Missing},
        {"Parentvdiguid", &m_Parentvdiguid},
        {"Xenstore_data", &m_XenstoreData},
        {"Sm_config", &m_SmConfig},
        {"Is_a_snapshot", &m_IsASnapshot},
        {"Snapshot_of_guid", &m_SnapshotOfGuid},
        {"Snapshotguids", &m_Snapshotguids},
        {"Snapshot_time", &m_SnapshotTime},
        {"Tags", &m_Tags},
    };
}

}  // namespace VirtualServer
