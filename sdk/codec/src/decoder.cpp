// CreateDecoder, Decoder, DestroyDecoder: H.264 and H.265 to packed planar YUV 4:2:0.
#include <cstring>
#include <new>
#include <vector>

extern "C" {
#include <libavutil/imgutils.h>
}

#include "VornCodec.h"
#include "annexb.h"
#include "avhandles.h"
#include "splitter.h"

namespace {

// One stream's decoder. Not thread-safe: a stream's data comes from one thread at a time,
// and the callback runs on that thread inside Decode.
class VideoDecoder {
public:
    VideoDecoder(AVCodecID id, VideoCallBack callback, void* user)
        : m_hevc(id == AV_CODEC_ID_HEVC), m_splitter(id), m_callback(callback), m_user(user) {}

    bool Open(AVCodecID id) {
        const AVCodec* codec = avcodec_find_decoder(id);
        if (!codec || !m_splitter.Valid()) return false;
        m_context.reset(avcodec_alloc_context3(codec));
        m_frame.reset(av_frame_alloc());
        m_packet.reset(av_packet_alloc());
        if (!m_context || !m_frame || !m_packet) return false;
        // Frame threads would hold pictures back by one per thread; a snapshot wants the
        // first picture as soon as it is complete.
        m_context->thread_count = 1;
        return avcodec_open2(m_context.get(), codec, nullptr) == 0;
    }

    // Each call is taken to end at a picture boundary (the server hands over parameter
    // sets alone and every picture whole), so a picture the parser holds at the end goes to
    // the decoder at once: otherwise it would wait for the next one, and a snapshot fed key
    // frames only would wait a whole key interval. Parameter sets alone stay with the parser
    // and open the next picture's packet.
    int Decode(const uint8_t* data, int length) {
        bool ok = true;
        auto send = [&](const uint8_t* unit, int size) {
            if (!SendUnit(unit, size)) ok = false;
        };
        const int fed = m_splitter.Feed(data, length, send);
        if (HoldsPicture(data, length)) m_splitter.Flush(send);
        return fed && ok ? 1 : 0;
    }

private:
    bool HoldsPicture(const uint8_t* data, int length) const {
        bool picture = false;
        vcodec::ForEachNal(data, size_t(length), [&](const uint8_t* nal, size_t) {
            // Slices: H.264 types 1 to 5, H.265 types 0 to 31.
            const int type = m_hevc ? (nal[0] >> 1) & 63 : nal[0] & 31;
            if (m_hevc ? type <= 31 : type >= 1 && type <= 5) picture = true;
        });
        return picture;
    }

    bool SendUnit(const uint8_t* unit, int size) {
        // Not reference-counted: libavcodec takes its own padded copy.
        m_packet->data = const_cast<uint8_t*>(unit);
        m_packet->size = size;
        int sent = avcodec_send_packet(m_context.get(), m_packet.get());
        m_packet->data = nullptr;
        m_packet->size = 0;
        while (avcodec_receive_frame(m_context.get(), m_frame.get()) == 0) {
            Deliver(*m_frame);
            av_frame_unref(m_frame.get());
        }
        return sent == 0 || sent == AVERROR(EAGAIN);
    }

    // Hands the picture over as contiguous Y, U, V planes with pitch == width. An odd
    // width or height loses its last column or row so the chroma planes are exactly half.
    void Deliver(const AVFrame& frame) {
        const int width = frame.width & ~1;
        const int height = frame.height & ~1;
        if (width < 2 || height < 2 || !m_callback) return;
        const size_t lumaSize = static_cast<size_t>(width) * height;
        m_picture.resize(lumaSize + lumaSize / 2);
        uint8_t* planes[3] = {m_picture.data(), m_picture.data() + lumaSize,
                              m_picture.data() + lumaSize + lumaSize / 4};
        int pitches[3] = {width, width / 2, width / 2};
        const auto format = static_cast<AVPixelFormat>(frame.format);
        if (format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_YUVJ420P) {
            for (int p = 0; p < 3; ++p) {
                const int rows = p ? height / 2 : height;
                av_image_copy_plane(planes[p], pitches[p], frame.data[p], frame.linesize[p],
                                    pitches[p], rows);
            }
        } else if (!Convert(frame, format, width, height, planes, pitches)) {
            return;
        }
        m_callback(m_picture.data(), width, height, width, m_user);
    }

    // Other layouts (4:2:2, 4:4:4, 10-bit) go through libswscale; same size, so it is a
    // format change only.
    bool Convert(const AVFrame& frame, AVPixelFormat format, int width, int height,
                 uint8_t* planes[3], int pitches[3]) {
        m_sws.reset(sws_getCachedContext(m_sws.release(), width, height, format, width, height,
                                         AV_PIX_FMT_YUV420P, SWS_POINT, nullptr, nullptr, nullptr));
        if (!m_sws) return false;
        return sws_scale(m_sws.get(), frame.data, frame.linesize, 0, height, planes, pitches) ==
               height;
    }

    const bool m_hevc;
    vcodec::AccessUnitSplitter m_splitter;
    VideoCallBack m_callback;
    void* m_user;
    vcodec::CodecContextPtr m_context;
    vcodec::FramePtr m_frame;
    vcodec::PacketPtr m_packet;
    vcodec::SwsPtr m_sws;
    std::vector<uint8_t> m_picture;  // the picture handed to the callback
};

}  // namespace

void* CreateDecoder(int codec, VideoCallBack callback, void* user) {
    const AVCodecID id = vcodec::CodecIdOf(codec);
    if (id == AV_CODEC_ID_NONE || !callback) return nullptr;
    auto* decoder = new (std::nothrow) VideoDecoder(id, callback, user);
    if (decoder && !decoder->Open(id)) {
        delete decoder;
        return nullptr;
    }
    return decoder;
}

int Decoder(void* decoder, const unsigned char* data, int length) {
    if (!decoder || !data || length <= 0) return 0;
    return static_cast<VideoDecoder*>(decoder)->Decode(data, length);
}

void DestroyDecoder(void* decoder) { delete static_cast<VideoDecoder*>(decoder); }
