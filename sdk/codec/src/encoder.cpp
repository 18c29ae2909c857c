// VideoEncodeCreate, VideoEncodeData, VideoEncodeDestroy: H.264 through libx264, one picture
// in, its coded unit out.
#include <new>
#include <vector>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

#include "VornCodec.h"
#include "avhandles.h"

namespace {

// One stream's encoder; like the decoder, used by one thread at a time.
class VideoEncoder {
public:
    bool Open(int width, int height, int fps) {
        const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
        if (!codec) codec = avcodec_find_encoder(AV_CODEC_ID_H264);
        if (!codec) return false;
        m_context.reset(avcodec_alloc_context3(codec));
        m_frame.reset(av_frame_alloc());
        m_packet.reset(av_packet_alloc());
        if (!m_context || !m_frame || !m_packet) return false;
        AVCodecContext& c = *m_context;
        c.width = width;
        c.height = height;
        c.pix_fmt = AV_PIX_FMT_YUV420P;
        c.time_base = AVRational{1, fps};
        c.framerate = AVRational{fps, 1};
        // A key frame every two seconds bounds what a recording cut short can lose.
        c.gop_size = fps * 2;
        c.max_b_frames = 0;
        // No global header: the parameter sets travel in band before every key frame, so
        // any recording that starts at a key frame can be decoded.
        av_opt_set(c.priv_data, "preset", "veryfast", 0);
        av_opt_set(c.priv_data, "tune", "zerolatency", 0);
        av_opt_set(c.priv_data, "x264-params", "repeat-headers=1:annexb=1", 0);
        return avcodec_open2(&c, codec, nullptr) == 0;
    }

    int Encode(const uint8_t* yuv, int width, int height, uint8_t** out, int* outLength) {
        if (width != m_context->width || height != m_context->height) return 0;
        m_frame->format = AV_PIX_FMT_YUV420P;
        m_frame->width = width;
        m_frame->height = height;
        // Points at the caller's planes; libavcodec copies a frame it does not own.
        av_image_fill_arrays(m_frame->data, m_frame->linesize, yuv, AV_PIX_FMT_YUV420P, width,
                             height, 1);
        m_frame->pts = m_next++;
        int sent = avcodec_send_frame(m_context.get(), m_frame.get());
        av_frame_unref(m_frame.get());
        if (sent < 0) return 0;
        m_coded.clear();
        while (avcodec_receive_packet(m_context.get(), m_packet.get()) == 0) {
            m_coded.insert(m_coded.end(), m_packet->data, m_packet->data + m_packet->size);
            av_packet_unref(m_packet.get());
        }
        if (m_coded.empty()) return 0;
        *out = m_coded.data();
        *outLength = static_cast<int>(m_coded.size());
        return 1;
    }

private:
    vcodec::CodecContextPtr m_context;
    vcodec::FramePtr m_frame;
    vcodec::PacketPtr m_packet;
    int64_t m_next = 0;
    std::vector<uint8_t> m_coded;  // the last coded unit, handed out until the next call
};

}  // namespace

void* VideoEncodeCreate(int codec, int width, int height, int fps) {
    // 4:2:0 needs even sizes; the size bound keeps width * height far from overflow.
    if (codec != VORN_H264 || width < 16 || height < 16 || width > 8192 || height > 8192 ||
        (width | height) & 1)
        return nullptr;
    // A stream that did not state its rate is taken as the usual 25 pictures a second.
    if (fps <= 0 || fps > 120) fps = 25;
    auto* encoder = new (std::nothrow) VideoEncoder;
    if (encoder && !encoder->Open(width, height, fps)) {
        delete encoder;
        return nullptr;
    }
    return encoder;
}

int VideoEncodeData(void* encoder, const unsigned char* yuv, int width, int height,
                    unsigned char** out, int* outLength) {
    if (!encoder || !yuv || !out || !outLength) return 0;
    return static_cast<VideoEncoder*>(encoder)->Encode(yuv, width, height, out, outLength);
}

void VideoEncodeDestroy(void* encoder) { delete static_cast<VideoEncoder*>(encoder); }
