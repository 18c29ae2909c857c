#!/usr/bin/python3
"""RTSP test peer: serves one live test stream (H.264 or H.265) under every path, so the
server's own play addresses, with their route segments and queries, open as they are.

Listens on 127.0.0.1 only. Prints "ready <port>" once it listens (--port 0 picks a free
port) and runs until it gets SIGTERM or SIGINT. Needs Debian's python3-gi,
gir1.2-gst-rtsp-server-1.0 and the GStreamer plug-ins listed in scripts/install-deps.
"""

import argparse
import re
import signal
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
gi.require_version("GstSdp", "1.0")
from gi.repository import GLib, Gst, GstRtspServer, GstSdp  # noqa: E402

# Before any subclass is registered: their signals refer to GStreamer's types.
Gst.init(None)

MOUNT = "/any"

# A SETUP names a track by appending its control ("stream=N") to the content base, which
# may sit after a query ("...?live=0/stream=0"): keep that tail so the track is found.
CONTROL = re.compile(r"/(stream=\d+)$")


class AnyPath(GstRtspServer.RTSPMountPoints):
    """Maps every request path to the one mount, keeping a track control suffix."""

    def do_make_path(self, url):
        text = url.abspath or "/"
        if url.query:
            text += "?" + url.query
        m = CONTROL.search(text)
        return MOUNT + "/" + m.group(1) if m else MOUNT


class NoSpropMedia(GstRtspServer.RTSPMedia):
    """Leaves the parameter sets out of the SDP: clients must find them in-band."""

    def do_setup_sdp(self, sdp, info):
        # The default fills a scratch message; its text, edited, goes into the caller's.
        _, scratch = GstSdp.SDPMessage.new()
        if not GstRtspServer.RTSPMedia.do_setup_sdp(self, scratch, info):
            return False
        text = re.sub(r";?\s*sprop-(parameter-sets|vps|sps|pps)=[^;\r\n]*", "", scratch.as_text())
        res, edited = GstSdp.SDPMessage.new_from_text(text)
        if res != GstSdp.SDPResult.OK:
            return False
        for i in range(edited.attributes_len()):
            a = edited.get_attribute(i)
            sdp.add_attribute(a.key, a.value)
        for i in range(edited.medias_len()):
            sdp.add_media(edited.get_media(i))
        return True


def pipeline(args):
    width, height = args.size.lower().split("x")
    source = (
        "videotestsrc is-live=true pattern=ball ! "
        f"video/x-raw,format=I420,width={int(width)},height={int(height)},"
        f"framerate={args.fps}/1"
    )
    inband = 0 if args.no_inband else -1
    if args.codec == "h264":
        enc = (
            "x264enc tune=zerolatency speed-preset=ultrafast aud=false sliced-threads=false "
            # The encoder keeps the parameter sets out of its samples; the payloader puts
            # them into the SDP and, unless --no-inband, in front of every key frame.
            f"option-string=repeat-headers=0 key-int-max={args.key_interval} ! "
            "video/x-h264,profile=baseline,stream-format=avc,alignment=au ! "
            f"rtph264pay name=pay0 pt=96 config-interval={inband}"
        )
    else:
        enc = (
            "x265enc tune=zerolatency speed-preset=ultrafast "
            f"key-int-max={args.key_interval} ! rtph265pay name=pay0 pt=96 "
            f"config-interval={inband}"
        )
    return f"( {source} ! {enc} )"


def main():
    p = argparse.ArgumentParser(description=__doc__)
    p.add_argument("--port", type=int, default=0)
    p.add_argument("--codec", choices=("h264", "h265"), default="h264")
    p.add_argument("--size", default="320x240")
    p.add_argument("--fps", type=int, default=25)
    p.add_argument("--key-interval", type=int, default=25, help="frames between key frames")
    p.add_argument("--no-sprop", action="store_true", help="no parameter sets in the SDP")
    p.add_argument("--no-inband", action="store_true",
                   help="parameter sets only in the SDP, none inserted before key frames "
                   "(the H.265 encoder still starts its stream with them)")
    p.add_argument("--unshared", action="store_true",
                   help="an encoder per client (every client starts on a key frame)")
    args = p.parse_args()
    if args.no_sprop and args.no_inband:
        p.error("--no-sprop and --no-inband leave no parameter sets at all")
    if not re.fullmatch(r"\d+[xX]\d+", args.size):
        p.error("--size is WxH")

    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service(str(args.port))
    mounts = AnyPath()
    server.set_mount_points(mounts)
    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_launch(pipeline(args))
    factory.set_shared(not args.unshared)
    if args.no_sprop:
        factory.set_media_gtype(NoSpropMedia.__gtype__)
    mounts.add_factory(MOUNT, factory)

    if server.attach(None) == 0:
        print("failed to listen", file=sys.stderr, flush=True)
        return 1
    loop = GLib.MainLoop()
    for sig in (signal.SIGTERM, signal.SIGINT):
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, sig, loop.quit)
    print(f"ready {server.get_bound_port()}", flush=True)
    loop.run()
    return 0


if __name__ == "__main__":
    sys.exit(main())
