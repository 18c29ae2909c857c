// Bounded text helpers for fixed character arrays: copies that always terminate and an
// appender that never writes past its buffer. Record fields are read with strnlen, so an
// array that lost its terminator is still read only inside its own bounds.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace btext {

// Length of a zero-terminated text that may fill its whole array.
template <size_t N>
inline size_t Len(const char (&src)[N]) {
    return strnlen(src, N);
}

// Copies at most n bytes of src (stopping at its terminator) into dst of dstSize bytes,
// truncating so that dst stays terminated. A null src copies nothing.
inline void CopyN(char* dst, size_t dstSize, const char* src, size_t n) {
    if (!dst || dstSize == 0) return;
    size_t len = src ? strnlen(src, n) : 0;
    if (len >= dstSize) len = dstSize - 1;
    if (len) std::memcpy(dst, src, len);
    dst[len] = '\0';
}

inline void Copy(char* dst, size_t dstSize, const char* src) {
    CopyN(dst, dstSize, src, src ? std::strlen(src) : 0);
}

template <size_t N>
inline void Copy(char (&dst)[N], const char* src) {
    Copy(dst, N, src);
}

// Copies a record field that may fill its whole array.
template <size_t N, size_t M>
inline void CopyField(char (&dst)[N], const char (&src)[M]) {
    CopyN(dst, N, src, M);
}

// Copies a piece of a larger text, cut to fit, so that the C calls can read it.
template <size_t N>
inline void CopyView(char (&dst)[N], std::string_view v) {
    CopyN(dst, N, v.data(), v.size());
}

// Decimal value of a piece as atoi reads it, through a work buffer of workSize bytes (at
// most 24): only the first workSize - 1 characters of a longer piece count.
inline int ToInt(std::string_view v, size_t workSize = 24) {
    char work[24] = {};
    CopyN(work, workSize < sizeof(work) ? workSize : sizeof(work), v.data(), v.size());
    return std::atoi(work);
}

// Appends to a caller's buffer, truncating at its end; the text stays terminated.
class Writer {
public:
    // Starts at the beginning of `out`; use At() to continue after existing text.
    Writer(char* out, size_t size) : m_out(out), m_size(out ? size : 0), m_len(0) {
        if (m_size) m_out[0] = '\0';
    }
    static Writer At(char* out, size_t size) {
        Writer w(nullptr, 0);
        w.m_out = out;
        w.m_size = out ? size : 0;
        w.m_len = w.m_size ? strnlen(out, w.m_size - 1) : 0;
        if (w.m_size) w.m_out[w.m_len] = '\0';
        return w;
    }

    // Str takes a zero-terminated text; Field a record array, read only inside its bounds.
    // (Two names, since an overload on arrays would lose to the pointer form.)
    Writer& Str(const char* text) { return AddN(text, text ? std::strlen(text) : 0); }
    template <size_t N>
    Writer& Field(const char (&field)[N]) {
        return AddN(field, strnlen(field, N));
    }
    Writer& AddN(const char* text, size_t n) {
        if (m_len + 1 >= m_size || !text) return *this;
        size_t room = m_size - 1 - m_len;
        if (n > room) n = room;
        std::memcpy(m_out + m_len, text, n);
        m_len += n;
        m_out[m_len] = '\0';
        return *this;
    }
    Writer& Int(long long v) {
        char num[24];
        int n = std::snprintf(num, sizeof(num), "%lld", v);
        return AddN(num, n > 0 ? static_cast<size_t>(n) : 0);
    }
    size_t Length() const { return m_len; }

private:
    char* m_out;
    size_t m_size;
    size_t m_len;
};

}  // namespace btext
