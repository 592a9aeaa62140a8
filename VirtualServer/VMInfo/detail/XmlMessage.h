#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "VirtualServer/VMInfo/XenVDIRecord.h"

// How a message stands in XML: an element of the message's name with one element for each field. A text is the text of
// its element, a number decimal, a truth value "true" or "false", and a list an element `Item` for each of its texts.
// See docs/formats/xen-vdi-record.md.

// One field: its element's name, and where its value lies.
struct XmlMessageField_t {
    const char* name;
    std::variant<std::string*, int64_t*, bool*, std::list<std::string>*> value;
};

// Writes the message behind what `out` holds. For `isDocument` see `CXmlWriter`.
void WriteXmlMessage(const char* name, const std::vector<XmlMessageField_t>& fields, bool isDocument, std::string& out);

// Sets all fields from the message in `text`; a field that isn't there becomes empty. What isn't ours, elements of
// other names and attributes, is passed over. On failure no field changes, and the log tells about where the text is
// wrong.
eXmlMsgRet ReadXmlMessage(std::string_view text, const char* name, const std::vector<XmlMessageField_t>& fields);
