#include "cmsclient/requests.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>

#include "comm/wirepack.h"

namespace cmsclient {

namespace {

MsgHead Head(uint8_t type, uint8_t from = 0, uint8_t to = 0, int32_t fromId = 0) {
    MsgHead h;
    h.nType = type;
    h.nFrom = from;
    h.nTo = to;
    h.nFromClientID = fromId;
    return h;
}

// A zero-filled record of `size` bytes that fields are written into at their offsets.
class RecordWriter {
public:
    explicit RecordWriter(size_t size) : m_bytes(size, '\0') {}
    void I32(size_t offset, int32_t v) { wire::PutI32(At(offset), v); }
    void U16(size_t offset, uint16_t v) {
        At(offset)[0] = static_cast<unsigned char>(v);
        At(offset)[1] = static_cast<unsigned char>(v >> 8);
    }
    void F64(size_t offset, double v) { wire::PutF64(At(offset), v); }
    // A text of a `size`-byte field; a null text leaves it zero.
    void Text(size_t offset, const char* text, size_t size) {
        if (text) wire::PutText(At(offset), text, size);
    }
    std::string Take() { return std::move(m_bytes); }

private:
    unsigned char* At(size_t offset) { return reinterpret_cast<unsigned char*>(&m_bytes[offset]); }
    std::string m_bytes;
};

// Little-endian readers over a received record; callers have checked the record's size.
int32_t GetI32(const uint8_t* p) {
    uint32_t u = 0;
    for (int i = 3; i >= 0; --i) u = (u << 8) | p[i];
    return static_cast<int32_t>(u);
}

double GetF64(const uint8_t* p) {
    uint64_t u = 0;
    for (int i = 7; i >= 0; --i) u = (u << 8) | p[i];
    double d;
    std::memcpy(&d, &u, sizeof d);
    return d;
}

// Copies a received text field into a record field of the same size, terminated.
template <size_t N>
void GetText(const uint8_t* p, char (&field)[N]) {
    size_t n = strnlen(reinterpret_cast<const char*>(p), N - 1);
    std::memcpy(field, p, n);
    field[n] = '\0';
}

}  // namespace

// ---- Sessions and nodes ----

Request Login(const char* serial) { return {Head(CMS_MSG_LOGIN), serial ? serial : ""}; }

Request PushNode(const _msg_domain_info& n) {
    using R = _msg_domain_info;
    RecordWriter w(sizeof(R));
    w.I32(offsetof(R, nType), n.nType);
    w.Text(offsetof(R, szCode), n.szCode, sizeof n.szCode);
    w.Text(offsetof(R, szParentCode), n.szParentCode, sizeof n.szParentCode);
    w.Text(offsetof(R, szCityCode), n.szCityCode, sizeof n.szCityCode);
    w.Text(offsetof(R, szDomainCode), n.szDomainCode, sizeof n.szDomainCode);
    w.I32(offsetof(R, nNodeType), n.nNodeType);
    w.I32(offsetof(R, nStatus), n.nStatus);
    w.Text(offsetof(R, szName), n.szName, sizeof n.szName);
    w.F64(offsetof(R, dbLongitude), n.dbLongitude);
    w.F64(offsetof(R, dbLatitude), n.dbLatitude);
    return {Head(CMS_MSG_PUSH_DATA), w.Take()};
}

namespace {

Request UrlRequest(uint8_t from, int64_t nodeId, int nodeType, const char* code) {
    using R = _msg_url_req;
    RecordWriter w(sizeof(R));
    // The 64-bit id goes out as two little-endian halves.
    w.I32(offsetof(R, nodeid), static_cast<int32_t>(static_cast<uint64_t>(nodeId)));
    w.I32(offsetof(R, nodeid) + 4, static_cast<int32_t>(static_cast<uint64_t>(nodeId) >> 32));
    w.I32(offsetof(R, nodtype), nodeType);
    w.Text(offsetof(R, code), code, sizeof(R::code));
    return {Head(CMS_MSG_GET_URL, from), w.Take()};
}

}  // namespace

Request GetUrlByNode(int64_t nodeId, int nodeType) {
    return UrlRequest(0, nodeId, nodeType, nullptr);
}

Request GetUrlByCode(const char* code) { return UrlRequest(1, 0, 0, code); }

Request GetNodeList(int dataType, const char* code) {
    std::string text = code ? code : "";
    RecordWriter w(GET_DATA_CODE_OFFSET + text.size() + 1);
    w.I32(0, dataType);
    w.Text(GET_DATA_CODE_OFFSET, text.c_str(), text.size() + 1);
    return {Head(CMS_MSG_GET_DATA), w.Take()};
}

// ---- Statements ----

Request Sql(int op, const char* text, const char* columns) {
    std::string payload = text ? text : "";
    if (op == DATAQUERYMYSELF && columns && *columns) {
        payload += '&';
        payload += columns;
        if (payload.back() != ',') payload += ',';
    }
    return {Head(CMS_MSG_SQLOPERATION_EX, static_cast<uint8_t>(op)), payload};
}

// ---- Files ----

Request PutFile(int kind, int id, int index, const std::string& bytes) {
    return {Head(CMS_MSG_WRITEFILE, static_cast<uint8_t>(kind), static_cast<uint8_t>(index), id),
            bytes};
}

Request GetFile(int kind, int id, int index) {
    return {Head(CMS_MSG_GETFILE, static_cast<uint8_t>(kind), static_cast<uint8_t>(index), id), {}};
}

Request DeleteFile(int kind, int id) {
    return {Head(CMS_MSG_DELETEFILE, static_cast<uint8_t>(kind), 0, id), {}};
}

// ---- Events ----

std::string EncodeEventRecord(const _msg_alarm_comm& r) {
    using R = _msg_alarm_comm;
    RecordWriter w(sizeof(R));
    w.I32(offsetof(R, nID), r.nID);
    w.I32(offsetof(R, unTime), static_cast<int32_t>(r.unTime));
    w.Text(offsetof(R, szSerial), r.szSerial, sizeof r.szSerial);
    w.I32(offsetof(R, nNodeID), r.nNodeID);
    w.I32(offsetof(R, nNodeType), r.nNodeType);
    w.I32(offsetof(R, nEventType), r.nEventType);
    w.I32(offsetof(R, nRuleIndex), r.nRuleIndex);
    w.I32(offsetof(R, nObjType), r.nObjType);
    w.I32(offsetof(R, unDetail), static_cast<int32_t>(r.unDetail));
    w.Text(offsetof(R, szComm), r.szComm, sizeof r.szComm);
    w.Text(offsetof(R, szInfo), r.szInfo, sizeof r.szInfo);
    w.U16(offsetof(R, bBox) + offsetof(LOCATION_INFO, left), r.bBox.left);
    w.U16(offsetof(R, bBox) + offsetof(LOCATION_INFO, top), r.bBox.top);
    w.U16(offsetof(R, bBox) + offsetof(LOCATION_INFO, right), r.bBox.right);
    w.U16(offsetof(R, bBox) + offsetof(LOCATION_INFO, bottom), r.bBox.bottom);
    for (size_t i = 0; i < 4; ++i) {
        w.I32(offsetof(R, nReserve) + 4 * i, r.nReserve[i]);
        w.I32(offsetof(R, nPicLen) + 4 * i, r.nPicLen[i]);
    }
    return w.Take();
}

Request Event(const _msg_alarm_comm& rec, const std::vector<std::string>& pictures,
              const std::string& senderSerial) {
    _msg_alarm_comm r = rec;
    const size_t count = std::min(pictures.size(), kMaxPictures);
    for (size_t i = 0; i < 4; ++i)
        r.nPicLen[i] = i < count ? static_cast<int32_t>(pictures[i].size()) : 0;
    std::string payload;
    if (!senderSerial.empty()) {
        RecordWriter head(sizeof(_msg_device));
        head.Text(offsetof(_msg_device, szSerial), senderSerial.c_str(), sizeof(_msg_device));
        payload = head.Take();
    }
    payload += EncodeEventRecord(r);
    for (size_t i = 0; i < count; ++i) payload += pictures[i];
    return {Head(CMS_MSG_ALARM), payload};
}

namespace {

template <size_t N>
void SetText(char (&field)[N], const std::string& text) {
    size_t n = std::min(text.size(), N - 1);
    std::memcpy(field, text.data(), n);
    field[n] = '\0';
}

_msg_alarm_comm BaseRecord(const EventFields& f, uint32_t eventType) {
    _msg_alarm_comm r{};
    r.unTime = f.unTime ? f.unTime : static_cast<uint32_t>(std::time(nullptr));
    SetText(r.szSerial, f.channel);
    r.nNodeID = f.nNodeID;
    r.nNodeType = f.nNodeType;
    r.nEventType = static_cast<int32_t>(eventType);
    SetText(r.szInfo, f.info);
    return r;
}

}  // namespace

Request AlarmEvent(const EventFields& f, int code, int param) {
    _msg_alarm_comm r = BaseRecord(f, EVENT_CLASS_INTV | (static_cast<uint32_t>(code) & 0xFFFF));
    r.nReserve[1] = param;
    return Event(r, f.pictures, f.senderSerial);
}

Request DeviceStateEvent(const EventFields& f, int state) {
    return Event(BaseRecord(f, EVENT_CLASS_DEVSTATE | (static_cast<uint32_t>(state) & 0xFF)),
                 f.pictures, f.senderSerial);
}

Request DiagnosisEvent(const EventFields& f, int code) {
    return Event(BaseRecord(f, EVENT_CLASS_DIAGNOSE | (static_cast<uint32_t>(code) & 0xFF)),
                 f.pictures, f.senderSerial);
}

Request FaceEvent(const EventFields& f, int personId, int age, int gender, int similarity) {
    _msg_alarm_comm r = BaseRecord(f, EVENT_CLASS_INTV | INTV_EVENT_FACE);
    SetText(r.szComm, std::to_string(personId));
    r.nObjType = age;
    r.nReserve[0] = gender;
    r.nReserve[3] = similarity;
    return Event(r, f.pictures, f.senderSerial);
}

// ---- Replies ----

std::string DescribeState(int32_t state) {
    if (state == 0) return "state 0 (ok)";
    if (state == 1) return "state 1 (failed)";
    return "state " + std::to_string(state);
}

bool DecodeLinkInfo(const std::vector<uint8_t>& data, _msg_link_info& link) {
    using R = _msg_link_info;
    if (data.size() != sizeof(R)) return false;
    const uint8_t* p = data.data();
    link = R{};
    link.nLinkMode = GetI32(p + offsetof(R, nLinkMode));
    GetText(p + offsetof(R, szCode), link.szCode);
    GetText(p + offsetof(R, szDomainCode), link.szDomainCode);
    GetText(p + offsetof(R, szDirect), link.szDirect);
    return true;
}

std::string FormatLinkInfo(const _msg_link_info& link) {
    return "link mode: " + std::to_string(link.nLinkMode) + "\ncode:      " + link.szCode +
           "\ndomain:    " + link.szDomainCode + "\naddress:   " + link.szDirect + "\n";
}

namespace {

node_info ReadNode(const uint8_t* p) {
    using R = node_info;
    node_info n{};
    GetText(p + offsetof(R, szName), n.szName);
    GetText(p + offsetof(R, szSerial), n.szSerial);
    GetText(p + offsetof(R, szCode), n.szCode);
    GetText(p + offsetof(R, szIP), n.szIP);
    n.nPort = GetI32(p + offsetof(R, nPort));
    n.nftype = GetI32(p + offsetof(R, nftype));
    GetText(p + offsetof(R, szUser), n.szUser);
    GetText(p + offsetof(R, szPass), n.szPass);
    GetText(p + offsetof(R, szParentCode), n.szParentCode);
    GetText(p + offsetof(R, szCityCode), n.szCityCode);
    GetText(p + offsetof(R, szDomainCode), n.szDomainCode);
    n.dbLongitude = GetF64(p + offsetof(R, dbLongitude));
    n.dbLatitude = GetF64(p + offsetof(R, dbLatitude));
    n.nType = GetI32(p + offsetof(R, nType));
    n.nStatus = GetI32(p + offsetof(R, nStatus));
    return n;
}

domain_base ReadDomain(const uint8_t* p) {
    using R = domain_base;
    domain_base d{};
    GetText(p + offsetof(R, szSerial), d.szSerial);
    GetText(p + offsetof(R, szIP), d.szIP);
    GetText(p + offsetof(R, szCode), d.szCode);
    GetText(p + offsetof(R, szParentCode), d.szParentCode);
    GetText(p + offsetof(R, szRegCode), d.szRegCode);
    d.nPort = GetI32(p + offsetof(R, nPort));
    d.nHttpPort = GetI32(p + offsetof(R, nHttpPort));
    GetText(p + offsetof(R, szUser), d.szUser);
    GetText(p + offsetof(R, szPass), d.szPass);
    d.nType = GetI32(p + offsetof(R, nType));
    d.nLinkMode = GetI32(p + offsetof(R, nLinkMode));
    d.nPushMode = GetI32(p + offsetof(R, nPushMode));
    d.bAuth = p[offsetof(R, bAuth)] != 0;
    return d;
}

// Display width of UTF-8 text in characters (continuation bytes do not count).
size_t Width(const std::string& s) {
    return static_cast<size_t>(
        std::count_if(s.begin(), s.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

// Rows under a header, each column as wide as its widest cell, two spaces between.
std::string Table(const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths;
    for (const auto& row : rows)
        for (size_t i = 0; i < row.size(); ++i) {
            if (widths.size() <= i) widths.push_back(0);
            widths[i] = std::max(widths[i], Width(row[i]));
        }
    std::string out;
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line += std::string(widths[i] - Width(row[i]) + 2, ' ');
        }
        out += line + "\n";
    }
    return out;
}

std::string Address(const char* ip, int port) {
    if (!*ip) return "";
    return std::string(ip) + ":" + std::to_string(port);
}

}  // namespace

bool DecodeNodeList(const std::vector<uint8_t>& data, std::vector<node_info>& nodes,
                    int* emptySlots) {
    if (data.empty() || data.size() % NODE_INFO_SIZE != 0) return false;
    nodes.clear();
    int empty = 0;
    for (size_t at = 0; at < data.size(); at += NODE_INFO_SIZE) {
        node_info n = ReadNode(data.data() + at);
        if (n.szCode[0])
            nodes.push_back(n);
        else
            ++empty;
    }
    if (emptySlots) *emptySlots = empty;
    return true;
}

std::string FormatNodeTable(const std::vector<node_info>& nodes) {
    std::vector<std::vector<std::string>> rows = {
        {"type", "code", "parent", "name", "serial", "address", "ftype"}};
    for (const node_info& n : nodes)
        rows.push_back({std::to_string(n.nType), n.szCode, n.szParentCode, n.szName, n.szSerial,
                        Address(n.szIP, n.nPort), std::to_string(n.nftype)});
    return Table(rows);
}

bool DecodeDomainList(const std::vector<uint8_t>& data, std::vector<domain_base>& domains) {
    if (data.empty() || data.size() % DOMAIN_BASE_SIZE != 0) return false;
    domains.clear();
    for (size_t at = 0; at < data.size(); at += DOMAIN_BASE_SIZE)
        domains.push_back(ReadDomain(data.data() + at));
    return true;
}

std::string FormatDomainTable(const std::vector<domain_base>& domains) {
    std::vector<std::vector<std::string>> rows = {
        {"serial", "code", "parent", "address", "http", "type", "link", "push"}};
    for (const domain_base& d : domains)
        rows.push_back({d.szSerial, d.szCode, d.szParentCode, Address(d.szIP, d.nPort),
                        std::to_string(d.nHttpPort), std::to_string(d.nType),
                        std::to_string(d.nLinkMode), std::to_string(d.nPushMode)});
    return Table(rows);
}

bool IsFileMissingReply(const std::vector<uint8_t>& data) {
    return data.size() == 4 && GetI32(data.data()) == 1;
}

bool DecodeFilePack(const std::vector<uint8_t>& data, std::vector<FilePart>& parts) {
    constexpr size_t kIndex = 64, kSlots = 8;
    if (data.size() < kIndex) return false;
    parts.clear();
    size_t at = kIndex;
    for (size_t i = 0; i < kSlots; ++i) {
        const int32_t length = GetI32(data.data() + 32 + 4 * i);
        const int32_t number = GetI32(data.data() + 4 * i);
        if (length == 0 && number == 0) continue;  // an unused slot
        if (length < 0 || static_cast<size_t>(length) > data.size() - at) return false;
        parts.push_back({number, std::string(data.begin() + at, data.begin() + at + length)});
        at += static_cast<size_t>(length);
    }
    return true;
}

std::string ReplyText(const std::vector<uint8_t>& data) {
    auto end = std::find(data.begin(), data.end(), 0);
    return std::string(data.begin(), end);
}

}  // namespace cmsclient
