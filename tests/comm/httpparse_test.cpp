#include "comm/httpparse.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

_http_command Parse(std::string query) {
    _http_command c{};
    ParasCommand(query.data(), &c);
    return c;
}

TEST(ParasCommand, FillsEveryKeyAndKeepsTypeApartFromConfigtype) {
    _http_command c = Parse(
        "cmd=mrec&NodeId=5&nodetype=3&id=8589934592&type=3&param1=1&param2=-2&param4=4&"
        "starttime=1700000000&stoptime=4000000000&user=admin&pass=p%41ss&code=3402");
    EXPECT_EQ((std::vector<int64_t>{c.command, c.nodeid, c.nodetype, c.id, c.configtype, c.type,
                                    c.param1 + c.param2 + c.param4, c.dwStartTime, c.dwStopTime}),
              (std::vector<int64_t>{HTTP_MANUAL_REC, 5, 3, 8589934592LL, 3, 0, 3, 1700000000,
                                    4000000000}));
    // No percent-decoding.
    EXPECT_EQ(std::string(c.szUser) + "|" + c.szPass + "|" + c.szCode, "admin|p%41ss|3402");
}

TEST(ParasCommand, CommandKeywords) {
    // Whole words, without regard to case; nothing selects the trigger-record stop.
    const std::pair<const char*, int> cases[] = {
        {"login", 1}, {"MRec", 4},       {"mrecstop", 5},  {"TREC", 8},
        {"mre", 0},   {"getablity", 14}, {"poweroff", 17}, {"trecstop", 0},
    };
    for (const auto& [word, value] : cases)
        EXPECT_EQ(Parse(std::string("cmd=") + word).command, value) << word;
    EXPECT_EQ(Parse("cmd=trec&cmd=bogus").command, HTTP_TIGER_REC);  // unknown leaves it
}

TEST(ParasCommand, MalformedAndOverlongTokens) {
    _http_command c = Parse("param1&param2=&=5&&&nodeid=x7&nodetype=12abc&cmd");
    EXPECT_EQ((std::vector<int>{c.param2, c.nodeid, c.nodetype, c.command}),
              (std::vector<int>{0, 0, 12, 0}));
    char empty[] = "";
    EXPECT_EQ(ParasCommand(empty, &c), 0);
    EXPECT_EQ(ParasCommand(nullptr, &c), 0);

    const std::string big(5000, 'u');
    c = Parse("user=" + big + "&code=" + big + "&" + big + "=1&nodetype=2");
    EXPECT_EQ(std::string(c.szUser) + "|" + c.szPass + "|" + c.szCode,
              std::string(29, 'u') + "||" + std::string(29, 'u'));
    EXPECT_EQ(c.nodetype, 2);
}

TEST(ParasHttpRequest, EveryHeaderFieldBothFormsAndBounds) {
    const char head[] =
        "POST /x?cmd=reset HTTP/1.1 /ignored\r\nHost: example.org:8080\r\nContent-Length: 12\r\n"
        "Connection: keep Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Key: dGhlIHNhbXBsZQ==\r\n"
        "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Protocol: chat\r\nHost: last\r\n\r\nbody";
    const char* cursor = head;
    _stru_http http{};
    ASSERT_EQ(ParasHttpRequest(&cursor, &http), 1);
    EXPECT_EQ((std::vector<int>{http.nHttpType, http.nBadyLen, http.nWSVersion}),
              (std::vector<int>{HTTPMETHODPOST, 12, 13}));
    // Connection keeps only the last word of its value.
    EXPECT_EQ(std::string(http.szURL) + "|" + http.szHost + "|" + http.szConnection + "|" +
                  http.szUpgrade + "|" + http.szWSKey + "|" + http.szWSProtocol,
              "/x?cmd=reset|example.org:8080|Upgrade|websocket|dGhlIHNhbXBsZQ==|chat");
    // The line in front of the empty line is never parsed; the cursor is left on it.
    EXPECT_STREQ(cursor, "Host: last\r\n\r\nbody");

    int method = -1, length = 0;
    char url[8] = {};
    cursor = head;
    ASSERT_EQ(ParasHttpRequest(&cursor, &method, url, sizeof url, &length), 1);
    EXPECT_EQ(method, HTTPMETHODPOST);
    EXPECT_STREQ(url, "/x?cmd=");  // cut at the caller's size
    EXPECT_EQ(length, 12);

    const char noMethod[] = "get /a HTTP/1.1\r\nHost: h\r\n\r\n";
    cursor = noMethod;
    http = {};
    EXPECT_EQ(ParasHttpRequest(&cursor, &http), 0);
    EXPECT_EQ(cursor, noMethod);

    std::string longHead = "GET /" + std::string(5000, 'a') +
                           " HTTP/1.1\r\nHost: " + std::string(3000, 'h') + "\r\nX: y\r\n\r\n";
    cursor = longHead.c_str();
    ASSERT_EQ(ParasHttpRequest(&cursor, &http), 1);
    EXPECT_EQ(strlen(http.szURL), sizeof http.szURL - 1);
    EXPECT_EQ(strlen(http.szHost), sizeof http.szHost - 1);
}

