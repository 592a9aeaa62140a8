#pragma once

#include <cstdint>
#include <string>

// `value` as lower-case hexadecimal digits, filled up with zeros in front to `width`.
inline std::string HexDigits(uint64_t value, size_t width) {
    std::string digits(width, '0');
    for (size_t at = width; at-- > 0; value /= 16)
        digits[at] = "0123456789abcdef"[value % 16];
    return digits;
}

// The record that a backup keeps of a disk: the signature, the record's own size, the disk's
// sectors, and what the kind of disk puts behind them.
inline std::string MetadataRecordText(const std::string& signature, uint64_t totalSectors, const std::string& body) {
    return signature + HexDigits(32 + body.size(), 8) + HexDigits(totalSectors, 16) + body;
}
