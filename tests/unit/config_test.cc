#include "base/config.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "base/config_internal.h"
#include "support/log_capture.h"
#include "support/settings.h"
#include "support/temp_dir.h"

namespace corvald {
namespace {

class ConfigTest : public ::testing::Test {
  protected:
    void SetUp() override { config_module_setup(); }
    void TearDown() override { config_module_teardown(); }

    // Reads text as a configuration file; returns the error message ("" on success).
    std::string load(const std::string& text) {
        std::string error;
        int rc = config_read(dir_.write("c.conf", text).c_str(), error);
        EXPECT_EQ(rc == 0, error.empty()) << error;
        return error;
    }
    // The settings in force, as the start-up dump logs them.
    static std::string dump() {
        test::LogCapture log;
        config_dump();
        auto lines = log.entries();
        EXPECT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines.at(0).priority, 6);  // info
        return lines.at(0).text;
    }

    test::ScopedSettings settings_;  // put back after the teardown has cleared them
    test::TempDir dir_;
};

// The shipped sample names every key at its default: read after the
// defaults it changes nothing, so the dump of either is the same line. The
// local profile loads as well.
TEST_F(ConfigTest, DefaultsAreTheShippedSampleAndUnreadableFilesFail) {
    EXPECT_EQ(load("# comment\n;another\n\n \t \n"), "");
    const std::string defaults = dump();
    std::string error;
    EXPECT_EQ(config_read(CORVALD_SOURCE_DIR "/etc/corvald.conf", error), 0) << error;
    EXPECT_EQ(dump(), defaults);
    EXPECT_EQ(config_read(CORVALD_SOURCE_DIR "/etc/local/corvald.conf", error), 0) << error;

    const std::string missing = dir_ / "missing.conf";
    EXPECT_EQ(config_read(missing.c_str(), error), -1);
    EXPECT_EQ(error, "error: config_load(): fopen(" + missing + "): No such file or directory\n");
    EXPECT_EQ(config_read(dir_.path().c_str(), error), -1);
    EXPECT_EQ(error, "error: config_load(): Error reading config\n");
}

// Each range test of the integer keys at both edges, and just outside them.
TEST_F(ConfigTest, IntegerRangeBoundaries) {
    const struct { const char* key; int* var; int64_t lo, hi; } cases[] = {{"unicast_mode", &cfg_unicast_mode, 0, INT32_MAX},
                 {"ctrl_port", &cfg_ctrl_port, 1, 65535},
                 {"vdisk_lock_timeout_ms", &cfg_vdisk_lock_timeout_ms, 0, 60000},
                 {"json_ping_interval", &cfg_json_ping_interval, 0, 3600},
                 {"stats_interval", &cfg_stats_interval, 0, 86400},
                 {"msg_buffer_size", &cfg_msg_buffer_size, 65536, INT32_MAX}};
    for (const auto& c : cases) {
        for (int64_t v : {c.lo - 1, c.lo, c.hi, c.hi + 1}) {
            if (v > INT32_MAX)
                continue;  // no upper bound
            const std::string k = c.key, value = std::to_string(v);
            const bool in = v >= c.lo && v <= c.hi;
            EXPECT_EQ(load(k + " = " + value + "\n"),
                      in ? "" : "error: config_load(): Incorrect " + k + " value: " + value + "\n");
            EXPECT_TRUE(!in || *c.var == v) << k << "=" << value;
        }
    }
}

// A file of one or two lines, and the dump entry it leaves, or the error
// (without "error: config_load(): " and the newline) it ends with.
TEST_F(ConfigTest, LinesValuesAndErrors) {
    const std::string fence = "fence_check=", x1010(1010, 'x');
    const std::pair<std::string, std::string> cases[] = {
        // Quoted values keep inner blanks and quotes (first to last quote of
        // the line); text after the closing quote makes the whole value literal.
        {"fence_check = \"/opt/fence check\"\n", "fence_check=/opt/fence check"},
        {"syslog_ident = \"a \"b\" c\"\n", "syslog_ident=a \"b\" c"},
        {"pid_file = \"x\"y\n", "pid_file=\"x\"y"},
        {" \twork_directory\t=  /srv/db \t\n", "work_directory=/srv/db"},
        // An interface name may not have 16 characters.
        {"bind_interface = 1234567890123456\n",
         "Incorrect bind_interface value: `1234567890123456'"},
        // The first error ends the read: the bad priority after it is never seen.
        {"bind_port = 0\nsyslog_priority = bogus\n", "Incorrect bind_port value: 0"},
        {"fence_check = a b\n", "Broken config line `fence_check = a b'"},
        {"Bind_port = 5\n", "Unknown config option `Bind_port'"},
        // 1022 characters and the newline fit the 1024-byte buffer; 1023 do not.
        {"bind_port = 5", "Config line too long"},
        {fence + x1010 + "\n", fence + x1010},
        {fence + x1010 + "x\n", "Config line too long"},
        // Names in any case; the dump shows the first name of the value.
        {"syslog_facility = security\nsyslog_priority = Debug\n",
         "syslog_facility=auth syslog_priority=debug"},
    };
    for (const auto& [text, want] : cases) {
        config_module_teardown();
        config_module_setup();
        if (std::string error = load(text); error.empty()) {
            EXPECT_NE((" " + dump() + " ").find(" " + want + " "), std::string::npos)
                << text << dump();
        } else {
            EXPECT_EQ(error, "error: config_load(): " + want + "\n") << text;
        }
    }
}

}  // namespace
}  // namespace corvald
