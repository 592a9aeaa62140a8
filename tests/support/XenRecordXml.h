#pragma once

#include <list>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/XenVDIRecord.h"

// The record of a virtual disk image as text, element by element. Sound by default, with a value of its own in each
// field; a test replaces what it wants to break.
class CXenRecordXml {
public:
    CXenRecordXml() {
        m_Elements = {
            {"Uuid", "0c5c9a80-1d2e-4f00-9b7a-000000000001"},
            {"Name_label", "disk one"},
            {"Name_description", "what it is for"},
            {"Sr_guid", "sr-1"},
            {"Vbdguids", Items({"vbd-1", "vbd-2"})},
            {"Virtual_size", "1048576"},
            {"Physical_utilisation", "4096"},
            {"Type", "2"},
            {"Sharable", "true"},
            {"Read_only", "false"},
            {"Other_config", Items({"colour:::&gt;red", "size:::&gt;large"})},
            {"Storage_lock", "true"},
            {"Location", "shelf 3"},
            {"Managed", "true"},
            {"Missing", "true"},
            {"Parentvdiguid", "parent-1"},
            {"Xenstore_data", Items({"path:::&gt;/local/1"})},
            {"Sm_config", Items({"kind:::&gt;raw"})},
            {"Is_a_snapshot", "true"},
            {"Snapshot_of_guid", "origin-1"},
            {"Snapshotguids", Items({"snapshot-1"})},
            {"Snapshot_time", "20240229T12:00:00Z"},
            {"Tags", Items({"first", "second"})},
        };
    }

    // The inside of an element, as it stands between its tags.
    CXenRecordXml& Put(const std::string& name, const std::string& inside) {
        for (auto& [known, value] : m_Elements) {
            if (known == name)
                value = inside;
        }
        return *this;
    }
    CXenRecordXml& Without(const std::string& name) {
        std::erase_if(m_Elements, [&](const auto& element) { return element.first == name; });
        return *this;
    }

    // Behind all elements.
    CXenRecordXml& Add(const std::string& xml) {
        m_Added += xml;
        return *this;
    }

    std::string Element() const {
        std::string text = "<XenVDIRecord>";
        for (const auto& [name, inside] : m_Elements)
            text += "<" + name + ">" + inside + "</" + name + ">";
        return text + m_Added + "</XenVDIRecord>";
    }

    // A document with each element on a line of its own.
    std::string Document() const {
        std::string text = Element();
        BreakBefore(text, "<Item>", "\n    ");
        for (const auto& [name, inside] : m_Elements) {
            BreakBefore(text, "<" + name + ">", "\n  ");
            if (inside.empty() ? IsList(name) : inside.rfind("<Item", 0) == 0)
                BreakBefore(text, "</" + name + ">", "\n  ");
        }
        BreakBefore(text, "</XenVDIRecord>", "\n");
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + text + "\n";
    }

    static std::string Items(const std::list<std::string>& insides) {
        std::string text;
        for (const std::string& inside : insides)
            text += "<Item>" + inside + "</Item>";
        return text;
    }

private:
    static bool IsList(const std::string& name) {
        return name == "Vbdguids" || name == "Other_config" || name == "Xenstore_data" || name == "Sm_config" ||
               name == "Snapshotguids" || name == "Tags";
    }
    static void BreakBefore(std::string& text, const std::string& piece, const std::string& lineBreak) {
        for (size_t at = text.find(piece); at != std::string::npos;
             at = text.find(piece, at + lineBreak.size() + piece.size()))
            text.insert(at, lineBreak);
    }

    std::vector<std::pair<std::string, std::string>> m_Elements;
    std::string m_Added;
};

// The record that a sound text tells of.
inline xen_vdi_record SoundXenRecord() {
    xen_vdi_record record;
    record.uuid = "0c5c9a80-1d2e-4f00-9b7a-000000000001";
    record.name_label = "disk one";
    record.name_description = "what it is for";
    record.sr_guid = "sr-1";
    record.vbd_guids = {"vbd-1", "vbd-2"};
    record.virtual_size = 1048576;
    record.physical_utilisation = 4096;
    record.type = 2;
    record.sharable = true;
    record.other_config = {{"colour", "red"}, {"size", "large"}};
    record.storage_lock = true;
    record.location = "shelf 3";
    record.managed = true;
    record.missing = true;
    record.parent_vdi_guid = "parent-1";
    record.xenstore_data = {{"path", "/local/1"}};
    record.sm_config = {{"kind", "raw"}};
    record.is_a_snapshot = true;
    record.snapshot_of_guid = "origin-1";
    record.snapshot_guids = {"snapshot-1"};
    record.snapshot_time = "20240229T12:00:00Z";
    record.tags = {"first", "second"};
    return record;
}

// All fields as one text, for comparisons that show what differs.
inline std::string XenRecordText(const xen_vdi_record& record) {
    std::string text;
    const auto put = [&text](const char* name, const std::string& value) {
        text += std::string(name) + "=[" + value + "]\n";
    };
    const auto putList = [&put](const char* name, const std::list<std::string>& values) {
        for (const std::string& value : values)
            put(name, value);
    };
    const auto putMap = [&put](const char* name, const std::map<std::string, std::string>& values) {
        for (const auto& [key, value] : values)
            put(name, key + "][" + value);
    };
    const auto putNumber = [&put](const char* name, int64_t value) { put(name, std::to_string(value)); };
    put("uuid", record.uuid);
    put("name_label", record.name_label);
    put("name_description", record.name_description);
    put("sr_guid", record.sr_guid);
    putList("vbd_guids", record.vbd_guids);
    putNumber("virtual_size", record.virtual_size);
    putNumber("physical_utilisation", record.physical_utilisation);
    putNumber("type", record.type);
    putNumber("sharable", record.sharable);
    putNumber("read_only", record.read_only);
    putMap("other_config", record.other_config);
    putNumber("storage_lock", record.storage_lock);
    put("location", record.location);
    putNumber("managed", record.managed);
    putNumber("missing", record.missing);
    put("parent_vdi_guid", record.parent_vdi_guid);
    putMap("xenstore_data", record.xenstore_data);
    putMap("sm_config", record.sm_config);
    putNumber("is_a_snapshot", record.is_a_snapshot);
    put("snapshot_of_guid", record.snapshot_of_guid);
    putList("snapshot_guids", record.snapshot_guids);
    put("snapshot_time", record.snapshot_time);
    putList("tags", record.tags);
    return text;
}