TEST(GetHttpHead, FixedHeads) {
    const std::string cors = "Access-Control-Allow-Origin: *\r\n";
    const std::string ok = "HTTP/1.1 200 OK\r\n" + cors;
    const std::string error = "HTTP/1.1 500 Internal Server Error\r\n" + cors + "\r\n";
    const std::pair<int, std::string> cases[] = {
        {0, ok + "Content-Length: 12\r\n\r\n"},
        {1, "HTTP/1.1 400 bad_command\r\n" + cors + "\r\n"},
        {2, "HTTP/1.1 404 file nofind\r\n" + cors + "\r\n"},
        {3, ok + "Content-Length: 14\r\n\r\n<ret>succ<ret>"},
        {4, ok + "Content-Length: 15\r\n\r\n<ret>faild<ret>"},
        {9, error},
    };
    for (const auto& [type, expected] : cases) {
        char buffer[512];
        memset(buffer, 'x', sizeof buffer);  // the head must end in its own NUL
        int length = 12;
        EXPECT_EQ(GetHttpHead(buffer, length, type), 1);
        EXPECT_EQ(std::string(buffer), expected) << type;
        EXPECT_EQ(length, static_cast<int>(expected.size()));
    }
}

TEST(CreateRedirectUrl, PolicyBodyAndBounds) {
    char buffer[512];
    int length = 0;
    ASSERT_EQ(CreateRedirectUrl(nullptr, 0, "http://h/x", buffer, sizeof buffer, length), 1);
    EXPECT_EQ(std::string(buffer, length),
              "HTTP/1.1 301 Redirect\r\nConnection: keep-alive\r\nLocation: http://h/x\r\n"
              "Content-Length: 82\r\n\r\n<cross-domain-policy>\r\n<allow-access-from "
              "domain=\"*\"/>\r\n</cross-domain-policy>\r\n\r\n");
    EXPECT_EQ(CreateRedirectUrl(nullptr, 0, nullptr, buffer, sizeof buffer, length), 0);
    const std::string far(600, 'l');
    EXPECT_EQ(CreateRedirectUrl(nullptr, 0, far.c_str(), buffer, sizeof buffer, length), 0);
}

TEST(UrlSplitting, RtspAndHttpForms) {
    char host[16];
    int port = -1;
    const char* rest = nullptr;
    ASSERT_EQ(paras_rtsp_url2("/10.0.0.2:554/ch1/main", host, port, rest), 1);
    EXPECT_EQ(std::string(host) + " " + std::to_string(port) + " " + rest,
              "10.0.0.2 554 /ch1/main");
    EXPECT_EQ(paras_rtsp_url2("/nohost", host, port, rest), 0);

    char out[64] = {};
    ASSERT_EQ(paras_http_url("x/h%3A554/p/tail", out), 1);
    EXPECT_STREQ(out, "/h:554/p:8060");
    out[0] = '\0';
    EXPECT_EQ(paras_http_url("x/onlytail", out), 0);
}

TEST(UrlText, PercentDecodingAndPathFormatting) {
    const std::pair<const char*, std::string> cases[] = {
        {"a%3Ab", "a:b"},
        {"%2f%2F%41", "//A"},
        {"ab%4", "ab"},                                    // escape cut short by the end
        {"%zz", std::string(1, static_cast<char>(0xAA))},  // non-digits count with their code
    };
    for (const auto& [in, expected] : cases) {
        char out[32];
        memset(out, 0x7f, sizeof out);
        EXPECT_EQ(AnlysisUrlParam(in, out), 1);
        EXPECT_EQ(std::string(out), expected) << in;
    }

    char path[32] = {}, small[4] = {};
    EXPECT_EQ(FormatPath("/a:1/b:2/c", path), 1);
    EXPECT_STREQ(path, "/b");
    for (const char* none : {"/no/colon/", "////"}) EXPECT_EQ(FormatPath(none, small), 1);
    EXPECT_STREQ(small, "");  // untouched
}

// Random and truncated text through every parser, each in a block of its exact size so
// that the address sanitizer reports any access outside it; the small outputs check that
// long values are cut to the caller's buffer.
TEST(HttpParsers, RandomAndTruncatedInput) {
    std::mt19937 rng(20240611);
    const char alphabet[] = "GETPOSHt:/?&=% %3A\r\n#aZ09-";
    const std::string valid = "GET /a?b HTTP/1.1\r\nHost: h\r\nContent-Length: 3\r\n\r\nabc";
    for (int round = 0; round < 3000; ++round) {
        std::string text = valid.substr(0, round % (valid.size() + 1));
        if (round > 200) {
            text.assign(rng() % 700, ' ');
            for (char& ch : text)
                ch = rng() % 4 ? alphabet[rng() % (sizeof alphabet - 1)] : static_cast<char>(rng());
        }
        std::vector<char> buf(text.c_str(), text.c_str() + text.size() + 1), query = buf;
        _http_command command{};
        ParasCommand(query.data(), &command);
        _stru_http http{};
        const char* cursor = buf.data();
        ParasHttpRequest(&cursor, &http);
        EXPECT_TRUE(cursor >= buf.data() && cursor < buf.data() + buf.size());
        char small[24] = {}, host[8] = {};
        int port = 0, method = 0, length = 0;
        const char* rest = nullptr;
        ParasHttpRequest(&cursor, &method, small, sizeof small, &length);
        paras_rtsp_url2(buf.data(), host, port, rest);
        small[0] = '\0';  // the rewriter appends
        paras_http_url(buf.data(), small);
        AnlysisUrlParam(buf.data(), small);
        FormatPath(buf.data(), small);
    }
}

}  // namespace
