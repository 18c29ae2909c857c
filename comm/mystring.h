// Tag and string helpers over zero-terminated byte strings. They never allocate.
// Destinations are zeroed by the caller; every copy is bounded by the destination size
// where one is given (the forms without a size assume the caller sized it for the input).
#pragma once

#include <cstddef>

int findstr(const char* text, const char* pattern);
int getvaluebeforech(const char* text, char* out, char ch);
char* strchri(char* text, char ch);
const char* strchri(const char* text, char ch);
char* strstri(char* text, const char* pattern);
const char* strstri(const char* text, const char* pattern);
int _get_value(const char* text, const char* key, char* out);
int get_field_value(const char* text, char* name, char* value);

// The bytes between the first `open` and the first `close` of `text`, copied without a
// terminator (zero `out` first). At most outSize-1 bytes are copied.
int _get_valuefromstring(const char* text, const char* open, const char* close, char* out,
                         size_t outSize);
// Same copy; returns the offset of the first `close` from the start of `text`, or -1.
int _get_valuefromstring_v1(const char* text, const char* open, const char* close, char* out,
                            size_t outSize);
template <size_t N>
int _get_valuefromstring(const char* text, const char* open, const char* close, char (&out)[N]) {
    return _get_valuefromstring(text, open, close, out, N);
}
template <size_t N>
int _get_valuefromstring_v1(const char* text, const char* open, const char* close,
                            char (&out)[N]) {
    return _get_valuefromstring_v1(text, open, close, out, N);
}

// UTF-8 <-> GB2312 through iconv. `out` holds at least `length` bytes; outLeft receives
// the output space left over.
int UTF8ToCHAR(const char* in, int length, char* out, int& outLeft);
int CHARToUTF8(const char* in, int length, char* out, int& outLeft);
