#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "base/config.h"
#include "base/config_internal.h"
#include "support/temp_dir.h"

namespace corvald {
namespace {

class ConfigTest : public ::testing::Test {
protected:
    void SetUp() override { config_module_setup(); }
    void TearDown() override { config_module_teardown(); }

    // Reads text as a configuration file; returns the error message ("" on success).
    std::string load(const std::string& text) {
        std::string path = dir_.write("c.conf", text);
        std::string error;
        int rc = config_read(path.c_str(), error);
        EXPECT_EQ(rc == 0, error.empty()) << error;
        return error;
    }

    test::TempDir dir_;
};

TEST_F(ConfigTest, EmptyAndCommentOnlyFilesKeepEveryDefault) {
    EXPECT_EQ(load("# comment\n;another\n\n \t \n"), "");
    EXPECT_EQ(cfg_syslog_ident, "corvald");
    EXPECT_EQ(cfg_syslog_facility, 24);
    EXPECT_EQ(cfg_syslog_priority, 6);
    EXPECT_EQ(cfg_pid_file, "/var/run/corvald.pid");
    EXPECT_EQ(cfg_work_directory, "/velloran/DB");
    EXPECT_EQ(cfg_local_nodes, "/velloran/local_nodes");
    EXPECT_EQ(cfg_unicast_mode, 0);
    EXPECT_EQ(cfg_unicast_hosts, "/velloran/unicast_hosts");
    EXPECT_EQ(cfg_bind_interface, "eth0");
    EXPECT_EQ(cfg_bind_port, 8000);
    EXPECT_EQ(cfg_ctrl_address, "127.0.0.1");
    EXPECT_EQ(cfg_ctrl_port, 31337);
    EXPECT_EQ(cfg_multicast_address, "224.123.123.123");
    EXPECT_EQ(cfg_node_lock_timeout_ms, 750);
    EXPECT_EQ(cfg_datastore_lock_timeout_ms, 750);
    EXPECT_EQ(cfg_vdisk_lock_timeout_ms, 750);
    EXPECT_EQ(cfg_fence_check, "/usr/marrowctl/fencecheck");
    EXPECT_EQ(cfg_ping_interval, 90);
    EXPECT_EQ(cfg_heartbeat_interval, 30);
    EXPECT_EQ(cfg_stats_interval, 60);
    EXPECT_EQ(cfg_msg_buffer_size, 65536);
    EXPECT_EQ(cfg_path_lock_timeout_ms, 750);
    EXPECT_EQ(cfg_local_files, "/v2/local_files");
    EXPECT_EQ(cfg_json_ping_interval, 90);
}

// Every integer key at both edges of its range, and just outside them.
TEST_F(ConfigTest, IntegerRangeBoundaries) {
    struct Case {
        const char* key;
        int* var;
        int64_t lo, hi;  // accepted range; hi < 0 means unbounded
    };
    const Case cases[] = {
        {"unicast_mode", &cfg_unicast_mode, 0, -1},
        {"bind_port", &cfg_bind_port, 1, 65535},
        {"ctrl_port", &cfg_ctrl_port, 1, 65535},
        {"node_lock_timeout_ms", &cfg_node_lock_timeout_ms, 0, 60000},
        {"datastore_lock_timeout_ms", &cfg_datastore_lock_timeout_ms, 0, 60000},
        {"vdisk_lock_timeout_ms", &cfg_vdisk_lock_timeout_ms, 0, 60000},
        {"path_lock_timeout_ms", &cfg_path_lock_timeout_ms, 0, 60000},
        {"ping_interval", &cfg_ping_interval, 0, 3600},
        {"heartbeat_interval", &cfg_heartbeat_interval, 0, 3600},
        {"json_ping_interval", &cfg_json_ping_interval, 0, 3600},
        {"stats_interval", &cfg_stats_interval, 0, 86400},
        {"msg_buffer_size", &cfg_msg_buffer_size, 65536, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.key);
        std::string k = c.key;
        EXPECT_EQ(load(k + " = " + std::to_string(c.lo) + "\n"), "");
        EXPECT_EQ(*c.var, c.lo);
        EXPECT_EQ(load(k + "=" + std::to_string(c.lo - 1) + "\n"),
                  "error: config_load(): Incorrect " + k + " value: " + std::to_string(c.lo - 1) + "\n");
        if (c.hi >= 0) {
            EXPECT_EQ(load(k + " = " + std::to_string(c.hi) + "\n"), "");
            EXPECT_EQ(*c.var, c.hi);
            EXPECT_EQ(load(k + " = " + std::to_string(c.hi + 1) + "\n"),
                      "error: config_load(): Incorrect " + k + " value: " + std::to_string(c.hi + 1) + "\n");
        }
    }
    EXPECT_EQ(load("msg_buffer_size = 2147483647\n"), "");
    EXPECT_EQ(cfg_msg_buffer_size, 2147483647);
}

TEST_F(ConfigTest, NumbersAreReadLikeStrtol) {
    // Letters only convert to 0: fine for a timeout, out of range for a port.
    EXPECT_EQ(load("node_lock_timeout_ms = abc\n"), "");
    EXPECT_EQ(cfg_node_lock_timeout_ms, 0);
    EXPECT_EQ(load("bind_port = abc\n"), "error: config_load(): Incorrect bind_port value: 0\n");
    // Digits end at the first non-digit; a sign is accepted.
    EXPECT_EQ(load("bind_port = 8080xyz\n"), "");
    EXPECT_EQ(cfg_bind_port, 8080);
    EXPECT_EQ(load("ping_interval = +15\n"), "");
    EXPECT_EQ(cfg_ping_interval, 15);
    // Only the low 32 bits count: 4294967297 is 1.
    EXPECT_EQ(load("ctrl_port = 4294967297\n"), "");
    EXPECT_EQ(cfg_ctrl_port, 1);
    // A negative interval is a huge unsigned one.
    EXPECT_EQ(load("stats_interval = -1\n"), "error: config_load(): Incorrect stats_interval value: -1\n");
}

TEST_F(ConfigTest, LineForms) {
    // Quoted values keep inner blanks and may be empty.
    EXPECT_EQ(load("fence_check = \"/opt/fence check\"\nlocal_files=\"\"\n"), "");
    EXPECT_EQ(cfg_fence_check, "/opt/fence check");
    EXPECT_EQ(cfg_local_files, "");
    // Inner quotes belong to the value: first to last quote of the line.
    EXPECT_EQ(load("syslog_ident = \"a \"b\" c\"\n"), "");
    EXPECT_EQ(cfg_syslog_ident, "a \"b\" c");
    // Text straight after the closing quote: read literally, quotes kept.
    EXPECT_EQ(load("pid_file = \"x\"y\n"), "");
    EXPECT_EQ(cfg_pid_file, "\"x\"y");
    // Blanks around key, '=' and value; tabs count as blanks.
    EXPECT_EQ(load(" \twork_directory\t=  /srv/db \t\n"), "");
    EXPECT_EQ(cfg_work_directory, "/srv/db");
    // A quoted interface name may hold blanks, but not 16 characters.
    EXPECT_EQ(load("bind_interface = \"a b\"\n"), "");
    EXPECT_EQ(cfg_bind_interface, "a b");
    EXPECT_EQ(load("bind_interface = 123456789012345\n"), "");
    EXPECT_EQ(load("bind_interface = 1234567890123456\n"),
              "error: config_load(): Incorrect bind_interface value: `1234567890123456'\n");
    // The last occurrence of a key wins.
    EXPECT_EQ(load("bind_port = 1\nbind_port = 2\n"), "");
    EXPECT_EQ(cfg_bind_port, 2);
}

TEST_F(ConfigTest, BrokenLinesAndUnknownKeys) {
    const std::pair<const char*, const char*> cases[] = {
        {"fence_check = a b\n", "error: config_load(): Broken config line `fence_check = a b'\n"},
        {"fence_check = \"a\" b\n", "error: config_load(): Broken config line `fence_check = \"a\" b'\n"},
        {" # comment\n", "error: config_load(): Broken config line ` # comment'\n"},
        {"bind_port\n", "error: config_load(): Broken config line `bind_port'\n"},
        {"bind_port =\n", "error: config_load(): Broken config line `bind_port ='\n"},
        {"fence_check = \"tab\there\"\n", "error: config_load(): Broken config line `fence_check = \"tab\there\"'\n"},
        {"Bind_port = 5\n", "error: config_load(): Unknown config option `Bind_port'\n"},
        {"no.such_key = 5\n", "error: config_load(): Unknown config option `no.such_key'\n"},
        {"bind_port = 5", "error: config_load(): Config line too long\n"},
    };
    for (const auto& [text, message] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(load(text), message);
    }
}

TEST_F(ConfigTest, LineLengthLimit) {
    // 1022 characters and the newline fit the 1024-byte buffer; 1023 do not.
    std::string value(1022 - std::string("fence_check=").size(), 'x');
    EXPECT_EQ(load("fence_check=" + value + "\n"), "");
    EXPECT_EQ(cfg_fence_check, value);
    EXPECT_EQ(load("fence_check=" + value + "x\n"), "error: config_load(): Config line too long\n");
    EXPECT_EQ(load(std::string(1022, '#') + "\n"), "");
}

TEST_F(ConfigTest, SyslogNames) {
    EXPECT_EQ(load("syslog_facility = LOCAL3\nsyslog_priority = Debug\n"), "");
    EXPECT_EQ(cfg_syslog_facility, 152);
    EXPECT_EQ(cfg_syslog_priority, 7);
    EXPECT_EQ(load("syslog_priority = none\n"), "");
    EXPECT_EQ(cfg_syslog_priority, 16);
    EXPECT_EQ(load("syslog_priority = verbose\n"),
              "error: config_load(): Incorrect syslog_priority value: `verbose'\n");
    EXPECT_EQ(load("syslog_facility = \"\"\n"), "error: config_load(): Incorrect syslog_facility value: `'\n");
    // The dump prints the first name with the stored value.
    EXPECT_STREQ(config_facility_name(32), "auth");
    EXPECT_STREQ(config_facility_name(24), "daemon");
    EXPECT_STREQ(config_priority_name(3), "err");
    EXPECT_STREQ(config_priority_name(4), "warn");
    EXPECT_STREQ(config_priority_name(0), "emerg");
    EXPECT_STREQ(config_priority_name(16), "none");
}

TEST_F(ConfigTest, UnreadableFiles) {
    std::string error;
    std::string missing = dir_ / "missing.conf";
    EXPECT_EQ(config_read(missing.c_str(), error), -1);
    EXPECT_EQ(error, "error: config_load(): fopen(" + missing + "): No such file or directory\n");
    EXPECT_EQ(config_read(dir_.path().c_str(), error), -1);
    EXPECT_EQ(error, "error: config_load(): Error reading config\n");
}

}  // namespace
}  // namespace corvald

namespace corvald {
namespace {

// The shipped files must load as they are.
TEST_F(ConfigTest, ShippedFilesLoad) {
    std::string error;
    EXPECT_EQ(config_read(CORVALD_SOURCE_DIR "/etc/corvald.conf", error), 0) << error;
    EXPECT_EQ(cfg_bind_interface, "eth0");
    EXPECT_EQ(cfg_msg_buffer_size, 65536);
    EXPECT_EQ(config_read(CORVALD_SOURCE_DIR "/etc/local/corvald.conf", error), 0) << error;
    EXPECT_EQ(cfg_bind_interface, "lo");
    EXPECT_EQ(cfg_unicast_mode, 1);
}

}  // namespace
}  // namespace corvald
