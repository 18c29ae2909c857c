// The client library: header and reply coding, and a round trip through the listener.
#include "cmsclient/cmsclient.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "VornNetSDK.h"
#include "cmsclient/framing.h"

namespace {

using cmsclient::CmsClient;
using cmsclient::MsgHead;
using cmsclient::Reply;
using Bytes = std::vector<uint8_t>;

TEST(MsgHead, EncodesTheWireLayoutAndDecodesItBack) {
    MsgHead head;
    head.nType = 19;
    head.nFrom = 2;
    head.nTo = 7;
    head.nFromClientID = 0x01020304;
    head.nToClientID = -2;
    Bytes wire = cmsclient::BuildMessage(head, "ab", 2);
    EXPECT_EQ(wire, (Bytes{19, 2, 7, 0, 4, 3, 2, 1, 0xFE, 0xFF, 0xFF, 0xFF, 'a', 'b'}));

    MsgHead back;
    ASSERT_TRUE(MsgHead::Decode(wire.data(), wire.size(), back));
    EXPECT_EQ(cmsclient::BuildMessage(back, "ab", 2), wire);  // every field came back
    EXPECT_FALSE(MsgHead::Decode(wire.data(), 11, back));
}

TEST(ParseReply, TellsStatesFromDataAndRefusesOtherFrames) {
    Bytes state = {17, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x2A, 0, 0, 0};
    Bytes data = {17, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 'o', 'k'};
    Reply reply;
    ASSERT_TRUE(cmsclient::ParseReply(state.data(), state.size(), reply));
    EXPECT_TRUE(reply.IsState());
    EXPECT_EQ(reply.state, 42);
    ASSERT_TRUE(cmsclient::ParseReply(data.data(), data.size(), reply));
    EXPECT_FALSE(reply.IsState());
    EXPECT_EQ(std::string(reply.data.begin(), reply.data.end()), "ok");

    // Another type, an unknown sub-code, a state without its 4 bytes, no whole header.
    Bytes wrongType = data, wrongCode = data, shortState(state.begin(), state.end() - 1);
    wrongType[0] = 1;
    wrongCode[1] = 2;
    for (const Bytes& bad : {wrongType, wrongCode, shortState, Bytes(11, 17)})
        EXPECT_FALSE(cmsclient::ParseReply(bad.data(), bad.size(), reply));
}

// Never answers: what matters here is the client's side of time-outs and failures.
void Silent(int, unsigned char*, int, void*) {}

TEST(CmsClient, TimesOutAndFailsCleanly) {
    int server = VornStartServer(0, VORN_MODE_MESSAGE, Silent, nullptr);
    ASSERT_GT(server, 0);
    int port = VornServerGetListenPort(server);
    CmsClient client;
    ASSERT_TRUE(client.Connect("localhost", port));  // whichever address family answers
    MsgHead head;
    ASSERT_TRUE(client.Send(head));
    Reply reply;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.ReadReply(reply, 200), CmsClient::ReadResult::kTimeout);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(190));

    VornStopServer(server);
    EXPECT_EQ(client.ReadReply(reply, 1000), CmsClient::ReadResult::kClosed);
    EXPECT_FALSE(client.Connect("127.0.0.1", port, 500));
    EXPECT_FALSE(client.Send(head));
}

// Frames arrive in pieces: a keep-alive is skipped, a time-out inside a body keeps what was
// read, and the next frame in the same write is not lost.
TEST(FrameChannel, ReadsFramesAcrossPiecesAndTimeOuts) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    Bytes big(300000);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 7);
    Bytes wire = {0, 0, 0, 0};  // keep-alive
    ASSERT_TRUE(vorn::AppendFrame(wire, big.data(), big.size()));
    ASSERT_TRUE(vorn::AppendFrame(wire, reinterpret_cast<const uint8_t*>("ab"), 2));
    cmsclient::FrameChannel writer(fds[0]);
    cmsclient::FrameChannel reader(fds[1]);
    const size_t cut = 100000;
    ASSERT_TRUE(writer.WriteRaw(wire.data(), cut, 1000));
    Bytes body;
    EXPECT_EQ(reader.ReadFrame(body, 50), cmsclient::FrameChannel::Result::kTimeout);
    std::thread rest([&] { writer.WriteRaw(wire.data() + cut, wire.size() - cut, 5000); });
    EXPECT_EQ(reader.ReadFrame(body, 5000), cmsclient::FrameChannel::Result::kFrame);
    EXPECT_EQ(body, big);
    EXPECT_EQ(reader.ReadFrame(body, 5000), cmsclient::FrameChannel::Result::kFrame);
    EXPECT_EQ(body, (Bytes{'a', 'b'}));
    rest.join();
    close(fds[0]);
    EXPECT_EQ(reader.ReadFrame(body, 1000), cmsclient::FrameChannel::Result::kClosed);
    close(fds[1]);
}

}  // namespace
