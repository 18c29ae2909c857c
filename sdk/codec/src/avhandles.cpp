#include "avhandles.h"

#include "VornMediaDef.h"

namespace vcodec {

AVCodecID CodecIdOf(int code) {
    switch (code) {
        case VORN_H264:
            return AV_CODEC_ID_H264;
        case VORN_H265:
            return AV_CODEC_ID_HEVC;
        default:
            return AV_CODEC_ID_NONE;
    }
}

AccessUnitSplitter::AccessUnitSplitter(AVCodecID id)
    : m_id(id), m_parser(av_parser_init(id)), m_context(avcodec_alloc_context3(nullptr)) {}

AVRational AccessUnitSplitter::StatedFrameRate() const {
    AVRational rate = m_context->framerate;
    if (rate.num <= 0 || rate.den <= 0) return AVRational{0, 1};
    // The H.264 parser reports the tick rate, which counts fields: two ticks per frame.
    if (m_id == AV_CODEC_ID_H264) rate = av_mul_q(rate, AVRational{1, 2});
    return rate;
}

}  // namespace vcodec
