#include "splitter.h"

namespace vcodec {

AccessUnitSplitter::AccessUnitSplitter(AVCodecID id)
    : m_id(id), m_parser(av_parser_init(id)), m_context(avcodec_alloc_context3(nullptr)) {}

AVRational AccessUnitSplitter::StatedFrameRate() const {
    AVRational rate = m_context->framerate;
    if (rate.num <= 0 || rate.den <= 0) return AVRational{0, 1};
    // The H.264 parser reports the tick rate, which counts fields: two ticks per frame.
    if (m_id == AV_CODEC_ID_H264) rate = av_mul_q(rate, AVRational{1, 2});
    return rate;
}

int AccessUnitSplitter::Feed(const uint8_t* data, int length, const Unit& unit) {
    if (!Valid() || !data || length <= 0) return 0;
    // The parser reads a little past the end it is given, so it works on a padded copy.
    m_input.assign(data, data + length);
    m_input.resize(size_t(length) + AV_INPUT_BUFFER_PADDING_SIZE, 0);
    const uint8_t* at = m_input.data();
    int stalls = 0;
    while (length > 0) {
        uint8_t* out = nullptr;
        int outSize = 0;
        const int used = av_parser_parse2(m_parser.get(), m_context.get(), &out, &outSize, at,
                                          length, AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
        if (used < 0 || used > length) return 0;
        if (outSize > 0) {
            m_held = 0;
            unit(out, outSize);
        }
        // Input that never completes a unit would pile up inside the parser.
        m_held += size_t(used);
        if (m_held > kMaxUnitBytes) {
            Reset();
            if (!Valid()) return 0;
        }
        // A parser that keeps taking nothing would spin forever.
        stalls = used == 0 ? stalls + 1 : 0;
        if (stalls > 1) return 0;
        at += used;
        length -= used;
    }
    return 1;
}

void AccessUnitSplitter::Flush(const Unit& unit) {
    if (!Valid()) return;
    uint8_t* out = nullptr;
    int outSize = 0;
    av_parser_parse2(m_parser.get(), m_context.get(), &out, &outSize, nullptr, 0, AV_NOPTS_VALUE,
                     AV_NOPTS_VALUE, 0);
    if (outSize > 0) unit(out, outSize);
    // A parser that has seen the end of its input is not fed again.
    Reset();
}

// Drops whatever the parser holds.
void AccessUnitSplitter::Reset() {
    m_parser.reset(av_parser_init(m_id));
    m_held = 0;
}

}  // namespace vcodec
