#!/usr/bin/env python3
"""Writes the seed corpus of every fuzz target into fuzz/corpus/<target>/.

Seeds are small, valid-looking inputs of each reader (frames as clients send them, the
settings and stream samples of the repository), so the fuzzer starts from the paths real
traffic takes. Run again after a wire change; the files are committed."""
import os
import struct

ROOT = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(ROOT)


def put(target, name, data):
    d = os.path.join(ROOT, "corpus", target)
    os.makedirs(d, exist_ok=True)
    if isinstance(data, str):
        data = data.encode()
    with open(os.path.join(d, name), "wb") as f:
        f.write(data)


def head(mtype, frm=0, to=0, from_id=0, to_id=0):
    return struct.pack("<BBBBii", mtype, frm, to, 0, from_id, to_id)


def frame(body):
    return struct.pack("<I", len(body)) + body


def text(s, n):
    b = s.encode()[: n - 1]
    return b + b"\0" * (n - len(b))


def alarm(node_id=0, node_type=0, event=0x01000001, serial="DEV10", pics=(0, 0, 0, 0)):
    return (struct.pack("<iI", 1, 1700000000) + text(serial, 30) + b"\0\0" +
            struct.pack("<iiiiiI", node_id, node_type, event, 1, 2, 0) +
            text("comm", 30) + text("info", 30) + struct.pack("<4h", 0, 0, 100, 100) +
            struct.pack("<4i", 0, 0, 0, 0) + struct.pack("<4i", *pics))


def push(sub, code, parent="", owner="34020000002000000001", name="node", status=0):
    return (struct.pack("<i", sub) + text(code, 30) + text(parent, 30) + text("", 30) +
            text(owner, 30) + struct.pack("<ii", 2, status) + text(name, 50) + b"\0\0" +
            struct.pack("<dd", 116.3, 39.9))


def sample(name, n):
    with open(os.path.join(REPO, "tests", "data", name), "rb") as f:
        return f.read(n)


# Message frames and the whole dispatch.
login = head(1) + b"DEV10"
put("frame", "login", b"\x07" + frame(login))
put("frame", "two", b"\x01" + frame(login) + frame(b"") + frame(head(9) + b"\0" * 12))
put("frame", "split", b"\x03" + frame(head(2) + alarm()))
put("msgdispatch", "login", b"\x02" + login)
put("msgdispatch", "alarm", b"\x02" + head(2) + text("DEV10", 64) + alarm())
put("msgdispatch", "getdata", b"\x03" + head(9) + struct.pack("<ii", 1, 0) + b"34020000002000000001\0")
put("msgdispatch", "sql", b"\x04" + head(16, 1) + b"select id,name from region")
put("msgdispatch", "geturl", b"\x05" + head(29) + struct.pack("<qi", 10, 2) + text("CH30CODE", 64))
put("msgdispatch", "status", b"\x06" + head(10) + b"<dev>DEV10</dev><st>1</st>")
put("msgdispatch", "file", b"\x07" + head(19, 1, 1, 5) + b"\xff\xd8\xff\xd9")
put("msgdispatch", "push", b"\x03" + head(28) + push(5, "34020000001320000077", "34020000002000000001"))
for sub in range(1, 6):
    put("nodepush", "sub%d" % sub, b"\x00" + push(sub, "3402000000132000007%d" % sub, "34020000002000000001"))
put("event", "serial", b"\x00" + text("DEV10", 64) + alarm())
put("event", "face", b"\x00" + text("DEV12", 64) + alarm(event=0x03000040, pics=(4, 0, 0, 0)) + b"\xff\xd8\xff\xd9")
put("event", "struct", b"\x01" + alarm(10, 2, 0x04000001))
put("event", "intv", b"\x01" + alarm(21, 1, 0x03000001))

# The HTTP side.
get = "GET /?cmd=login&nodeid=10&nodetype=2 HTTP/1.1\r\nHost: cms\r\nConnection: close\r\n\r\n"
post = ("POST /xconfig?cmd=set HTTP/1.1\r\nHost: cms\r\nContent-Length: 11\r\n"
        "Content-Type: application/xml\r\n\r\n<a>1</a>xyz")
put("httpcodec", "get", "\x10" + get)
put("httpcodec", "post", "\x05" + post)
put("httpcodec", "lf", "\x7f" + "GET /metrics HTTP/1.0\nUpgrade: websocket\nSec-WebSocket-Version: 13\n\n")
put("httprequest", "get", get)
put("httprequest", "post", post)
put("httprequest", "ws", "GET /ws HTTP/1.1\r\nHost: h:80\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Protocol: chat\r\n"
    "Sec-WebSocket-Version: 13\r\n\r\n")
put("command", "media", "cmd=mcap&nodeid=10&nodetype=2&id=3&param1=1&code=CH30CODE&user=a&pass=b")
put("command", "times", "cmd=mdown&nodeid=30&nodetype=3&starttime=1700000000&stoptime=1700000600&type=2")
put("command", "escaped", "cmd=remoteset&code=%41%42%zz&param2=-5&param3=99999999999&param4=7")
for name, query in [("getconfig", "cmd=getconfig&nodeid=12&nodetype=2&type=7"),
                    ("login", "cmd=login&nodeid=10&nodetype=2&param1=0"),
                    ("preset", "cmd=callpreset&nodeid=30&nodetype=3&id=2"),
                    ("reboot", "cmd=reboot"),
                    ("search", "cmd=search&nodeid=10&nodetype=2"),
                    ("metrics", "")]:
    target = "/metrics" if name == "metrics" else "/?" + query
    put("httpcallback", name, "\x01" + target)
