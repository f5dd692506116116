// DaemonTest: the fixture of the end-to-end tests: a test origin and one
// daemon directory (not started), skipped when the daemon is not built. A
// fixture that adds to SetUp calls it first and returns when it skipped or
// failed.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

#include "daemon.h"
#include "netclient.h"
#include "origin.h"

class DaemonTest : public ::testing::Test {
   protected:
    void SetUp() override {
        if (std::string(TROV_BIN).empty()) GTEST_SKIP() << "the daemon binary is not built";
        org_ = origin_start();
        ASSERT_NE(org_, nullptr);
        ASSERT_EQ(daemon_init(&d_, TROV_BIN), 0);
        udp_port_ = pick_free_port(SOCK_DGRAM);
        ASSERT_GT(udp_port_, 0);
    }
    void TearDown() override {
        daemon_destroy(&d_);
        origin_destroy(org_);
    }
    bool set_up() { return !IsSkipped() && !HasFatalFailure(); }

    origin *org_ = nullptr;
    daemon_proc d_{};
    int udp_port_ = 0;  // a free port for an order channel, if the test wants one
};
