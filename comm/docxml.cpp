#include "comm/docxml.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace docxml {

namespace {

struct TagPair {
    char open[32];
    char close[32];
    explicit TagPair(const char* tag) {
        snprintf(open, sizeof open, "<%s>", tag);
        snprintf(close, sizeof close, "</%s>", tag);
    }
};

}  // namespace

int ToInt(const char* text) {
    long v = strtol(text, nullptr, 10);
    return static_cast<int>(static_cast<uint32_t>(v));
}

bool Cut(const char* text, const char* tag, char* out, size_t size) {
    memset(out, 0, size);
    TagPair t(tag);
    return _get_valuefromstring_v1(text, t.open, t.close, out, size) >= 0;
}

bool ReadInt(const char* text, const char* tag, int& field) {
    char value[kValueSize];
    if (!Cut(text, tag, value)) return false;
    field = ToInt(value);
    return true;
}

Elements::Elements(const char* text, const char* tag) : m_pos(text) {
    TagPair t(tag);
    memcpy(m_open, t.open, sizeof m_open);
    memcpy(m_close, t.close, sizeof m_close);
    m_closeLen = strlen(m_close);
}

bool Elements::Next(char* out, size_t size) {
    memset(out, 0, size);
    int at = _get_valuefromstring_v1(m_pos, m_open, m_close, out, size);
    if (at < 0) return false;
    m_pos += static_cast<size_t>(at) + m_closeLen;
    return true;
}

DocWriter::DocWriter(char* out, size_t size) : m_out(out), m_size(out ? size : 0) {
    if (m_size) m_out[0] = '\0';
}

DocWriter& DocWriter::Add(const char* fmt, ...) {
    size_t room = m_len < m_size ? m_size - m_len : 0;
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(room ? m_out + m_len : nullptr, room, fmt, ap);
    va_end(ap);
    if (n > 0) m_len += static_cast<size_t>(n);
    return *this;
}

}  // namespace docxml
