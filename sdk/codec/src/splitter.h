// Access units (one picture each) out of Annex-B input in any cut, by libavcodec's parser.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "avhandles.h"

namespace vcodec {

// The parser knows a unit is complete only when the next one starts, so it holds the last
// one back; Flush hands it over and starts afresh.
class AccessUnitSplitter {
public:
    using Unit = std::function<void(const uint8_t* data, int size)>;
    // Far above any real picture (a 4K key frame is a few megabytes).
    static constexpr size_t kMaxUnitBytes = 32u << 20;

    explicit AccessUnitSplitter(AVCodecID id);
    // False when the codec has no parser; Feed then yields nothing.
    bool Valid() const { return m_parser && m_context; }

    // Calls `unit` for every access unit completed by `data`. The bytes are valid during the
    // call only; Info() (key_frame, output_picture_number, width, height) describes that
    // unit. Returns 0 when the parser refused the input, else 1.
    int Feed(const uint8_t* data, int length, const Unit& unit);
    // Hands over what the parser holds as one unit; the next Feed starts a new stream cut.
    void Flush(const Unit& unit);
    const AVCodecParserContext& Info() const { return *m_parser; }
    // The frame rate stated by the stream's timing information; 0/1 when it states none.
    AVRational StatedFrameRate() const;

private:
    void Reset();

    const AVCodecID m_id;
    ParserPtr m_parser;
    CodecContextPtr m_context;  // the parser's scratch context; never opened
    std::vector<uint8_t> m_input;
    size_t m_held = 0;  // bytes taken since the last unit came out
};

}  // namespace vcodec
