// The 12-byte message header and the server's replies, in host form.
//
//   offset 0  1 byte   nType          message type
//   offset 1  1 byte   nFrom          sub-code
//   offset 2  1 byte   nTo            second sub-code
//   offset 3  1 byte   padding        zero
//   offset 4  4 bytes  nFromClientID  signed, little-endian
//   offset 8  4 bytes  nToClientID    signed, little-endian
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace cmsclient {

struct MsgHead {
    static constexpr size_t kSize = 12;

    uint8_t nType = 0;
    uint8_t nFrom = 0;
    uint8_t nTo = 0;
    int32_t nFromClientID = 0;
    int32_t nToClientID = 0;

    // Writes the 12 wire bytes to `out`.
    void Encode(uint8_t* out) const;
    // Reads the first 12 bytes of a message; false when there are fewer.
    static bool Decode(const uint8_t* data, size_t n, MsgHead& head);
};

// A whole message body (header then payload), ready to be framed.
std::vector<uint8_t> BuildMessage(const MsgHead& head, const void* payload, size_t n);

// What a server frame says: a state (sub-code 0) or a block of data (sub-code 1).
struct Reply {
    enum class Kind { kState, kData };
    Kind kind = Kind::kState;
    int32_t state = 0;
    std::vector<uint8_t> data;

    bool IsState() const { return kind == Kind::kState; }
};

// Parses one server frame body. False when it is not a type-17 message, has an unknown
// sub-code, or is a state reply without its 4 bytes.
bool ParseReply(const uint8_t* body, size_t n, Reply& reply);

}  // namespace cmsclient
