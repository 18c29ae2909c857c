// The frame decoder and reply encoders, without sockets.
#include "sdk/vornnet/src/framecodec.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "VornFrame.h"

namespace {

using Bytes = std::vector<uint8_t>;
using vorn::FrameDecoder;

Bytes Frame(const std::string& body) {
    Bytes out;
    vorn::AppendFrame(out, reinterpret_cast<const uint8_t*>(body.data()), body.size());
    return out;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// Everything the decoder yields for `stream`, fed in pieces cut at `cuts`.
std::vector<std::string> Decode(FrameDecoder& decoder, const Bytes& stream,
                                std::vector<size_t> cuts) {
    std::vector<std::string> frames;
    cuts.push_back(stream.size());
    size_t from = 0;
    for (size_t to : cuts) {
        decoder.Append(stream.data() + from, to - from);
        from = to;
        Bytes body;
        while (decoder.Next(body) == FrameDecoder::Status::kFrame) {
            frames.emplace_back(body.begin(), body.end());
        }
    }
    return frames;
}

const std::vector<std::string> kBodies = {"first message", "x", std::string(300, 'z')};

Bytes ValidStream() {
    // A keep-alive between frames must vanish without a trace.
    return Concat({Frame(kBodies[0]), Frame(""), Frame(kBodies[1]), Frame(kBodies[2])});
}

TEST(FrameDecoder, EverySplitPointYieldsTheSameFrames) {
    Bytes stream = ValidStream();
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        FrameDecoder decoder;
        EXPECT_EQ(Decode(decoder, stream, {cut}), kBodies) << "cut at " << cut;
        EXPECT_FALSE(decoder.HasPartial());
    }
    std::vector<size_t> everyByte;
    for (size_t i = 1; i < stream.size(); ++i) everyByte.push_back(i);
    FrameDecoder decoder;
    EXPECT_EQ(Decode(decoder, stream, everyByte), kBodies);
}

TEST(FrameDecoder, PartialMeansBytesOfAnUnfinishedFrame) {
    // The idle time-out hangs on this: half a length counts, keep-alives do not.
    for (const Bytes& stream : {Bytes{6, 0}, Concat({Frame("abcdef")}), Concat({Frame("")})}) {
        FrameDecoder decoder;
        size_t frames = Decode(decoder, stream, {}).size();
        EXPECT_EQ(decoder.HasPartial(), stream.size() == 2);
        EXPECT_EQ(frames, stream.size() == 10 ? 1u : 0u);
    }
}

TEST(FrameDecoder, OverlongOrCorruptedLengthsBreakTheStream) {
    FrameDecoder limited(100);
    EXPECT_EQ(Decode(limited, Frame(std::string(100, 'a')), {}).size(), 1u);
    // One over the limit breaks the stream as soon as the four length bytes are in, and
    // what follows (even a valid frame) is never handed on.
    Bytes over = Concat({Frame(std::string(101, 'b')), Frame("after")});
    EXPECT_TRUE(Decode(limited, over, {4}).empty());
    EXPECT_TRUE(limited.Broken());
    EXPECT_EQ(limited.RefusedLength(), 101u);
    Bytes body;
    EXPECT_EQ(limited.Next(body), FrameDecoder::Status::kTooLarge);
    EXPECT_FALSE(limited.HasPartial());

    // The high byte, then all of the length of the second frame are damaged; frames
    // before the damage still come out.
    const Bytes stream = ValidStream();
    size_t second = vorn::kFrameLengthBytes + kBodies[0].size();
    for (uint32_t damage : {0x02000000u, 0xFFFFFFFFu, vorn::kMaxFrameLength + 1}) {
        Bytes bad = stream;
        vorn::PutLe32(&bad[second], vorn::GetLe32(&bad[second]) | damage);
        FrameDecoder decoder;
        EXPECT_EQ(Decode(decoder, bad, {}), std::vector<std::string>{kBodies[0]});
        EXPECT_TRUE(decoder.Broken());
    }
}

TEST(MessageCodec, EncodesRepliesDeliversMessagesAndReportsABrokenStream) {
    vorn::MessageCodec codec;
    vorn::OutFrame state, data, empty, large;
    auto wire = [](const vorn::OutFrame& f) { return Concat({f.head, f.body}); };
    ASSERT_TRUE(codec.EncodeState(0x01020304, state));
    EXPECT_EQ(wire(state), (Bytes{16, 0, 0, 0, 17, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 3, 2, 1}));
    const uint8_t payload[] = {0xAA, 0xBB, 0xCC};
    ASSERT_TRUE(codec.EncodeData(payload, sizeof payload, data));
    EXPECT_EQ(wire(data),
              (Bytes{15, 0, 0, 0, 17, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xAA, 0xBB, 0xCC}));
    ASSERT_TRUE(codec.EncodeData(nullptr, 0, empty));
    EXPECT_EQ(empty.Size(), 16u);
    // Replies are not held to the limit of incoming frames, only to the length field.
    Bytes beyond(vorn::kMaxFrameLength + 1, 7);
    ASSERT_TRUE(codec.EncodeData(beyond.data(), beyond.size(), large));
    EXPECT_EQ(large.body, beyond);
    EXPECT_EQ(vorn::GetLe32(large.head.data()), vorn::kMaxFrameLength + 13);
    uint8_t head[vorn::kResultHeadSize];
    EXPECT_TRUE(vorn::PutResultHead(head, 1, vorn::kMaxReplyFrameLength - vorn::kMsgHeadSize));
    EXPECT_EQ(vorn::GetLe32(head), 0xFFFFFFFFu);
    EXPECT_FALSE(vorn::PutResultHead(head, 1, vorn::kMaxReplyFrameLength - vorn::kMsgHeadSize + 1));

    std::vector<std::string> got;
    auto sink = [&](Bytes&& message) { got.emplace_back(message.begin(), message.end()); };
    Bytes stream = ValidStream();
    ASSERT_TRUE(codec.Consume(stream.data(), stream.size(), sink));
    EXPECT_EQ(got, kBodies);
    uint8_t oversize[4];
    vorn::PutLe32(oversize, vorn::kMaxFrameLength + 1);
    EXPECT_FALSE(codec.Consume(oversize, sizeof oversize, sink));
    EXPECT_NE(codec.Error().find("exceeds the limit"), std::string::npos);
}

}  // namespace
