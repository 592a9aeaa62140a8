#include "VirtualServer/VMInfo/UtilityFunctions.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <limits>

#include "foundation/HBPlatformInfo.h"
#include "foundation/LgDebug.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

constexpr unsigned int DefaultTransferSize = 0x100000;

// One direction of chunked transfer: where its limit comes from, and its words.
struct Transfer_t {
    const char* function;
    const char* settingsKey;
    const char* verb;
    const char* shortText;
    std::atomic<unsigned int> limit;  // 0 until the settings were looked at

    // Threads that come here together store the same number.
    unsigned int Limit() {
        if (limit.load(std::memory_order_relaxed) == 0) {
            unsigned long setting = DefaultTransferSize;
            if (HBPlatformInfo::getNumber("VirtualServer", settingsKey, &setting) == 0)
                setting = DefaultTransferSize;
            setting = std::min<unsigned long>(setting, std::numeric_limits<unsigned int>::max());
            limit.store(static_cast<unsigned int>(setting), std::memory_order_relaxed);
            LgDebug().Debug(function, "Using max %s size of %d bytes", verb, static_cast<int>(setting));
        }
        return limit.load(std::memory_order_relaxed);
    }
};

Transfer_t g_reading{
    "::ReadFileAt", "ImageLevelMaxReadSize", "read", "Read failed. Tried {1} bytes read {2} bytes", {0}};
Transfer_t g_writing{
    "::WriteFileAt", "ImageLevelMaxWriteSize", "write", "Write failed. Tried {1} bytes wrote {2} bytes", {0}};

struct TransferCounts_t {
    unsigned int total = 0;
    unsigned int last = 0;
};

// `move(done, chunk, moved)` moves up to `chunk` bytes to or from the caller's byte `done`.
template <typename Move>
CZuError MoveInChunks(Transfer_t& transfer, CZuFile& file, uint64_t offset, int whence, unsigned int size,
                      TransferCounts_t& counts, Move move) {
    const unsigned int limit = transfer.Limit();
    ZU_RETURN_IF_ERROR(file.Seek(static_cast<int64_t>(offset), whence, nullptr));
    while (counts.total < size) {
        counts.last = 0;
        ZU_RETURN_IF_ERROR(move(counts.total, std::min(size - counts.total, limit), counts.last));
        if (counts.last == 0)  // a limit of 0 moves nothing, for ever
            break;
        counts.total += counts.last;
    }
    if (counts.total != size)
        return Refusal(CZuString::Format(transfer.shortText, size, counts.total));
    return CZuError();
}

int HexDigit(char character) {
    if (character >= '0' && character <= '9')
        return character - '0';
    if (character >= 'a' && character <= 'f')
        return character - 'a' + 10;
    if (character >= 'A' && character <= 'F')
        return character - 'A' + 10;
    return -1;
}

constexpr size_t GuidTextLength = 36;
constexpr size_t BracedGuidEnd = 37;
constexpr std::array<size_t, 4> GuidDashes{8, 13, 18, 23};
constexpr std::array<size_t, 8> GuidBytePairs{19, 21, 24, 26, 28, 30, 32, 34};

// Reads `pairs` pairs at `text`, most significant first.
bool ReadHexNumber(const char* text, size_t pairs, uint32_t& number) {
    number = 0;
    for (size_t pair = 0; pair < pairs; ++pair) {
        const int byte = HexPairToByte(text + 2 * pair);
        if (byte < 0)
            return false;
        number = (number << 8U) | static_cast<uint32_t>(byte);
    }
    return true;
}

bool HasDashes(const char* text) {
    return std::all_of(GuidDashes.begin(), GuidDashes.end(), [text](size_t at) { return text[at] == '-'; });
}

// `text` holds at least 36 characters.
bool ReadGuidFields(const char* text, GUID& guid) {
    uint32_t first = 0;
    uint32_t second = 0;
    uint32_t third = 0;
    if (!ReadHexNumber(text, 4, first) || !ReadHexNumber(text + 9, 2, second) || !ReadHexNumber(text + 14, 2, third))
        return false;
    guid.Data1 = first;
    guid.Data2 = static_cast<uint16_t>(second);
    guid.Data3 = static_cast<uint16_t>(third);
    for (size_t index = 0; index < GuidBytePairs.size(); ++index) {
        const int byte = HexPairToByte(text + GuidBytePairs[index]);
        if (byte < 0)
            return false;
        guid.Data4[index] = static_cast<uint8_t>(byte);
    }
    return true;
}

