#include "rtspstream.h"

#include <chrono>
#include <cstring>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

namespace rtspc {

namespace {

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct PacketFree {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};

}  // namespace

void Stream::FormatCloser::operator()(AVFormatContext* f) const { avformat_close_input(&f); }

Stream::Stream(std::string url, Callbacks callbacks) : m_url(std::move(url)), m_cb(callbacks) {}

// The context goes first: its interrupt callback reads the members below it.
Stream::~Stream() { m_format.reset(); }

int Stream::Interrupt(void* self) {
    auto* s = static_cast<Stream*>(self);
    return s->m_stop || NowMs() > s->m_deadline ? 1 : 0;
}

void Stream::Arm(int ms) { m_deadline = NowMs() + ms; }

void Stream::Report(int status) {
    if (m_cb.status && !m_stop) m_cb.status(m_cb.handle, status, m_cb.user);
}

bool Stream::Open() {
    AVFormatContext* raw = avformat_alloc_context();
    if (!raw) return false;
    raw->interrupt_callback.callback = &Stream::Interrupt;
    raw->interrupt_callback.opaque = this;

    AVDictionary* opts = nullptr;
    av_dict_set(&opts, "rtsp_transport", "tcp", 0);
    // Only the video track is set up; audio would be read and thrown away.
    av_dict_set(&opts, "allowed_media_types", "video", 0);
    av_dict_set_int(&opts, "timeout", int64_t(kTimeoutMs) * 1000, 0);  // socket I/O, in us
    Arm(kTimeoutMs);
    // On failure avformat_open_input frees the context itself.
    int rc = avformat_open_input(&raw, m_url.c_str(), nullptr, &opts);
    av_dict_free(&opts);  // what the demuxer did not take
    if (rc < 0) return false;
    m_format.reset(raw);

    // The SDP names the codec and carries the parameter sets; probing packets with
    // avformat_find_stream_info would only delay the first frame.
    for (unsigned i = 0; i < m_format->nb_streams; ++i) {
        const AVCodecParameters* par = m_format->streams[i]->codecpar;
        if (par->codec_type != AVMEDIA_TYPE_VIDEO) continue;
        if (par->codec_id != AV_CODEC_ID_H264 && par->codec_id != AV_CODEC_ID_HEVC) continue;
        m_videoIndex = static_cast<int>(i);
        m_codec = par->codec_id == AV_CODEC_ID_H264 ? Codec::kH264 : Codec::kH265;
        m_extraParams =
            ParameterSets(m_codec, par->extradata, par->extradata ? size_t(par->extradata_size) : 0,
                          &m_lengthSize);
        break;
    }
    return m_videoIndex >= 0 && !m_stop;
}

bool Stream::Run() {
    std::unique_ptr<AVPacket, PacketFree> packet(av_packet_alloc());
    if (!packet) return !m_stop;
    while (!m_stop) {
        Arm(kTimeoutMs);
        int rc = av_read_frame(m_format.get(), packet.get());
        if (rc == AVERROR(EAGAIN)) continue;
        if (rc < 0) break;
        if (packet->stream_index == m_videoIndex && packet->size > 0) Deliver(packet.get());
        av_packet_unref(packet.get());
    }
    return !m_stop;
}

void Stream::Deliver(const AVPacket* packet) {
    const AVStream* st = m_format->streams[m_videoIndex];
    int64_t ts = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    // The head carries 32-bit milliseconds: they wrap after 49 days, as the stream's own do.
    if (ts != AV_NOPTS_VALUE)
        m_lastStamp = static_cast<uint32_t>(av_rescale_q(ts, st->time_base, AVRational{1, 1000}));

    m_packet.assign(VORN_MEDIA_HEAD_SIZE, 0);
    const uint8_t* data = packet->data;
    size_t size = static_cast<size_t>(packet->size);
    if (m_lengthSize && !IsAnnexB(data, size)) {
        if (!LengthPrefixedToAnnexB(data, size, m_lengthSize, m_packet)) return;
    } else {
        m_packet.insert(m_packet.end(), data, data + size);
    }
    const uint8_t* payload = m_packet.data() + VORN_MEDIA_HEAD_SIZE;
    NalSummary nal = Summarise(m_codec, payload, m_packet.size() - VORN_MEDIA_HEAD_SIZE);
    // A decoder cannot start without parameter sets: when the SDP had them but the stream
    // does not repeat them, the first key picture gets them once.
    if (nal.keyPicture && !m_keySeen && !nal.parameterSets && !m_paramsSeen)
        m_packet.insert(m_packet.begin() + VORN_MEDIA_HEAD_SIZE, m_extraParams.begin(),
                        m_extraParams.end());
    m_keySeen |= nal.keyPicture;
    m_paramsSeen |= nal.parameterSets;

    _media_head head{};
    head.type = MD_VIDEO;
    head.code = m_codec == Codec::kH264 ? VORN_H264 : VORN_H265;
    head.unStamp = m_lastStamp;
    head.len = static_cast<uint32_t>(m_packet.size() - VORN_MEDIA_HEAD_SIZE);
    std::memcpy(m_packet.data(), &head, sizeof(head));
    m_cb.data(m_cb.handle, MD_VIDEO, m_packet.data(), static_cast<int>(m_packet.size()), m_cb.user);
}

}  // namespace rtspc
