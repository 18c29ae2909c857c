// Request builders for the message listener and decoders of its replies.
//
// A builder returns the header and payload of one message, ready for CmsClient::Send.
// Records are written field by field (little-endian) into zero-filled buffers, so padding
// and the bytes after a text's terminator are always zero; a text longer than its field is
// cut so that the field stays terminated.
//
// Decoders check sizes before reading: a reply of the wrong length is refused (false), and
// nothing is read outside the bytes received.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cmsclient/msghead.h"
#include "comm/msgdefine.h"
#include "mysql/dbrecords.h"
#include "mysql/nodecatalog.h"
#include "nodes/nodeurl.h"

namespace cmsclient {

struct Request {
    MsgHead head;
    std::string payload;
};

// ---- Sessions and nodes ----

// CMS_MSG_LOGIN: the serial as text, without a terminator. The server drops serials of
// more than 99 bytes without a reply (kMaxSerial).
constexpr size_t kMaxSerial = 99;
Request Login(const char* serial);
// CMS_MSG_PUSH_DATA: one 200-byte _msg_domain_info. No reply.
Request PushNode(const _msg_domain_info& node);
// CMS_MSG_GET_URL by node (nFrom 0) or by channel/device code (nFrom 1): a 48-byte
// _msg_url_req. Answered with a _msg_link_info or state 1.
Request GetUrlByNode(int64_t nodeId, int nodeType);
Request GetUrlByCode(const char* code);
// CMS_MSG_GET_DATA: the data type, 4 zero bytes, then the code and its terminator.
Request GetNodeList(int dataType, const char* code);

// ---- Statements ----

// CMS_MSG_SQLOPERATION_EX with operation `op` (a _DATABASE_OP) in nFrom. For
// DATAQUERYMYSELF, `columns` ("a,b,c") is appended as "&a,b,c," (each name followed by a
// comma, as the server counts them); null or empty adds nothing.
Request Sql(int op, const char* text, const char* columns = nullptr);

// ---- Files of the file store: nFrom the area type, nFromClientID the object id ----

Request PutFile(int kind, int id, int index, const std::string& bytes);
Request GetFile(int kind, int id, int index);
Request DeleteFile(int kind, int id);

// ---- Events (CMS_MSG_ALARM) ----

// What every event record carries besides its class-specific fields.
struct EventFields {
    uint32_t unTime = 0;        // seconds since 1970; 0 stands for now
    std::string channel = "1";  // szSerial: channel number for link senders
    int nNodeID = 0;            // node id for server senders, 0 when unknown
    int nNodeType = 0;
    std::string info;                   // szInfo, the description stored with the row
    std::vector<std::string> pictures;  // at most 4, lengths go to nPicLen
    std::string senderSerial;           // non-empty: a _msg_device naming the sender leads
};
constexpr size_t kMaxPictures = 4;

// Event classes and codes as the record's nEventType holds them.
Request AlarmEvent(const EventFields& f, int code, int param);
Request DeviceStateEvent(const EventFields& f, int state);
Request DiagnosisEvent(const EventFields& f, int code);
Request FaceEvent(const EventFields& f, int personId, int age, int gender, int similarity);

// The 164 wire bytes of an event record.
std::string EncodeEventRecord(const _msg_alarm_comm& rec);
// A whole event payload: optional sender head, the record with nPicLen taken from
// `pictures` (extra pictures beyond 4 are left out), then the pictures back to back.
Request Event(const _msg_alarm_comm& rec, const std::vector<std::string>& pictures,
              const std::string& senderSerial);

// ---- Replies ----

// "state 0 (ok)", "state 1 (failed)", or "state N" for other values.
std::string DescribeState(int32_t state);

// A _msg_link_info reply (exactly 364 bytes).
bool DecodeLinkInfo(const std::vector<uint8_t>& data, _msg_link_info& link);
std::string FormatLinkInfo(const _msg_link_info& link);

// A node list: whole 640-byte node_info records. Slots without a code (counted but not
// written by the server) are skipped and counted in `emptySlots`.
bool DecodeNodeList(const std::vector<uint8_t>& data, std::vector<node_info>& nodes,
                    int* emptySlots = nullptr);
std::string FormatNodeTable(const std::vector<node_info>& nodes);

// A domain-server list: whole 316-byte domain_base records.
bool DecodeDomainList(const std::vector<uint8_t>& data, std::vector<domain_base>& domains);
std::string FormatDomainTable(const std::vector<domain_base>& domains);

// A packed file read: the 64-byte index (numbers, lengths) and the pictures behind it.
struct FilePart {
    int number = 0;  // picture number, or -1 for the single file of a mode-0 area
    std::string bytes;
};
// False for a reply shorter than the index or whose lengths pass its end. The 4-byte
// reply of a failed read is not a pack and is refused too (IsFileMissingReply).
bool DecodeFilePack(const std::vector<uint8_t>& data, std::vector<FilePart>& parts);
bool IsFileMissingReply(const std::vector<uint8_t>& data);

// The text of a data reply up to its first zero byte (XML answers of queries).
std::string ReplyText(const std::vector<uint8_t>& data);

}  // namespace cmsclient
