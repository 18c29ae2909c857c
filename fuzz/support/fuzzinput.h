// Turning a fuzzer's bytes into the shapes the readers take. Buffers are sized exactly, so
// AddressSanitizer flags a reader that looks one byte past its input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace fuzz {

class Input {
public:
    Input(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    // The next byte (0 once the input is used up): selectors and split sizes.
    uint8_t Byte() {
        if (m_size == 0) return 0;
        --m_size;
        return *m_data++;
    }
    const uint8_t* data() const { return m_data; }
    size_t size() const { return m_size; }
    // The rest as a zero-terminated text in a buffer of exactly its size plus one.
    std::vector<char> Text() const {
        std::vector<char> t(m_size + 1, '\0');
        if (m_size) std::memcpy(t.data(), m_data, m_size);
        return t;
    }
    // The rest in a buffer of exactly its size.
    std::vector<uint8_t> Bytes() const { return std::vector<uint8_t>(m_data, m_data + m_size); }

private:
    const uint8_t* m_data;
    size_t m_size;
};

}  // namespace fuzz
