#include "httpcodec.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace vorn {

namespace {

bool IsTokenChar(unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           std::strchr("!#$%&'*+-.^_`|~", c) != nullptr;
}

bool IsToken(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c != 0 && IsTokenChar(c); });
}

bool IsControl(unsigned char c) { return c < 0x20 || c == 0x7f; }

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; }

bool EqualNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](char x, char y) { return Lower(x) == Lower(y); });
}

std::string_view TrimBlanks(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

template <size_t N>
void CopyField(char (&field)[N], std::string_view value) {
    std::memset(field, 0, N);
    std::memcpy(field, value.data(), std::min(value.size(), N - 1));
}

// Header values that go into the record. Each returns 0, or the status that refuses the
// request. Names are compared without regard to case; a repeated header overwrites,
// except Content-Length, whose copies must agree.
using FieldSetter = int (*)(HttpHeadFields& head, std::string_view value);

int SetContentLength(HttpHeadFields& head, std::string_view value) {
    if (value.empty()) return 400;
    uint64_t length = 0;
    for (char c : value) {
        if (c < '0' || c > '9') return 400;
        if (length <= HttpCodec::kMaxBodyBytes)
            length = length * 10 + static_cast<unsigned>(c - '0');
    }
    if (length > HttpCodec::kMaxBodyBytes) return 413;
    if (head.sawLength && static_cast<uint64_t>(head.record.nBadyLen) != length) return 400;
    head.sawLength = true;
    head.record.nBadyLen = static_cast<int32_t>(length);
    return 0;
}

int SetWsVersion(HttpHeadFields& head, std::string_view value) {
    int32_t version = 0;
    bool number = !value.empty() && value.size() <= 9;
    for (char c : value) {
        if (c < '0' || c > '9') number = false;
        if (number) version = version * 10 + (c - '0');
    }
    head.record.nWSVersion = number ? version : 0;
    return 0;
}

const struct {
    const char* name;
    FieldSetter set;
} kHeaderFields[] = {
    {"Content-Length", SetContentLength},
    {"Transfer-Encoding", [](HttpHeadFields&, std::string_view) { return 400; }},
    {"Host",
     [](HttpHeadFields& h, std::string_view v) { return CopyField(h.record.szHost, v), 0; }},
    {"Connection",
     [](HttpHeadFields& h, std::string_view v) { return CopyField(h.record.szConnection, v), 0; }},
    {"Upgrade",
     [](HttpHeadFields& h, std::string_view v) { return CopyField(h.record.szUpgrade, v), 0; }},
    {"Sec-WebSocket-Key",
     [](HttpHeadFields& h, std::string_view v) { return CopyField(h.record.szWSKey, v), 0; }},
    {"Sec-WebSocket-Protocol",
     [](HttpHeadFields& h, std::string_view v) { return CopyField(h.record.szWSProtocol, v), 0; }},
    {"Sec-WebSocket-Version", SetWsVersion},
};

// Method words are case-sensitive; any other valid method is delivered with type 0.
const struct {
    const char* word;
    int32_t type;
} kMethods[] = {{"GET", 1}, {"POST", 2}, {"PUSH", 3}, {"PUT", 4}};

const char* ReasonOf(int status) {
    switch (status) {
        case 413:
            return "Content Too Large";
        case 414:
            return "URI Too Long";
        case 431:
            return "Request Header Fields Too Large";
        default:
            return "Bad Request";
    }
}

}  // namespace

bool HttpCodec::Consume(const uint8_t* data, size_t n, const Sink& sink) {
    if (m_state == State::kRefused) return false;
    if (m_state == State::kDone) return true;  // a second request on the connection is ignored
    size_t used = m_state == State::kHead ? TakeHead(data, n) : 0;
    if (m_state == State::kRefused) return false;
    if (m_state != State::kBody) return true;
    size_t take = std::min(n - used, m_messageSize - m_message.size());
    m_message.insert(m_message.end(), data + used, data + used + take);
    if (m_message.size() == m_messageSize) {
        m_state = State::kDone;
        sink(std::move(m_message));
        m_message = {};
    }
    return true;
}

