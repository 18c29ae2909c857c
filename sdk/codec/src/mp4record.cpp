// MP4RecordOpen, MP4RecordSetHead, MP4RecordWrite, MP4RecordClose: H.264/H.265 into
// fragmented MP4 without re-encoding.
//
// The file gets its header (an empty moov) at the first key picture, once the parameter
// sets are known; pictures before it cannot be decoded and are dropped. A fragment ends at
// every key picture and at least once a second, so a file cut short (power loss, a killed
// server) still plays up to its last whole fragment.
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "VornCodec.h"
#include "annexb.h"
#include "avhandles.h"
#include "sampletiming.h"
#include "splitter.h"

namespace {

using vcodec::SampleTimer;

constexpr size_t kMaxHead = 64 * 1024;  // parameter sets are a few hundred bytes
constexpr AVRational kTimeBase{1, int(SampleTimer::kTicksPerSecond)};

// One recording; used by one thread at a time.
class Mp4Recorder {
public:
    Mp4Recorder(AVCodecID id, int width, int height, int fps)
        : m_id(id),
          m_width(width),
          m_height(height),
          m_fps(fps > 0 && fps <= 120 ? fps : 25),
          m_splitter(id),
          m_opened(std::chrono::steady_clock::now()) {}

    bool Open(const char* file) {
        AVFormatContext* raw = nullptr;
        if (avformat_alloc_output_context2(&raw, nullptr, "mp4", file) < 0 || !raw) return false;
        m_output.reset(raw);
        m_packet.reset(av_packet_alloc());
        m_path = file;
        // Always a local file, whatever the name looks like ("pipe:", "http://").
        const std::string url = "file:" + m_path;
        return m_packet && m_splitter.Valid() &&
               avio_open(&m_output->pb, url.c_str(), AVIO_FLAG_WRITE) >= 0;
    }

    void SetHead(const uint8_t* head, int length) {
        if (m_started || length <= 0 || size_t(length) > kMaxHead) return;
        m_head.assign(head, head + length);
        // The parser needs the parameter sets to read the pictures' order counts.
        Write(head, length);
    }

    void Write(const uint8_t* data, int length) {
        if (m_failed || length <= 0 || length > INT_MAX - 4) return;
        const int64_t now = Ticks(std::chrono::steady_clock::now() - m_opened);
        auto unit = [&](const uint8_t* au, int size) { OnUnit(au, size, now); };
        if (vcodec::StartsWithStartCode(data, size_t(length))) {
            m_splitter.Feed(data, length, unit);
            return;
        }
        // A bare NAL unit gets its start code, so the parser can see where it begins.
        m_bare.assign({0, 0, 0, 1});
        m_bare.insert(m_bare.end(), data, data + length);
        m_splitter.Feed(m_bare.data(), int(m_bare.size()), unit);
    }

    // Flushes what is held, finishes the file and closes it. A recording that never got a
    // key picture leaves no file behind.
    void Close() {
        if (!m_failed) m_splitter.Flush([&](const uint8_t* au, int size) { OnUnit(au, size, -1); });
        if (m_timer) m_timer->Finish();
        if (m_started) av_write_trailer(m_output.get());
        m_output.reset();
        if (m_written == 0 && !m_path.empty()) unlink(m_path.c_str());
    }

private:
    static int64_t Ticks(std::chrono::steady_clock::duration d) {
        return std::chrono::duration_cast<std::chrono::microseconds>(d).count() *
               SampleTimer::kTicksPerSecond / 1000000;
    }

    void OnUnit(const uint8_t* au, int size, int64_t arrival) {
        const AVCodecParserContext& info = m_splitter.Info();
        if (!m_started && (!info.key_frame || !Start(au, size))) return;
        if (m_failed) return;
        m_timer->Push(std::vector<uint8_t>(au, au + size), info.key_frame == 1,
                      info.output_picture_number, arrival);
    }

