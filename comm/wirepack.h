// Little-endian writers for fixed-size wire records. A record is written field by field
// into a zero-filled slot, so padding and the bytes after a text's terminator are zero
// and nothing uninitialised leaves the process.
#pragma once

#include <cstdint>
#include <cstring>

namespace wire {

inline void PutI32(unsigned char* p, int32_t v) {
    const uint32_t u = static_cast<uint32_t>(v);
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(u >> (8 * i));
}

inline void PutF64(unsigned char* p, double d) {
    uint64_t u;
    std::memcpy(&u, &d, sizeof u);
    for (int i = 0; i < 8; ++i) p[i] = static_cast<unsigned char>(u >> (8 * i));
}

// Copies the text of a `size`-byte field (at most size-1 bytes, so it stays terminated).
inline void PutText(unsigned char* p, const char* field, size_t size) {
    std::memcpy(p, field, strnlen(field, size - 1));
}

}  // namespace wire