bool ReadGuid(const char* text, GUID& guid) {
    const bool isBraced = text[0] == '{';
    if (isBraced && (strnlen(text, BracedGuidEnd + 1) <= BracedGuidEnd || text[BracedGuidEnd] != '}'))
        return false;
    const char* const form = isBraced ? text + 1 : text;
    if (strnlen(form, GuidTextLength) < GuidTextLength)
        return false;
    return HasDashes(form) && ReadGuidFields(form, guid);
}

}  // namespace

CZuError ReadFileAt(CZuFile& file, uint64_t offset, int whence, void* buffer, unsigned int size, unsigned int* got) {
    TransferCounts_t counts;
    if (got != nullptr)
        *got = 0;
    char* const target = static_cast<char*>(buffer);
    ZU_RETURN_IF_ERROR(MoveInChunks(g_reading, file, offset, whence, size, counts,
                                    [&](unsigned int done, unsigned int chunk, unsigned int& moved) {
                                        return file.Read(target + done, chunk, &moved);
                                    }));
    if (got != nullptr)
        *got = counts.total;
    return CZuError();
}

CZuError WriteFileAt(CZuFile& file, uint64_t offset, int whence, const void* buffer, unsigned int size,
                     unsigned int* put) {
    TransferCounts_t counts;
    if (put != nullptr)
        *put = 0;
    const char* const source = static_cast<const char*>(buffer);
    ZU_RETURN_IF_ERROR(MoveInChunks(g_writing, file, offset, whence, size, counts,
                                    [&](unsigned int done, unsigned int chunk, unsigned int& moved) {
                                        return file.Write(source + done, chunk, &moved);
                                    }));
    if (put != nullptr)
        *put = counts.last;
    return CZuError();
}

uint16_t ByteSwap16(uint16_t value) {
    return __builtin_bswap16(value);
}

uint32_t ByteSwap32(uint32_t value) {
    return __builtin_bswap32(value);
}

uint64_t ByteSwap64(uint64_t value) {
    return __builtin_bswap64(value);
}

int HexPairToByte(const char* text) {
    const int high = HexDigit(text[0]);
    if (high < 0)
        return -1;
    const int low = HexDigit(text[1]);
    return low < 0 ? -1 : high * 16 + low;
}

int ParseGuidText(const char* text, GUID* out) {
    *out = GUID{};
    GUID guid{};
    if (text == nullptr || !ReadGuid(text, guid))
        return 0;
    *out = guid;
    return 1;
}

CZuString FormatGuidText(const GUID& guid) {
    char text[64];
    const uint8_t* const bytes = guid.Data4;
    std::snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  static_cast<unsigned int>(guid.Data1), guid.Data2, guid.Data3, bytes[0], bytes[1], bytes[2], bytes[3],
                  bytes[4], bytes[5], bytes[6], bytes[7]);
    return text;
}

void ComputeCHS(uint64_t totalSectors, unsigned int* cylinders, unsigned int* heads, unsigned int* sectors) {
    constexpr unsigned int headsPerCylinder = 255;
    constexpr unsigned int sectorsPerTrack = 63;
    constexpr uint64_t sectorsPerCylinder = headsPerCylinder * sectorsPerTrack;
    *heads = headsPerCylinder;
    *sectors = sectorsPerTrack;
    *cylinders =
        static_cast<unsigned int>(totalSectors / sectorsPerCylinder + (totalSectors % sectorsPerCylinder != 0 ? 1 : 0));
}

std::string SplitFileName(const std::string& path, std::string* directory) {
    const size_t separator = path.rfind('\\');
    if (separator == std::string::npos)
        return path;
    std::string name = path.substr(separator + 1);  // first, since `directory` may be `path`
    if (directory != nullptr)
        *directory = path.substr(0, separator);
    return name;
}