// Takes bytes up to the end of the head, one line at a time, never holding more than the
// head limit.
size_t HttpCodec::TakeHead(const uint8_t* data, size_t n) {
    size_t used = 0;
    while (used < n && m_state == State::kHead) {
        const uint8_t* from = data + used;
        const void* lf = std::memchr(from, '\n', n - used);
        size_t lineBytes = lf ? static_cast<const uint8_t*>(lf) - from + 1 : n - used;
        size_t take = std::min(lineBytes, kMaxHeadBytes - m_head.size());
        m_head.append(reinterpret_cast<const char*>(from), take);
        used += take;
        if (lf && take == lineBytes) {
            std::string_view line(m_head.data() + m_lineStart, m_head.size() - 1 - m_lineStart);
            if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
            m_lineStart = m_head.size();
            if (int status = TakeLine(line)) Refuse(status);
        }
        if (m_state == State::kHead && m_head.size() == kMaxHeadBytes) RefuseOverlongHead();
    }
    return used;
}

int HttpCodec::TakeLine(std::string_view line) {
    if (!m_sawRequestLine) return TakeRequestLine(line);
    if (!line.empty()) return TakeHeaderLine(line);
    StartBody();
    return 0;
}

int HttpCodec::TakeRequestLine(std::string_view line) {
    m_sawRequestLine = true;
    size_t space1 = line.find(' ');
    size_t space2 = space1 == std::string_view::npos ? space1 : line.find(' ', space1 + 1);
    if (space2 == std::string_view::npos) return 400;
    std::string_view method = line.substr(0, space1);
    std::string_view target = line.substr(space1 + 1, space2 - space1 - 1);
    std::string_view version = line.substr(space2 + 1);
    bool versionOk = version.size() == 8 && version.compare(0, 5, "HTTP/") == 0 &&
                     version[5] >= '0' && version[5] <= '9' && version[6] == '.' &&
                     version[7] >= '0' && version[7] <= '9';
    bool targetOk = !target.empty() && std::none_of(target.begin(), target.end(), [](char c) {
        return c == ' ' || IsControl(static_cast<unsigned char>(c));
    });
    if (!IsToken(method) || !targetOk || !versionOk) return 400;
    if (target.size() > kMaxTargetBytes) return 414;
    for (const auto& entry : kMethods) {
        if (method == entry.word) m_fields.record.nHttpType = entry.type;
    }
    CopyField(m_fields.record.szURL, target);
    return 0;
}

int HttpCodec::TakeHeaderLine(std::string_view line) {
    size_t colon = line.find(':');
    // A line starting with a blank (an obsolete folded value) has no token name either.
    if (colon == std::string_view::npos || !IsToken(line.substr(0, colon))) return 400;
    std::string_view name = line.substr(0, colon);
    std::string_view value = TrimBlanks(line.substr(colon + 1));
    bool clean = std::none_of(value.begin(), value.end(), [](char c) {
        return c != '\t' && IsControl(static_cast<unsigned char>(c));
    });
    if (!clean) return 400;
    for (const auto& field : kHeaderFields) {
        if (EqualNoCase(name, field.name)) return field.set(m_fields, value);
    }
    return 0;
}

void HttpCodec::StartBody() {
    const VORN_HTTP_HEAD& record = m_fields.record;
    const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
    // Reserved, not filled: memory a slow client has announced is not touched until used.
    m_messageSize = sizeof record + static_cast<size_t>(record.nBadyLen);
    m_message.reserve(m_messageSize);
    m_message.assign(bytes, bytes + sizeof record);
    m_state = State::kBody;
    m_head = std::string();
}

// A request line that fills the whole head is an overlong target once a method and a
// space have been seen; anything else is too many header bytes.
void HttpCodec::RefuseOverlongHead() {
    if (!m_sawRequestLine && m_head.find(' ') != std::string::npos) {
        Refuse(414);
    } else {
        Refuse(431);
    }
}

void HttpCodec::Refuse(int status) {
    m_state = State::kRefused;
    m_status = status;
    m_error = "request refused: " + std::to_string(status) + " " + ReasonOf(status);
    m_head = std::string();
    m_message = {};
}

std::string HttpCodec::ErrorReply() const {
    if (m_status == 0) return {};
    char reply[160];
    snprintf(reply, sizeof reply,
             "HTTP/1.1 %d %s\r\nContent-Length: 0\r\nConnection: close\r\n\r\n", m_status,
             ReasonOf(m_status));
    return reply;
}

bool HttpCodec::EncodeData(const uint8_t* data, size_t n, OutFrame& out) const {
    out.body.assign(data, data + n);
    return true;
}

}  // namespace vorn
