#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "platform/DescriptorParts.h"

namespace {

// Room for one part, as the system wants it: aligned for what it writes there.
class CRoom {
public:
    DWORD* Size() { return &m_Size; }
    template <typename Part> Part* For() {
        m_Units.resize((m_Size + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t));
        return m_Size != 0 ? reinterpret_cast<Part*>(m_Units.data()) : nullptr;
    }

private:
    DWORD m_Size = 0;
    std::vector<std::max_align_t> m_Units;
};

struct AbsoluteDescriptor_t {
    CRoom head;
    CRoom owner;
    CRoom group;
    CRoom sacl;
    CRoom dacl;
};

bool MakeAbsolute(SECURITY_DESCRIPTOR* selfRelative, AbsoluteDescriptor_t& made) {
    return MakeAbsoluteSD(selfRelative, made.head.For<SECURITY_DESCRIPTOR>(), made.head.Size(), made.dacl.For<ACL>(),
                          made.dacl.Size(), made.sacl.For<ACL>(), made.sacl.Size(), made.owner.For<SID>(),
                          made.owner.Size(), made.group.For<SID>(), made.group.Size()) != 0;
}

// The system made its copy of so many bytes of the part.
void TakeSize(CRoom& room, SecurityDescriptorPart_t& part) {
    part.size = std::min<uint32_t>(part.size, *room.Size());
    if (part.size == 0)
        part.bytes = nullptr;
}

}  // namespace

// The system isn't told how long the descriptor is, so what leaves it is refused before it looks.
int SplitSecurityDescriptor(const char* descriptor, uint32_t size, SecurityDescriptorParts_t& parts) {
    SecurityDescriptorParts_t found;
    if (const int error = FindDescriptorParts(descriptor, size, found); error != 0)
        return error;

    // The system takes no descriptor whose control word doesn't say that it is one of these, which its place says
    // already.
    std::vector<char> copy(descriptor, descriptor + size);
    auto* const selfRelative = reinterpret_cast<SECURITY_DESCRIPTOR*>(copy.data());
    selfRelative->Control |= SE_SELF_RELATIVE;
    AbsoluteDescriptor_t made;
    if (!MakeAbsolute(selfRelative, made) && !MakeAbsolute(selfRelative, made))  // the first one tells the sizes
        return static_cast<int>(GetLastError());

    TakeSize(made.owner, found.owner);
    TakeSize(made.group, found.group);
    TakeSize(made.sacl, found.sacl);
    TakeSize(made.dacl, found.dacl);
    parts = found;
    return 0;
}
