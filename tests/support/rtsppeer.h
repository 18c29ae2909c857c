// An RTSP server on loopback for tests of stream clients: runs tests/support/rtsppeer.py
// (GStreamer's RTSP server) serving one live test stream under EVERY path, so any play
// address opens as it is. Start() launches it and waits until it listens; Kill() ends it
// abruptly (clients see the link drop); Start() again brings it back on the same port.
//
//   cmstest::RtspPeerOptions o;
//   o.codec = "h265";
//   cmstest::RtspPeer peer(o);
//   ASSERT_TRUE(peer.Start());
//   std::string url = peer.Url("/media/any/path?live=0");
//
// The peer process is killed when the thread that started it exits (and by the destructor).
#pragma once

#include <sys/types.h>

#include <string>

namespace cmstest {

struct RtspPeerOptions {
    std::string codec = "h264";  // "h264" or "h265"
    std::string size = "320x240";
    int fps = 25;
    int keyInterval = 25;   // frames from one key frame to the next
    bool noSprop = false;   // no parameter sets in the SDP: only in the stream
    bool noInband = false;  // parameter sets only in the SDP, none before key frames
    bool unshared = false;  // an encoder per client (each starts on a key frame)
    int port = 0;           // 0: a free port, chosen by the peer
};

class RtspPeer {
public:
    explicit RtspPeer(RtspPeerOptions options = {});
    ~RtspPeer();
    RtspPeer(const RtspPeer&) = delete;
    RtspPeer& operator=(const RtspPeer&) = delete;

    // Starts the peer (on the port it had before, after a Kill) and waits up to 15 s for it
    // to listen. False when it did not come up (its errors go to this process's stderr).
    bool Start();
    // SIGKILL and reap: open connections drop without a goodbye.
    void Kill();
    // SIGSTOP / SIGCONT: a peer that hangs with its connections open (no data, no close).
    void Freeze();
    void Thaw();
    bool Running();
    int port() const { return m_port; }
    // "rtsp://127.0.0.1:<port>" + path (path starts with '/').
    std::string Url(const std::string& path = "/live") const;

private:
    RtspPeerOptions m_options;
    pid_t m_pid = -1;
    int m_port = 0;
};

}  // namespace cmstest
