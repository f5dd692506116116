// Tests of the end-to-end harness itself: the origin's faults seen from plain
// sockets, and a content checker that really fails on a wrong byte or length,
// since every end-to-end verdict on a landed file rests on it.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "daemon.h"
#include "netclient.h"
#include "origin.h"

namespace {

constexpr int WAIT_MS = 5000;

std::string get(const std::string &target) {
    return "GET " + target + " HTTP/1.1\r\nHost: t\r\n\r\n";
}

std::string head_of(size_t size) {
    return "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
           std::to_string(size) + "\r\nConnection: close\r\n\r\n";
}

class Harness : public ::testing::Test {
   protected:
    void SetUp() override {
        o = origin_start();
        ASSERT_NE(o, nullptr);
    }
    void TearDown() override { origin_destroy(o); }
    origin *o = nullptr;
};

TEST_F(Harness, AnswersEndAsAnnouncedWithEveryByteOfTheirName) {
    struct Case {
        const char *target;
        size_t announced, sent;
        bool closed, reset;  // neither: held open
    } cases[] = {
        {"/f/100003/m.ts?expiry=1", 100003, 100003, true, false},
        {"/short/1000/300/m.ts", 1000, 300, true, false},
        {"/reset/100000/m.ts", 100000, 50000, false, true},  // acknowledged before the reset
        {"/stall/1000/100/m.ts", 1000, 100, false, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.target);
        net_reply r =
            net_exchange(origin_port(o), get(c.target), c.closed || c.reset ? WAIT_MS : 300);
        EXPECT_EQ(r.peer_closed, c.closed);
        EXPECT_EQ(r.reset, c.reset);
        ASSERT_EQ(r.data.substr(0, head_of(c.announced).size()), head_of(c.announced));
        std::string body = r.data.substr(head_of(c.announced).size());
        EXPECT_EQ(body.size(), c.sent);
        EXPECT_EQ(origin_check_bytes(body.data(), body.size(), "m.ts"), "");
    }
    EXPECT_EQ(origin_request_count(o, "/m.ts?expiry=1"), 1u) << "targets are kept whole";
}

TEST_F(Harness, CheckersCatchAWrongByteAndAWrongLength) {
    constexpr size_t SIZE = 100003;  // many of the checker's pieces, and a part of one
    net_reply r = net_exchange(origin_port(o), get("/f/100003/a.ts"), WAIT_MS);
    std::string body = r.data.substr(head_of(SIZE).size());
    ASSERT_EQ(body.size(), SIZE);
    EXPECT_NE(origin_check_bytes(body.data(), body.size(), "b.ts"), "") << "names share content";
    daemon_proc tmp{};
    ASSERT_EQ(daemon_init(&tmp, ""), 0);
    std::string path = tmp.data_dir + "/f";
    std::ofstream(path, std::ios::binary) << body;
    EXPECT_EQ(origin_expect_file(path, "a.ts", SIZE), "");
    EXPECT_NE(origin_expect_file(path, "a.ts", SIZE + 1).find("100003 bytes, expected 100004"),
              std::string::npos);
    body[SIZE - 2] = char(body[SIZE - 2] ^ 0x10);
    std::ofstream(path, std::ios::binary) << body;
    std::string why = origin_expect_file(path, "a.ts", SIZE);
    EXPECT_NE(why.find("byte 100001 of [a.ts]"), std::string::npos) << why;
    daemon_destroy(&tmp);
    EXPECT_NE(origin_expect_file(path, "a.ts", SIZE).find("cannot open"), std::string::npos);
}

}  // namespace
