#include "cmsclient/msghead.h"

#include <cstring>

#include "VornFrame.h"

namespace cmsclient {

void MsgHead::Encode(uint8_t* out) const {
    out[0] = nType;
    out[1] = nFrom;
    out[2] = nTo;
    out[3] = 0;
    vorn::PutLe32(out + 4, static_cast<uint32_t>(nFromClientID));
    vorn::PutLe32(out + 8, static_cast<uint32_t>(nToClientID));
}

bool MsgHead::Decode(const uint8_t* data, size_t n, MsgHead& head) {
    if (data == nullptr || n < kSize) return false;
    head.nType = data[0];
    head.nFrom = data[1];
    head.nTo = data[2];
    head.nFromClientID = static_cast<int32_t>(vorn::GetLe32(data + 4));
    head.nToClientID = static_cast<int32_t>(vorn::GetLe32(data + 8));
    return true;
}

std::vector<uint8_t> BuildMessage(const MsgHead& head, const void* payload, size_t n) {
    std::vector<uint8_t> body(MsgHead::kSize + n);
    head.Encode(body.data());
    if (n > 0) memcpy(body.data() + MsgHead::kSize, payload, n);
    return body;
}

bool ParseReply(const uint8_t* body, size_t n, Reply& reply) {
    MsgHead head;
    if (!MsgHead::Decode(body, n, head) || head.nType != vorn::kMsgTypeResult) return false;
    const uint8_t* payload = body + MsgHead::kSize;
    size_t length = n - MsgHead::kSize;
    if (head.nFrom == vorn::kResultState) {
        if (length != 4) return false;
        reply.kind = Reply::Kind::kState;
        reply.state = static_cast<int32_t>(vorn::GetLe32(payload));
        reply.data.clear();
        return true;
    }
    if (head.nFrom == vorn::kResultData) {
        reply.kind = Reply::Kind::kData;
        reply.state = 0;
        reply.data.assign(payload, payload + length);
        return true;
    }
    return false;
}

}  // namespace cmsclient
