// How a listener turns received bytes into callback buffers and replies into bytes.
// Connections know only this interface, so another wire form (the HTTP listener) is one
// more Codec and one more row in the mode table of framecodec.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "VornFrame.h"

namespace vorn {

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

    // Reply encodings; they keep no state, so any thread may call them. False when the
    // reply cannot be carried (too large).
    virtual bool EncodeState(int state, std::vector<uint8_t>& out) const = 0;
    virtual bool EncodeData(const uint8_t* data, size_t n, std::vector<uint8_t>& out) const = 0;
};

// Message mode: length-prefixed frames, one message each (see VornFrame.h).
class MessageCodec : public Codec {
public:
    bool Consume(const uint8_t* data, size_t n, const Sink& sink) override;
    bool HasPartial() const override { return m_decoder.HasPartial(); }
    const std::string& Error() const override { return m_error; }
    bool EncodeState(int state, std::vector<uint8_t>& out) const override;
    bool EncodeData(const uint8_t* data, size_t n, std::vector<uint8_t>& out) const override;

private:
    FrameDecoder m_decoder;
    std::string m_error;
};

using CodecFactory = std::unique_ptr<Codec> (*)();

// The factory of a listener mode (VORN_MODE_*), or null when the mode is not served.
CodecFactory FindCodec(int mode);

}  // namespace vorn