rec = struct.pack("<ii", 1, 0) + text("cms", 40) + text("/?cmd=reset", 512) + b"\0" * 160 + struct.pack("<i", 0)
put("httpcallback", "raw", b"\x00" + rec)

# Play strings.
put("playstring", "live", "rtsp://127.0.0.1:554:admin:pw:0:1?live=0&ss=7")
put("playstring", "replay", "rtsp://10.0.0.9:8060/10.0.0.2:8000:a:b:1:@CH30CODE?replay=1:2024-01-02-03-04-05&2024-01-02-03-05-05")
put("playstring", "ptz", "rtsp://10.0.0.2:8000:a:b:1:2?cmd=ptzctrl&type=1&param1=3")
put("playstring", "http", "/10.0.0.1%3A554/10.0.0.2%3A8060/x?event=1")

# Documents: the first byte picks the reader (see documents_fuzz.cpp).
docs = {
    0: "<camera><name>gate 1</name><sn>SN1</sn><ip>10.0.0.5</ip><port>8001</port><type>3</type>"
       "<user>admin</user><pass>pw</pass><chan>1</chan><code>34020000001320000001</code>"
       "<stream>1</stream><path>/rec</path></camera>",
    1: "<cameras><camera><sn>A</sn><parent>up</parent><index>6</index></camera><camera><sn>B</sn></camera></cameras>",
    2: "<rulematch><type>4</type><icon>100</icon><match><name>cross</name><pos>2</pos>"
       "<paramsize>3</paramsize><pnames>a,b</pnames><enable>2</enable></match></rulematch>",
    4: "<lib><desc>car</desc><file>car.bin</file><gpu><size>512</size><ability>3</ability></gpu></lib>"
       "<lib><desc>p</desc><size>9</size></lib>",
    6: "<object><type>2</type><name>car</name></object><object><type>3</type><name>bike</name></object>",
    7: "<mode>3</mode><zn><name>door</name><info>1;1&2@11&12@;7;4;;9;100&</info></zn>",
    8: "<rules><rule><sn>CAM-B</sn><mode>2</mode><zn><name>z</name><info>1;</info></zn></rule></rules>",
    16: "<param><sn>7</sn><enable>1</enable><sens>10</sens><fps>11</fps><minsize>12</minsize>"
        "<maxsize>13</maxsize><interval>14</interval><snap>15</snap><rectime>-10</rectime></param>",
    17: "<plan><sn>1</sn><enable>1</enable><d0>480-720;780-1080;</d0><d1></d1><d2></d2></plan>",
    18: "<model><sn>3</sn><m><type>1</type></m></model>",
    20: "<records><record><sn>1</sn><pre>4</pre><post>9</post></record></records>",
    23: "<dev>DEV10</dev><st>1</st>",
    24: "<dev>A1:10.0.0.1</dev><dev>B2:10.0.0.2</dev><dev>C3</dev>",
    25: "<domain><code>D9</code><status>1</status></domain><domain><code>D8</code></domain>",
}
for pick, doc in docs.items():
    put("documents", "r%02d" % pick, chr(pick) + doc)

# Settings: the first byte picks the file (see settings_fuzz.cpp).
for pick, name in [(0, "cmslocal.xml"), (1, "cmsparam.xml"), (2, "cmsparam.xml"), (3, "dev.xml")]:
    with open(os.path.join(REPO, "config", name), "rb") as f:
        put("settings", "%d_%s" % (pick, name), bytes([pick]) + f.read(3000))

# Elementary streams: the first byte picks the walker (see esparse_fuzz.cpp), real frames.
put("esparse", "h264_walk", b"\x00" + sample("h264_352x288_25fps_high.h264", 600))
put("esparse", "h265_walk", b"\x04" + sample("h265_352x288.h265", 600))
put("esparse", "h264_units", b"\x01" + sample("h264_1920x1080_30fps_baseline.h264", 400))
put("esparse", "h265_units", b"\x05" + sample("h265_1280x720.h265", 400))
put("esparse", "h264_sps", b"\x02" + sample("h264_352x288_25fps_high.h264", 40))
put("esparse", "h265_sps", b"\x02" + sample("h265_352x288.h265", 120))
put("esparse", "bits", b"\x03\x8f\x27\x00\x03\x01\xff\x55")

# Analytics objects: the count, then the records.
obj = struct.pack("<4H4B", 30000, 30000, 1000, 2000, 1, 0, 0, 2) + struct.pack("<4H", 1, 2, 3, 4)
put("vcaobject", "one", b"\x01" + obj)
put("vcaobject", "two", b"\x02" + obj + struct.pack("<4H4B", 1, 2, 3, 4, 2, 1, 0, 0))

put("base64", "text", "QUJDREVGRw==")
put("base64", "bytes", b"\x00\x01\xfe\xff")

# Replies of a node: the first byte picks status, body and buffer size (remotereply_fuzz.cpp).
put("remotereply", "ok", "\x10<ret>1</ret>")
put("remotereply", "refused", "\x41<ret>0</ret>")
put("remotereply", "status", b"\x3f\x00\x00\x00\x00")
put("remotereply", "error", "\x90<ret>12345678901234567890</ret>")

# Event links: what a node sends after the link request.
def link_frame(t, payload):
    return frame(bytes([t, 0, 0, 0]) + struct.pack("<ii", 0, 0) + payload)
put("eventlink", "meta", link_frame(22, alarm()))
put("eventlink", "alarm_keepalive", frame(b"") + link_frame(2, alarm()) + link_frame(2, b"x"))
put("eventlink", "cut", link_frame(22, alarm())[:50])
