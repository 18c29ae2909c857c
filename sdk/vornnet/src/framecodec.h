// How a listener turns received bytes into callback buffers and replies into bytes.
// Connections know only this interface, so another wire form is one more Codec and one
// more row in the mode table of framecodec.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "VornFrame.h"

namespace vorn {

// One encoded reply: a small head and the body behind it, written in one gather write so
// that a large body is copied once, from the caller into `body`, and never again.
struct OutFrame {
    std::vector<uint8_t> head;
    std::vector<uint8_t> body;
    size_t Size() const { return head.size() + body.size(); }
};

class Codec {
public:
    using Sink = std::function<void(std::vector<uint8_t>&&)>;

    virtual ~Codec() = default;

    // Takes bytes read from one connection and hands every complete unit to `sink`, in
    // order. Returns false when the stream is broken and the connection has to close;
    // Error() then says why. Called on the connection's strand only.
    virtual bool Consume(const uint8_t* data, size_t n, const Sink& sink) = 0;
    // True while an incomplete unit is pending (the idle time-out applies then).
    virtual bool HasPartial() const = 0;
    virtual const std::string& Error() const = 0;
    // Bytes to send before closing a broken stream (an HTTP status); empty for none.
    virtual std::string ErrorReply() const { return {}; }

    // Reply encodings; they keep no state, so any thread may call them. False when the
    // reply cannot be carried (too large).
    virtual bool EncodeState(int state, OutFrame& out) const = 0;
    virtual bool EncodeData(const uint8_t* data, size_t n, OutFrame& out) const = 0;
};

// Message mode: length-prefixed frames, one message each (see VornFrame.h).
class MessageCodec : public Codec {
public:
    bool Consume(const uint8_t* data, size_t n, const Sink& sink) override;
    bool HasPartial() const override { return m_decoder.HasPartial(); }
    const std::string& Error() const override { return m_error; }
    bool EncodeState(int state, OutFrame& out) const override;
    bool EncodeData(const uint8_t* data, size_t n, OutFrame& out) const override;

private:
    bool EncodeData(const uint8_t* data, size_t n, OutFrame& out, uint8_t subCode) const;

    FrameDecoder m_decoder;
    std::string m_error;
};

using CodecFactory = std::unique_ptr<Codec> (*)();

// How a connection hands what its codec cut out to the user callback.
enum class Dispatch {
    // Many messages per connection, in order on the connection's strand of the small
    // callback pool; the disconnect is reported last.
    kStream,
    // One request per connection on a worker thread of its own (a callback may block for
    // long); the connection closes once the callback has returned and its reply has been
    // written. No disconnect is reported.
    kOneShot,
};

struct Mode {
    CodecFactory codec;
    Dispatch dispatch;
};

// The wire form of a listener mode (VORN_MODE_*), or null when the mode is not served.
const Mode* FindMode(int mode);

}  // namespace vorn
