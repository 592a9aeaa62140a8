#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "platform/Export.h"

// A virtual disk image as a Xen host describes it.
struct xen_vdi_record {
    std::string uuid;
    std::string name_label;
    std::string name_description;
    std::string sr_guid;  // of the storage repository
    std::list<std::string> vbd_guids;
    int64_t virtual_size = 0;          // bytes
    int64_t physical_utilisation = 0;  // bytes
    int type = 0;
    bool sharable = false;
    bool read_only = false;
    std::map<std::string, std::string> other_config;
    bool storage_lock = false;
    std::string location;
    bool managed = false;
    bool missing = false;
    std::string parent_vdi_guid;
    std::map<std::string, std::string> xenstore_data;
    std::map<std::string, std::string> sm_config;
    bool is_a_snapshot = false;
    std::string snapshot_of_guid;
    std::list<std::string> snapshot_guids;
    std::string snapshot_time;
    std::list<std::string> tags;
};

// How `serialize` and `unserialize` end.
enum eXmlMsgRet : int {
    XmlMsgRet_Success = 0,
    XmlMsgRet_OutOfMemory = 1,
    XmlMsgRet_NotXml = 2,        // not a well-formed XML 1.0 document in UTF-8
    XmlMsgRet_DocumentType = 3,  // with a document type, by which a few bytes could stand for any number of others
    XmlMsgRet_TooDeep = 4,       // with more elements inside each other than any message has
    XmlMsgRet_OtherMessage = 5,  // with an outermost element of another name
    XmlMsgRet_BadValue = 6,      // with a field that stands twice, or whose value isn't of its kind
};

struct XmlMessageField_t;

// A message as XML text. A message tells its name and its fields; writing and reading are the same for all.
class DISKSTREAM_EXPORT CXmlMessageBase {
public:
    CXmlMessageBase() = default;
    CXmlMessageBase(const CXmlMessageBase&) = default;
    CXmlMessageBase& operator=(const CXmlMessageBase&) = default;
    virtual ~CXmlMessageBase() = default;

    // Makes `out` the message's text. With `isDocument` that is a document of its own, with an XML declaration and each
    // element indented on a line; without, it is the bare element on one line, as it can stand inside another document.
    // `unserialize` takes both, and texts come back byte by byte, whatever they hold.
    eXmlMsgRet serialize(std::string& out, bool isDocument);

    // Sets all fields from the text `in`; those that it doesn't tell become empty. Elements that aren't ours are passed
    // over. On failure the message stays as it was. `in` isn't changed.
    eXmlMsgRet unserialize(std::string& in);

private:
    // The name of the outermost element, and where the fields lie, in the order in which they are written.
    virtual const char* MessageName() const = 0;
    virtual std::vector<XmlMessageField_t> Fields() = 0;
};

namespace VirtualServer {

// The same contents as `xen_vdi_record`, field by field, as a message. The type is text here, and a map is a list of
// texts: key, ":::>", value.
class DISKSTREAM_EXPORT XenVDIRecord : public CXmlMessageBase {
public:
    using Texts_t = std::list<std::string>;

    const std::string& GetUuid() const { return m_Uuid; }
    void SetUuid(const std::string& text) { m_Uuid = text; }
    const std::string& GetName_label() const { return m_NameLabel; }
    void SetName_label(const std::string& text) { m_NameLabel = text; }
    const std::string& GetName_description() const { return m_NameDescription; }
    void SetName_description(const std::string& text) { m_NameDescription = text; }
    const std::string& GetSr_guid() const { return m_SrGuid; }
    void SetSr_guid(const std::string& text) { m_SrGuid = text; }
    const Texts_t& GetVbdguids() const { return m_Vbdguids; }
    void SetVbdguids(const Texts_t& texts) { m_Vbdguids = texts; }
    int64_t GetVirtual_size() const { return m_VirtualSize; }
    void SetVirtual_size(int64_t number) { m_VirtualSize = number; }
    int64_t GetPhysical_utilisation() const { return m_PhysicalUtilisation; }
    void SetPhysical_utilisation(int64_t number) { m_PhysicalUtilisation = number; }
    const std::string& GetType() const { return m_Type; }
    void SetType(const std::string& text) { m_Type = text; }
    bool GetSharable() const { return m_Sharable; }
    void SetSharable(bool isTrue) { m_Sharable = isTrue; }
    bool GetRead_only() const { return m_ReadOnly; }
    void SetRead_only(bool isTrue) { m_ReadOnly = isTrue; }
    const Texts_t& GetOther_config() const { return m_OtherConfig; }
    void SetOther_config(const Texts_t& texts) { m_OtherConfig = texts; }
    bool GetStorage_lock() const { return m_StorageLock; }
    void SetStorage_lock(bool isTrue) { m_StorageLock = isTrue; }
    const std::string& GetLocation() const { return m_Location; }
    void SetLocation(const std::string& text) { m_Location = text; }
    bool GetManaged() const { return m_Managed; }
    void SetManaged(bool isTrue) { m_Managed = isTrue; }
    bool GetMissing() const { return m_Missing; }
    void SetMissing(bool isTrue) { m_Missing = isTrue; }
    const std::string& GetParentvdiguid() const { return m_Parentvdiguid; }
    void SetParentvdiguid(const std::string& text) { m_Parentvdiguid = text; }
    const Texts_t& GetXenstore_data() const { return m_XenstoreData; }
    void SetXenstore_data(const Texts_t& texts) { m_XenstoreData = texts; }
    const Texts_t& GetSm_config() const { return m_SmConfig; }
    void SetSm_config(const Texts_t& texts) { m_SmConfig = texts; }
    bool GetIs_a_snapshot() const { return m_IsASnapshot; }
    void SetIs_a_snapshot(bool isTrue) { m_IsASnapshot = isTrue; }
    const std::string& GetSnapshot_of_guid() const { return m_SnapshotOfGuid; }
    void SetSnapshot_of_guid(const std::string& text) { m_SnapshotOfGuid = text; }
    const Texts_t& GetSnapshotguids() const { return m_Snapshotguids; }
    void SetSnapshotguids(const Texts_t& texts) { m_Snapshotguids = texts; }
    const std::string& GetSnapshot_time() const { return m_SnapshotTime; }
    void SetSnapshot_time(const std::string& text) { m_SnapshotTime = text; }
    const Texts_t& GetTags() const { return m_Tags; }
    void SetTags(const Texts_t& texts) { m_Tags = texts; }

private:
    const char* MessageName() const override;
    std::vector<XmlMessageField_t> Fields() override;

    std::string m_Uuid;
    std::string m_NameLabel;
    std::string m_NameDescription;
    std::string m_SrGuid;
    Texts_t m_Vbdguids;
    int64_t m_VirtualSize = 0;          // bytes
    int64_t m_PhysicalUtilisation = 0;  // bytes
    std::string m_Type;
    bool m_Sharable = false;
    bool m_ReadOnly = false;
    Texts_t m_OtherConfig;
    bool m_StorageLock = false;
    std::string m_Location;
    bool m_Managed = false;
    bool m_Missing = false;
    std::string m_Parentvdiguid;
    Texts_t m_XenstoreData;
    Texts_t m_SmConfig;
    bool m_IsASnapshot = false;
    std::string m_SnapshotOfGuid;
    Texts_t m_Snapshotguids;
    std::string m_SnapshotTime;
    Texts_t m_Tags;
};

}  // namespace VirtualServer
