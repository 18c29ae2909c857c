// The request reader of the HTTP listener: one HTTP/1.1 request per connection, cut out
// of the byte stream and handed on as a VORN_HTTP_HEAD record followed by the body.
//
// Limits; a request over one is refused with the status shown and never handed on:
//   head (request line, header lines, the empty line)   8 KiB      431
//   request target                                        511 bytes  414
//   body (Content-Length)                                 1 MiB      413
// A malformed head is refused with 400: a request line other than METHOD SP target SP
// HTTP/d.d, a header line without a token name and a colon, a folded line, control bytes,
// a Content-Length that is not plain decimal digits or disagrees with an earlier one, and
// any Transfer-Encoding (no transfer coding is decoded, so the body length would be
// unknown). Lines may end in CR LF or LF alone. Bytes after the body are ignored: the
// connection closes after its one reply. docs/protocol.md has the same in prose.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "VornNetSDK.h"
#include "framecodec.h"

namespace vorn {

// What the header lines have said so far.
struct HttpHeadFields {
    VORN_HTTP_HEAD record{};
    bool sawLength = false;  // a Content-Length line was seen
};

class HttpCodec : public Codec {
public:
    static constexpr size_t kMaxHeadBytes = 8 * 1024;
    static constexpr size_t kMaxTargetBytes = sizeof(VORN_HTTP_HEAD::szURL) - 1;
    static constexpr size_t kMaxBodyBytes = 1024 * 1024;

    // Hands on at most one request. After a refusal it returns false for good; Status()
    // and ErrorReply() then tell the answer.
    bool Consume(const uint8_t* data, size_t n, const Sink& sink) override;
    // Until the request is complete the connection waits for it under the stall time-out.
    bool HasPartial() const override { return m_state == State::kHead || m_state == State::kBody; }
    const std::string& Error() const override { return m_error; }
    std::string ErrorReply() const override;
    // HTTP has no state replies; data goes out as it is.
    bool EncodeState(int, OutFrame&) const override { return false; }
    bool EncodeData(const uint8_t* data, size_t n, OutFrame& out) const override;

    // The status of a refused request, 0 while none.
    int Status() const { return m_status; }

private:
    enum class State { kHead, kBody, kDone, kRefused };

    size_t TakeHead(const uint8_t* data, size_t n);  // returns the bytes used
    // Each returns 0 when the line is accepted, else the status that refuses the request.
    int TakeLine(std::string_view line);
    int TakeRequestLine(std::string_view line);
    int TakeHeaderLine(std::string_view line);
    void StartBody();
    void RefuseOverlongHead();
    void Refuse(int status);

    State m_state = State::kHead;
    std::string m_head;  // head bytes so far, at most kMaxHeadBytes
    size_t m_lineStart = 0;
    bool m_sawRequestLine = false;
    HttpHeadFields m_fields;
    std::vector<uint8_t> m_message;  // the record, then the body as it arrives
    size_t m_messageSize = 0;        // the record and the whole body
    int m_status = 0;
    std::string m_error;
};

}  // namespace vorn
