// One pulled RTSP stream: the libavformat session, its reader loop and the packets it hands
// on. The handle table (rtspclient.cpp) owns the threads; this class knows nothing of them.
//
// Threading: Open and Run run on one thread at a time (the caller's, then the reader's, or
// the reader's alone); Stop may be called from any thread at any time and makes a blocked
// Open or Run return within about 100 ms (libavformat polls the interrupt callback).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "RtspClientSDK.h"
#include "annexb.h"

struct AVFormatContext;
struct AVPacket;

namespace rtspc {

struct Callbacks {
    int handle = -1;
    RtspDataCallBack data = nullptr;
    RtspStatusCallBack status = nullptr;  // may be null
    void* user = nullptr;
};

class Stream {
public:
    // A dead host or a silent stream gives up after this long.
    static constexpr int kTimeoutMs = 5000;

    Stream(std::string url, Callbacks callbacks);
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // Connects, asks for the video track over TCP and starts playing. False when the peer
    // does not answer in time, refuses, has no H.264/H.265 track, or Stop was called.
    bool Open();
    // Hands every video packet to the data callback until Stop or the end of the stream.
    // Returns true when it ended by itself (not by Stop).
    bool Run();
    void Stop() { m_stop = true; }
    bool Stopping() const { return m_stop; }
    // The status callback, unless a stop was asked for (a closing caller wants none).
    void Report(int status);

private:
    struct FormatCloser {
        void operator()(AVFormatContext* f) const;
    };
    static int Interrupt(void* self);
    void Arm(int ms);
    void Deliver(const AVPacket* packet);

    // Fixed once Open has returned.
    const std::string m_url;
    const Callbacks m_cb;
    std::unique_ptr<AVFormatContext, FormatCloser> m_format;
    int m_videoIndex = -1;
    Codec m_codec = Codec::kH264;
    int m_lengthSize = 0;  // samples are length-prefixed when the extradata is a record
    Bytes m_extraParams;   // the extradata's parameter sets, Annex-B

    // Shared with Stop and the interrupt callback.
    std::atomic<bool> m_stop{false};
    std::atomic<int64_t> m_deadline{0};  // steady-clock ms; blocking calls give up after it

    // Reader-thread state.
    bool m_paramsSeen = false;
    bool m_keySeen = false;
    uint32_t m_lastStamp = 0;
    Bytes m_packet;  // head + payload, reused
};

}  // namespace rtspc
