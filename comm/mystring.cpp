#include "comm/mystring.h"

#include <iconv.h>

#include <cctype>
#include <cstring>
#include <memory>
#include <type_traits>

namespace {

// No size given: the caller promised a destination large enough for the input.
constexpr size_t kUnbounded = static_cast<size_t>(-1);

// Copies n bytes, or fewer so that a destination of outSize keeps its last byte (and so a
// zeroed destination stays terminated). Writes no terminator.
void CopyBounded(char* out, size_t outSize, const char* src, size_t n) {
    if (!out || outSize == 0) return;
    if (n > outSize - 1) n = outSize - 1;
    std::memcpy(out, src, n);
}

// Locates the first `open` and, independently, the first `close` of `text`.
bool FindTags(const char* text, const char* open, const char* close, const char** value,
              const char** closeAt) {
    if (!text || !open || !close) return false;
    const char* o = std::strstr(text, open);
    const char* c = std::strstr(text, close);
    if (!o || !c) return false;
    *value = o + std::strlen(open);
    *closeAt = c;
    return true;
}

// Copies the value between the tags; a close tag before the open one copies nothing.
void CopyTagValue(const char* value, const char* closeAt, char* out, size_t outSize) {
    if (closeAt > value) CopyBounded(out, outSize, value, static_cast<size_t>(closeAt - value));
}

struct IconvCloser {
    void operator()(void* cd) const { iconv_close(static_cast<iconv_t>(cd)); }
};
using IconvHandle = std::unique_ptr<std::remove_pointer_t<iconv_t>, IconvCloser>;

// Devices send GBK text, which GB2312 cannot hold (a name with "堃" would stop there);
// GB18030 is a superset of both, so GB2312 text converts exactly as before.
constexpr char kDeviceCharset[] = "GB18030";

enum class ConvertResult { kOpenFailed, kFailed, kOk };

ConvertResult Convert(const char* to, const char* from, const char* in, int length, char* out,
                      int& outLeft) {
    iconv_t raw = iconv_open(to, from);
    if (raw == reinterpret_cast<iconv_t>(-1)) return ConvertResult::kOpenFailed;
    IconvHandle cd(raw);
    if (!in || !out || length < 0) return ConvertResult::kFailed;
    std::memset(out, 0, static_cast<size_t>(length));
    // iconv's interface is not const-correct; it only reads the input.
    char* src = const_cast<char*>(in);
    char* dst = out;
    size_t srcLeft = static_cast<size_t>(length);
    size_t dstLeft = static_cast<size_t>(length);
    if (iconv(cd.get(), &src, &srcLeft, &dst, &dstLeft) == static_cast<size_t>(-1))
        return ConvertResult::kFailed;
    outLeft = static_cast<int>(dstLeft);
    return ConvertResult::kOk;
}

}  // namespace

int findstr(const char* text, const char* pattern) {
    if (!text || !pattern) return -1;
    const int n = static_cast<int>(std::strlen(text));
    const int m = static_cast<int>(std::strlen(pattern));
    int start = -1;
    int index = 0;
    bool matching = false;
    for (int i = 0; i < n; ++i) {
        if (!matching) {
            if (text[i] == pattern[0]) {
                matching = true;
                start = i;
                if (n - i < m) return -1;
            }
        } else if (index < m && text[i] != pattern[index]) {
            // Deliberately no restart at this byte: the simple scan is kept as it is.
            matching = false;
        }
        if (matching) {
            if (++index == m) break;
        } else {
            index = 0;
        }
    }
    return (matching && index == m) ? start : -1;
}

int getvaluebeforech(const char* text, char* out, char ch) {
    return getvaluebeforech(text, out, kUnbounded, ch);
}

int getvaluebeforech(const char* text, char* out, size_t outSize, char ch) {
    if (!text) return -1;
    const char* at = std::strchr(text, ch);
    // strchr finds the terminator for ch == 0; that still means "end reached".
    const bool found = at && ch != '\0';
    const size_t n = found ? static_cast<size_t>(at - text) : std::strlen(text);
    CopyBounded(out, outSize, text, n);
    return found ? static_cast<int>(n) : -1;
}

const char* strchri(const char* text, char ch) {
    if (!text || !*text) return nullptr;
    for (const char* p = text + std::strlen(text); p-- != text;) {
        if (*p == ch) return p;
    }
    return nullptr;
}

char* strchri(char* text, char ch) {
    return const_cast<char*>(strchri(static_cast<const char*>(text), ch));
}

const char* strstri(const char* text, const char* pattern) {
    if (!text || !pattern) return nullptr;
    for (const char* start = text; *start; ++start) {
        const char* t = start;
        const char* p = pattern;
        while (*p && *t &&
               std::tolower(static_cast<unsigned char>(*t)) ==
                   std::tolower(static_cast<unsigned char>(*p))) {
            ++t;
            ++p;
        }
        if (!*p) return start;
    }
    return nullptr;
}

char* strstri(char* text, const char* pattern) {
    return const_cast<char*>(strstri(static_cast<const char*>(text), pattern));
}

int _get_value(const char* text, const char* key, char* out) {
    return _get_value(text, key, out, kUnbounded);
}

int _get_value(const char* text, const char* key, char* out, size_t outSize) {
    if (!text || !key) return 0;
    const char* at = std::strstr(text, key);
    if (!at) return 0;
    // A key with no "=" after it yields an empty value.
    const char* eq = std::strchr(at + std::strlen(key), '=');
    if (eq) CopyBounded(out, outSize, eq + 1, std::strlen(eq + 1));
    return 1;
}

int get_field_value(const char* text, char* name, char* value) {
    return get_field_value(text, name, kUnbounded, value, kUnbounded);
}

int get_field_value(const char* text, char* name, size_t nameSize, char* value,
                    size_t valueSize) {
    if (!text) return 0;
    const char* eq = std::strchr(text, '=');
    if (!eq) return 0;
    CopyBounded(name, nameSize, text, static_cast<size_t>(eq - text) + 1);
    CopyBounded(value, valueSize, eq + 1, std::strlen(eq + 1));
    return 1;
}

int _get_valuefromstring(const char* text, const char* open, const char* close, char* out,
                         size_t outSize) {
    const char* value = nullptr;
    const char* closeAt = nullptr;
    if (!FindTags(text, open, close, &value, &closeAt)) return 0;
    CopyTagValue(value, closeAt, out, outSize);
    return 1;
}

int _get_valuefromstring_v1(const char* text, const char* open, const char* close, char* out,
                            size_t outSize) {
    const char* value = nullptr;
    const char* closeAt = nullptr;
    if (!FindTags(text, open, close, &value, &closeAt)) return -1;
    CopyTagValue(value, closeAt, out, outSize);
    return static_cast<int>(closeAt - text);
}

int UTF8ToCHAR(const char* in, int length, char* out, int& outLeft) {
    return Convert(kDeviceCharset, "utf-8", in, length, out, outLeft) == ConvertResult::kOk ? 1 : 0;
}

int CHARToUTF8(const char* in, int length, char* out, int& outLeft) {
    // Unlike its sibling, a converter that cannot be opened counts as success.
    return Convert("utf-8", kDeviceCharset, in, length, out, outLeft) == ConvertResult::kFailed ? 0 : 1;
}
