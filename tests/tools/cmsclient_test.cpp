// The client library: header and reply coding, and a round trip through the listener.
#include "cmsclient/cmsclient.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "VornNetSDK.h"

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
    EXPECT_EQ(back.nType, 19);
    EXPECT_EQ(back.nTo, 7);
    EXPECT_EQ(back.nFromClientID, 0x01020304);
    EXPECT_EQ(back.nToClientID, -2);
    EXPECT_FALSE(MsgHead::Decode(wire.data(), 11, back));
}

TEST(ParseReply, TellsStatesFromDataAndRefusesOtherFrames) {
    Bytes state = {17, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x2A, 0, 0, 0};
    Reply reply;
    ASSERT_TRUE(cmsclient::ParseReply(state.data(), state.size(), reply));
    EXPECT_TRUE(reply.IsState());
    EXPECT_EQ(reply.state, 42);

    Bytes data = {17, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 'o', 'k'};
    ASSERT_TRUE(cmsclient::ParseReply(data.data(), data.size(), reply));
    EXPECT_FALSE(reply.IsState());
    EXPECT_EQ(std::string(reply.data.begin(), reply.data.end()), "ok");

    Bytes wrongType = data, wrongCode = data, shortState = state;
    wrongType[0] = 1;
    wrongCode[1] = 2;
    shortState.pop_back();
    for (const Bytes& bad : {wrongType, wrongCode, shortState, Bytes(11, 17)}) {
        EXPECT_FALSE(cmsclient::ParseReply(bad.data(), bad.size(), reply));
    }
}

// Answers "state" with the payload length as a state, "data" with the payload echoed,
// "bye" with a state and a close, and stays silent otherwise.
void Answer(int client, unsigned char* data, int length, void*) {
    if (data == nullptr || length < 12) return;
    std::string payload(reinterpret_cast<char*>(data) + 12, length - 12);
    if (data[0] == 1) VornServerSendState(client, static_cast<int>(payload.size()));
    if (data[0] == 2) {
        VornServerSendData(client, data + 12, length - 12);
    }
    if (data[0] == 3) {
        VornServerSendState(client, 0);
        VornServerKillClientDelayed(client, 50);
    }
}

TEST(CmsClient, TalksToTheListener) {
    int server = VornStartServer(0, VORN_MODE_MESSAGE, Answer, nullptr);
    ASSERT_GT(server, 0);
    int port = VornServerGetListenPort(server);

    CmsClient client;
    ASSERT_TRUE(client.Connect("localhost", port));
    MsgHead head;
    Reply reply;
    head.nType = 1;
    ASSERT_TRUE(client.Request(head, "12345", reply));
    EXPECT_TRUE(reply.IsState());
    EXPECT_EQ(reply.state, 5);

    head.nType = 2;
    ASSERT_TRUE(client.Request(head, std::string(100000, 'd'), reply));
    EXPECT_EQ(reply.data.size(), 100000u);

    head.nType = 9;  // no answer
    ASSERT_TRUE(client.Send(head));
    EXPECT_EQ(client.ReadReply(reply, 200), CmsClient::ReadResult::kTimeout);

    head.nType = 3;
    ASSERT_TRUE(client.Send(head));
    EXPECT_TRUE(client.WaitClosed(2000));  // the state before the close is skipped
    EXPECT_EQ(client.ReadReply(reply, 100), CmsClient::ReadResult::kClosed);

    VornStopServer(server);
    EXPECT_FALSE(client.Connect("127.0.0.1", port, 500));
    EXPECT_FALSE(client.Send(head));
}

}  // namespace
