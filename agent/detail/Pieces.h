#pragma once

#include <cstdint>

// How many bytes of a long file or stream are moved at once.
constexpr uint32_t PieceBytes = 1U << 20U;
