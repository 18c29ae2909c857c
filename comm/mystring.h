// Tag and string helpers over zero-terminated byte strings. They never allocate.
// Destinations are zeroed by the caller and the helpers write no terminator of their own.
// Every form that takes an out size copies at most outSize-1 bytes, so a zeroed destination
// stays terminated; the forms without a size assume the caller sized it for the input.
// A null text, pattern or tag reads as "not found".
#pragma once

#include <cstddef>

// Position of the first match of `pattern`, or -1. A deliberately simple one-pass scan: a
// mismatch does not restart at the failing byte, so "aab" is not found in "aaab".
int findstr(const char* text, const char* pattern);

// Copies the bytes of `text` before the first `ch` into `out`. Returns how many bytes stand
// before `ch`, or -1 when `ch` does not occur (then the whole text is copied).
int getvaluebeforech(const char* text, char* out, char ch);
int getvaluebeforech(const char* text, char* out, size_t outSize, char ch);

// The last `ch` of `text`, or null (also for a null or empty text).
char* strchri(char* text, char ch);
const char* strchri(const char* text, char ch);
// The first case-insensitive match of `pattern` in `text`, or null.
char* strstri(char* text, const char* pattern);
const char* strstri(const char* text, const char* pattern);

// 1 and everything after the first "=" that follows `key`, or 0 when `key` is absent.
int _get_value(const char* text, const char* key, char* out);
int _get_value(const char* text, const char* key, char* out, size_t outSize);

// Splits `text` at its first "=": `name` receives the part up to and including the "="
// (deliberately keeping it), `value` the rest. 0 when there is no "=".
int get_field_value(const char* text, char* name, char* value);
int get_field_value(const char* text, char* name, size_t nameSize, char* value, size_t valueSize);

// The bytes between the first `open` and the first `close` of `text`, copied without a
// terminator (zero `out` first). At most outSize-1 bytes are copied. 1 when both tags are
// found, else 0 with `out` untouched.
int _get_valuefromstring(const char* text, const char* open, const char* close, char* out,
                         size_t outSize);
// Same copy; returns the offset of the first `close` from the start of `text`, or -1.
// Readers of repeated elements advance by this offset plus the length of `close`.
int _get_valuefromstring_v1(const char* text, const char* open, const char* close, char* out,
                            size_t outSize);
template <size_t N>
int _get_valuefromstring(const char* text, const char* open, const char* close, char (&out)[N]) {
    return _get_valuefromstring(text, open, close, out, N);
}
template <size_t N>
int _get_valuefromstring_v1(const char* text, const char* open, const char* close, char (&out)[N]) {
    return _get_valuefromstring_v1(text, open, close, out, N);
}

// UTF-8 <-> GB18030 (a superset of GB2312 and GBK) through iconv. `out` holds at least `length`
// bytes and is zeroed over that many; the conversion may use at most `length` bytes of output or
// fails as a whole. outLeft receives the output space left over (not the bytes written). 1 on
// success. CHARToUTF8 returns 1 when the converter cannot be opened (kept as its callers expect).
int UTF8ToCHAR(const char* in, int length, char* out, int& outLeft);
int CHARToUTF8(const char* in, int length, char* out, int& outLeft);
