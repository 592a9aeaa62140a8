#pragma once

#include <cstdint>

#include "foundation/detail/ByteView.h"
#include "ntfs/detail/NtfsFormat.h"

// Walks the entries of an attribute list. An entry shorter than its own fields ends it, so each step moves forward.
class CAttributeListWalk {
public:
    explicit CAttributeListWalk(CByteView list) : m_Rest(list) {}

    bool Next(NtfsAttributeListEntry_t& entry) {
        if (!m_Rest.Get(0, entry) || entry.length < sizeof(entry))
            return false;
        m_Rest = m_Rest.From(entry.length);
        return true;
    }

private:
    CByteView m_Rest;
};
