// Owning handles for the FFmpeg objects of the codec library: each is freed by its own
// deleter when it leaves scope, so no early return leaks one.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include <memory>

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

}  // namespace vcodec
