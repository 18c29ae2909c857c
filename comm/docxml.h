// Reading and writing helpers shared by the analytics document readers and writers
// (camdoc.cpp, ruledoc.cpp). Values are cut by plain tag search; every copy is bounded by
// its destination, and the writer never passes the end of its buffer.
#pragma once

#include <cstddef>
#include <cstring>

#include "comm/mystring.h"

namespace docxml {

// Size of the work buffer a single value is cut into; longer values are cut short.
constexpr size_t kValueSize = 100;

// atoi without undefined behaviour: a long value wraps to 32 bits as glibc's atoi does.
int ToInt(const char* text);

// Bounded copy of a terminated text into a record array.
template <size_t N>
void CopyText(char (&field)[N], const char* text) {
    size_t n = strnlen(text, N - 1);
    memcpy(field, text, n);
    field[n] = '\0';
}

// Cuts the value of the first "<tag>"/"</tag>" of `text` into a zeroed `out`.
// False (and `out` empty) when either tag is missing.
bool Cut(const char* text, const char* tag, char* out, size_t size);
template <size_t N>
bool Cut(const char* text, const char* tag, char (&out)[N]) {
    return Cut(text, tag, out, N);
}

// A field whose tag is absent keeps the value it had.
template <size_t N>
void ReadText(const char* text, const char* tag, char (&field)[N]) {
    char value[kValueSize];
    if (Cut(text, tag, value)) CopyText(field, value);
}
bool ReadInt(const char* text, const char* tag, int& field);

// Walks the repeated "<tag>" elements of a text in document order. Each step resumes just
// after the closing tag it found, so a stray closing tag cannot stall the walk.
class Elements {
public:
    Elements(const char* text, const char* tag);
    // The next element's content into a zeroed `out`; false when none is left.
    bool Next(char* out, size_t size);

private:
    const char* m_pos;
    char m_open[32];
    char m_close[32];
    size_t m_closeLen;
};

// Appends formatted text to a buffer of `size` bytes and keeps it terminated. It never
// writes past the end; Length() keeps counting what the whole text would need, so a writer
// over (nullptr, 0) measures a text without writing it.
class DocWriter {
public:
    DocWriter(char* out, size_t size);
    __attribute__((format(printf, 2, 3))) DocWriter& Add(const char* fmt, ...);
    // "<tag>value</tag>" from a record array, read only inside its bounds.
    template <size_t N>
    DocWriter& Tag(const char* tag, const char (&field)[N]) {
        return Add("<%s>%.*s</%s>", tag, static_cast<int>(strnlen(field, N)), field, tag);
    }
    DocWriter& Tag(const char* tag, int value) { return Add("<%s>%d</%s>", tag, value, tag); }
    size_t Length() const { return m_len; }
    bool Fits() const { return m_len < m_size; }

private:
    char* m_out;
    size_t m_size;
    size_t m_len = 0;
};

// Writes one document with `write(DocWriter&)` into `out` (size bytes, not zero): 1 when
// it fits; otherwise 0 with `out` emptied, since a cut document would be read wrongly.
template <class Write>
int WriteWhole(char* out, size_t size, Write write) {
    DocWriter w(out, size);
    write(w);
    if (w.Fits()) return 1;
    out[0] = '\0';
    return 0;
}

}  // namespace docxml
