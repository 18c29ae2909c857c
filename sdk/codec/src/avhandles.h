// Owning handles for the FFmpeg objects of the codec library: each is freed by its own
// deleter when it leaves scope, so no early return leaks one.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include <cstdint>
#include <memory>
#include <vector>

namespace vcodec {

struct CodecContextFree {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameFree {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketFree {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct ParserFree {
    void operator()(AVCodecParserContext* p) const { av_parser_close(p); }
};
struct SwsFree {
    void operator()(SwsContext* s) const { sws_freeContext(s); }
};
// An output context owns its stream list; the file behind `pb` is closed first.
struct OutputFree {
    void operator()(AVFormatContext* f) const {
        if (f->pb && !(f->oformat->flags & AVFMT_NOFILE)) avio_closep(&f->pb);
        avformat_free_context(f);
    }
};

using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using ParserPtr = std::unique_ptr<AVCodecParserContext, ParserFree>;
using SwsPtr = std::unique_ptr<SwsContext, SwsFree>;
using OutputPtr = std::unique_ptr<AVFormatContext, OutputFree>;

// The FFmpeg codec id of a media-head codec code (VORN_H264, VORN_H265); AV_CODEC_ID_NONE for
// any other.
AVCodecID CodecIdOf(int code);

// Splits Annex-B input into access units (one picture each) with libavcodec's parser. The
// parser holds the last unit back until the next one starts; Flush hands it over.
class AccessUnitSplitter {
public:
    // Far above any real picture (a 4K key frame is a few megabytes).
    static constexpr size_t kMaxUnitBytes = 32u << 20;

    // Not Valid() when the codec has no parser; Feed then yields nothing.
    explicit AccessUnitSplitter(AVCodecID id);
    bool Valid() const { return m_parser && m_context; }

    // Calls `unit(data, size)` for every access unit completed by `data`. The bytes are valid
    // during the call only; the parser's fields (key_frame, output_picture_number, width,
    // height) describe that unit. Returns 0 when the parser refused the input, else 1.
    template <typename F>
    int Feed(const uint8_t* data, int length, F&& unit) {
        if (!Valid() || !data || length <= 0) return 0;
        // The parser reads a little past the end it is given, so it works on a padded copy.
        m_input.assign(data, data + length);
        m_input.resize(length + AV_INPUT_BUFFER_PADDING_SIZE, 0);
        const uint8_t* at = m_input.data();
        int stalls = 0;
        while (length > 0) {
            uint8_t* out = nullptr;
            int outSize = 0;
            int used = av_parser_parse2(m_parser.get(), m_context.get(), &out, &outSize, at, length,
                                        AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
            if (used < 0 || used > length) return 0;
            if (outSize > 0) {
                m_held = 0;
                unit(out, outSize);
            }
            // Input that never completes a unit would pile up inside the parser.
            m_held += used;
            if (m_held > kMaxUnitBytes) Reset();
            // A parser that keeps taking nothing would spin forever.
            stalls = used == 0 ? stalls + 1 : 0;
            if (stalls > 1) return 0;
            at += used;
            length -= used;
        }
        return 1;
    }
    template <typename F>
    void Flush(F&& unit) {
        if (!Valid()) return;
        uint8_t* out = nullptr;
        int outSize = 0;
        av_parser_parse2(m_parser.get(), m_context.get(), &out, &outSize, nullptr, 0,
                         AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
        if (outSize > 0) unit(out, outSize);
    }
    const AVCodecParserContext& Info() const { return *m_parser; }
    // Drops whatever the parser holds.
    void Reset() {
        m_parser.reset(av_parser_init(m_id));
        m_held = 0;
    }
    // The frame rate stated by the stream's timing information; 0/1 when it states none.
    AVRational StatedFrameRate() const;

private:
    AVCodecID m_id;
    ParserPtr m_parser;
    CodecContextPtr m_context;  // the parser's scratch context; never opened
    std::vector<uint8_t> m_input;
    size_t m_held = 0;  // bytes taken since the last unit came out
};

}  // namespace vcodec
