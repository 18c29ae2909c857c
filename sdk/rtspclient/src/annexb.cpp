#include "annexb.h"

namespace rtspc {

namespace {

const uint8_t kStartCode[4] = {0, 0, 0, 1};

void AppendNal(Bytes& out, const uint8_t* nal, size_t size) {
    out.insert(out.end(), kStartCode, kStartCode + 4);
    out.insert(out.end(), nal, nal + size);
}

// Offset just past the next start code at or after `from`, or `size` when there is none.
size_t NextNal(const uint8_t* data, size_t size, size_t from) {
    for (size_t i = from; i + 3 <= size; ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) return i + 3;
    }
    return size;
}

int NalType(Codec codec, uint8_t first) {
    return codec == Codec::kH264 ? (first & 0x1f) : ((first >> 1) & 0x3f);
}

// Big-endian reader that refuses to run past its end.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool Skip(size_t n) {
        if (n > m_size - m_at) return false;
        m_at += n;
        return true;
    }
    bool Read(size_t n, uint32_t& value) {
        if (n > m_size - m_at) return false;
        value = 0;
        for (size_t i = 0; i < n; ++i) value = (value << 8) | m_data[m_at++];
        return true;
    }
    // A NAL unit of `n` bytes, copied behind a start code.
    bool Nal(size_t n, Bytes& out) {
        if (n > m_size - m_at) return false;
        AppendNal(out, m_data + m_at, n);
        m_at += n;
        return true;
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_at = 0;
};

// avcC: version, profile, compatibility, level, length size, then SPS and PPS lists.
bool ParseAvcC(Reader& r, Bytes& out, int& lengthSize) {
    uint32_t v = 0;
    if (!r.Skip(4) || !r.Read(1, v)) return false;
    lengthSize = static_cast<int>(v & 3) + 1;
    for (int list = 0; list < 2; ++list) {
        uint32_t count = 0;
        if (!r.Read(1, count)) return false;
        if (list == 0) count &= 0x1f;
        for (uint32_t i = 0; i < count; ++i) {
            uint32_t len = 0;
            if (!r.Read(2, len) || !r.Nal(len, out)) return false;
        }
    }
    return true;
}

// hvcC: a 22-byte fixed part ending with the length size, then arrays of NAL units.
bool ParseHvcC(Reader& r, Bytes& out, int& lengthSize) {
    uint32_t v = 0;
    if (!r.Skip(21) || !r.Read(1, v)) return false;
    lengthSize = static_cast<int>(v & 3) + 1;
    uint32_t arrays = 0;
    if (!r.Read(1, arrays)) return false;
    for (uint32_t a = 0; a < arrays; ++a) {
        uint32_t count = 0;
        if (!r.Skip(1) || !r.Read(2, count)) return false;
        for (uint32_t i = 0; i < count; ++i) {
            uint32_t len = 0;
            if (!r.Read(2, len) || !r.Nal(len, out)) return false;
        }
    }
    return true;
}

}  // namespace

bool IsAnnexB(const uint8_t* data, size_t size) {
    if (size >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1) return true;
    return size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1;
}

bool LengthPrefixedToAnnexB(const uint8_t* data, size_t size, int lengthSize, Bytes& out) {
    if (lengthSize != 1 && lengthSize != 2 && lengthSize != 4) return false;
    Reader r(data, size);
    size_t left = size;
    while (left > 0) {
        uint32_t len = 0;
        if (!r.Read(static_cast<size_t>(lengthSize), len) || !r.Nal(len, out)) return false;
        left -= static_cast<size_t>(lengthSize) + len;
    }
    return true;
}

Bytes ParameterSets(Codec codec, const uint8_t* extra, size_t size, int* lengthSize) {
    Bytes out;
    int len = 0;
    if (extra && size > 0) {
        if (IsAnnexB(extra, size)) {
            out.assign(extra, extra + size);
        } else if (extra[0] == 1) {
            Reader r(extra, size);
            bool ok = codec == Codec::kH264 ? ParseAvcC(r, out, len) : ParseHvcC(r, out, len);
            if (!ok) {
                out.clear();
                len = 0;
            }
        }
    }
    if (lengthSize) *lengthSize = len;
    return out;
}

NalSummary Summarise(Codec codec, const uint8_t* data, size_t size) {
    NalSummary s;
    for (size_t at = NextNal(data, size, 0); at < size; at = NextNal(data, size, at)) {
        int type = NalType(codec, data[at]);
        if (codec == Codec::kH264) {
            s.parameterSets |= type == 7;
            s.keyPicture |= type == 5;
        } else {
            s.parameterSets |= type == 32 || type == 33;
            s.keyPicture |= type >= 16 && type <= 21;
        }
    }
    return s;
}

}  // namespace rtspc
