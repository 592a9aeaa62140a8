#include "agent/detail/SetRows.h"

#include <cstring>

void BindEncoded(CSetStatement& statement, int firstIndex, const EncodedBlock_t& encoded) {
    statement.BindBytes(firstIndex, encoded.digest.data(), encoded.digest.size());
    statement.Bind(firstIndex + 1, static_cast<int64_t>(encoded.encoding));
    if (encoded.encoding == BlockEncoding_t::Zeros)
        statement.BindNull(firstIndex + 2);
    else
        statement.BindBytes(firstIndex + 2, encoded.data, encoded.sizeBytes);
}

bool ReadDigest(CSetStatement& row, int column, BlockDigest_t& digest) {
    uint32_t size = 0;
    const char* const bytes = row.Bytes(column, size);
    if (bytes == nullptr || size != digest.size())
        return false;
    std::memcpy(digest.data(), bytes, digest.size());
    return true;
}

bool ReadEncoded(CSetStatement& row, int firstColumn, EncodedBlock_t& encoded) {
    if (!ReadDigest(row, firstColumn, encoded.digest))
        return false;
    const int64_t encoding = row.Number(firstColumn + 1);
    encoded.encoding = static_cast<BlockEncoding_t>(encoding);
    encoded.data = row.Bytes(firstColumn + 2, encoded.sizeBytes);
    return encoding >= static_cast<int>(BlockEncoding_t::Zeros) && encoding <= static_cast<int>(BlockEncoding_t::Zstd);
}

bool ReadUpTo(CSetStatement& row, int column, uint64_t most, uint64_t& number) {
    number = static_cast<uint64_t>(row.Number(column));
    return row.IsNumber(column) && number <= most;
}