    // Writes the header at the first key picture whose parameter sets are known (in band,
    // else from the head). False while they are not.
    bool Start(const uint8_t* au, int size) {
        const bool hevc = m_id == AV_CODEC_ID_HEVC;
        // Sets in band are the ones the pictures were coded with (a re-encoded stream carries
        // its own while the head holds the camera's); the head stands in when there are none.
        std::vector<uint8_t> sets = vcodec::ParameterSets(hevc, au, size_t(size));
        if (sets.empty()) sets = vcodec::ParameterSets(hevc, m_head.data(), m_head.size());
        const AVCodecParserContext& info = m_splitter.Info();
        const int width = info.width > 0 ? info.width : m_width;
        const int height = info.height > 0 ? info.height : m_height;
        if (sets.empty() || width <= 0 || height <= 0) return false;

        AVStream* stream = avformat_new_stream(m_output.get(), nullptr);
        if (!stream) return Fail();
        AVCodecParameters& par = *stream->codecpar;
        par.codec_type = AVMEDIA_TYPE_VIDEO;
        par.codec_id = m_id;
        par.width = width;
        par.height = height;
        // Annex-B parameter sets: the muxer turns them into avcC/hvcC and the pictures into
        // length-prefixed units.
        par.extradata =
            static_cast<uint8_t*>(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        if (!par.extradata) return Fail();
        memcpy(par.extradata, sets.data(), sets.size());
        par.extradata_size = int(sets.size());
        stream->time_base = kTimeBase;

        AVDictionary* options = nullptr;
        av_dict_set(&options, "movflags", "frag_keyframe+empty_moov+default_base_moof", 0);
        av_dict_set(&options, "frag_duration", "1000000", 0);
        const int header = avformat_write_header(m_output.get(), &options);
        av_dict_free(&options);
        if (header < 0) return Fail();
        m_stream = stream;

        const AVRational rate = m_splitter.StatedFrameRate();
        const int64_t frameTicks =
            rate.num > 0 ? av_rescale(SampleTimer::kTicksPerSecond, rate.den, rate.num) : 0;
        m_timer =
            std::make_unique<SampleTimer>(frameTicks, SampleTimer::kTicksPerSecond / m_fps,
                                          [this](const SampleTimer::Sample& s) { WriteSample(s); });
        m_started = true;
        return true;
    }

    bool Fail() {
        m_failed = true;
        return false;
    }

    void WriteSample(const SampleTimer::Sample& s) {
        if (av_new_packet(m_packet.get(), int(s.data.size())) < 0) return;
        memcpy(m_packet->data, s.data.data(), s.data.size());
        m_packet->pts = s.pts;
        m_packet->dts = s.dts;
        m_packet->duration = s.duration;
        m_packet->flags = s.key ? AV_PKT_FLAG_KEY : 0;
        m_packet->stream_index = m_stream->index;
        // The muxer may have chosen its own time base for the track.
        av_packet_rescale_ts(m_packet.get(), kTimeBase, m_stream->time_base);
        if (av_write_frame(m_output.get(), m_packet.get()) == 0) ++m_written;
        av_packet_unref(m_packet.get());
    }

    const AVCodecID m_id;
    const int m_width, m_height, m_fps;  // stand-ins until the stream tells
    vcodec::AccessUnitSplitter m_splitter;
    const std::chrono::steady_clock::time_point m_opened;
    std::string m_path;
    vcodec::OutputPtr m_output;
    AVStream* m_stream = nullptr;  // owned by m_output; set with the header
    vcodec::PacketPtr m_packet;
    std::unique_ptr<SampleTimer> m_timer;  // made with the header, once the rate is known
    std::vector<uint8_t> m_head;
    std::vector<uint8_t> m_bare;  // a bare NAL unit with its start code added
    bool m_started = false;       // header written
    bool m_failed = false;        // the file cannot be written; data is dropped
    int64_t m_written = 0;        // samples in the file
};

}  // namespace

void* MP4RecordOpen(const char* file, int codec, int width, int height, int fps, int audio,
                    int sampleRate, int channels, int bits) {
    const AVCodecID id = vcodec::CodecIdOf(codec);
    if (!file || !*file || id == AV_CODEC_ID_NONE) return nullptr;
    auto* recorder = new (std::nothrow) Mp4Recorder(id, width, height, fps);
    if (recorder && !recorder->Open(file)) {
        delete recorder;
        return nullptr;
    }
    return recorder;
}

void MP4RecordSetHead(void* recorder, const unsigned char* head, int length) {
    if (recorder && head) static_cast<Mp4Recorder*>(recorder)->SetHead(head, length);
}

void MP4RecordWrite(void* recorder, const unsigned char* data, int length) {
    if (recorder && data) static_cast<Mp4Recorder*>(recorder)->Write(data, length);
}

void MP4RecordClose(void* recorder) {
    auto* r = static_cast<Mp4Recorder*>(recorder);
    if (!r) return;
    r->Close();
    delete r;
}
