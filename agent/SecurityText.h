#pragma once

#include <string>

#include "foundation/ZuError.h"
#include "platform/Export.h"

// A security descriptor in the words of SDDL, the definition language of Windows. What the descriptor doesn't have is
// empty.
struct SecurityText_t {
    std::string owner;  // "BA", or a SID as "S-1-5-21-..."
    std::string group;
    std::string dacl;  // "D:AI(A;ID;FA;;;SY)"
    std::string sacl;  // "S:..."
    std::string sddl;  // all of it, "O:BAG:SYD:..."
};

// Fails for a descriptor that leads out of itself. Domain accounts have no short words: those depend on the domain.
DISKSTREAM_EXPORT CZuError DescribeSecurity(const std::string& descriptor, SecurityText_t& text);
