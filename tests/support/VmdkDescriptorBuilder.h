#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TempDir.h"

// The text of a VMDK descriptor file. Without a word it has a version, both CIDs and the type of a
// split flat disk, and no extent. Lines come in the order of the calls, behind those four.
class CVmdkDescriptorBuilder {
public:
    CVmdkDescriptorBuilder& Version(const std::string& value) { return Set(m_Version, "version=" + value); }
    CVmdkDescriptorBuilder& Cid(const std::string& value) { return Set(m_Cid, "CID=" + value); }
    CVmdkDescriptorBuilder& ParentCid(const std::string& value) { return Set(m_ParentCid, "parentCID=" + value); }
    // `word` without its quotes.
    CVmdkDescriptorBuilder& CreateType(const std::string& word) {
        return Set(m_CreateType, "createType=\"" + word + "\"");
    }
    CVmdkDescriptorBuilder& Line(const std::string& line) {
        m_Lines.push_back(line);
        return *this;
    }
    // RW 100 FLAT "name" 0
    CVmdkDescriptorBuilder& Extent(uint64_t sectors, const std::string& type, const std::string& fileName,
                                   const std::string& access = "RW") {
        const std::string line = access + " " + std::to_string(sectors) + " " + type + " \"" + fileName + "\"";
        return Line(type == "FLAT" ? line + " 0" : line);
    }
    CVmdkDescriptorBuilder& LineEnd(const std::string& end) { return Set(m_LineEnd, end); }
    // Bytes behind the last line, as they are.
    CVmdkDescriptorBuilder& Tail(const std::string& bytes) { return Set(m_Tail, bytes); }

    std::string Text() const {
        std::string text = "# Disk DescriptorFile" + m_LineEnd;
        for (const std::string& line : {m_Version, m_Cid, m_ParentCid, m_CreateType})
            text += line + m_LineEnd;
        for (const std::string& line : m_Lines)
            text += line + m_LineEnd;
        return text + m_Tail;
    }
    std::string WriteTo(const CTempDir& dir, const std::string& name = "disk.vmdk") const {
        return dir.Write(name, Text());
    }

private:
    CVmdkDescriptorBuilder& Set(std::string& target, const std::string& value) {
        target = value;
        return *this;
    }

    std::string m_Version = "version=1";
    std::string m_Cid = "CID=fffffffe";
    std::string m_ParentCid = "parentCID=ffffffff";
    std::string m_CreateType = "createType=\"twoGbMaxExtentFlat\"";
    std::vector<std::string> m_Lines;
    std::string m_LineEnd = "\n";
    std::string m_Tail;
};
