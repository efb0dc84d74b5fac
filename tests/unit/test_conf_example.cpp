// The example configuration shipped to integrators against the daemon itself:
// the daemon's real start-up (main and every module, in their order) runs
// over the fakes and a store that records every key asked. The store answers
// each key with a value that is neither a number nor short enough for any
// text setting, so the daemon falls back to, and reports, each default. The
// example must list exactly the keys asked, each with the default reported.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "conf_store.h"
#include "fake_cm.h"
#include "fake_platform.h"
#include "fake_uwb.h"
#include "maps.h"
#include "steer.h"
#include "steer_exe.h"
#include "test_util.h"

int steer_main_entry(int argc, char **argv);  // the daemon's main, renamed in this build

namespace {

// The store: the example's active lines are its values; any other key gets
// a value no setting accepts. Every key asked is recorded, in order.
std::map<std::string, std::string> s_given;
std::vector<std::string> s_asked;
const std::string UNUSABLE(CONF_VALUE_MAX, 'z');

}  // namespace

extern "C" int GetValue(const char *mib, char *value)
{
    s_asked.push_back(mib);
    auto it = s_given.find(mib);
    const std::string &text = it != s_given.end() ? it->second : UNUSABLE;
    snprintf(value, CONF_VALUE_MAX + 1, "%s", text.c_str());
    return 1;
}

namespace {

// The example: "key=value" lines set a key (an integrator must set these),
// "#key=value" lines give a key's default; other lines are prose. A default
// in angle brackets depends on the node and is not compared.
struct example_file {
    std::map<std::string, std::string> active, defaults;
    std::vector<std::string> errors;
};

example_file read_example(const std::string &path)
{
    example_file ex;
    std::istringstream in(read_file(path));
    const std::regex key_line("(#?)([a-z0-9_.]+)=(.*)");
    std::string line;
    for (int n = 1; std::getline(in, line); n++) {
        std::smatch m;
        if (line.empty() || line.rfind("# ", 0) == 0 || line == "#")
            continue;
        if (!std::regex_match(line, m, key_line)) {
            ex.errors.push_back("line " + std::to_string(n) + " is neither prose nor a key: " + line);
            continue;
        }
        auto &table = m[1].length() ? ex.defaults : ex.active;
        if (ex.active.count(m[2]) || ex.defaults.count(m[2]))
            ex.errors.push_back("line " + std::to_string(n) + " lists " + m[2].str() + " again");
        table[m[2]] = m[3];
    }
    return ex;
}

// The node the start-up finds: two VAPs, wlan0 on 2.4 GHz and wlan1 on 5 GHz
// (kernel interfaces vap0 and vap1), a driver that answers its pings.
void build_node()
{
    fake_cm_reset();
    fake_uwb_reset();
    fake_platform_reset();
    const struct {
        const char *mib, *os;
        int channel;
    } vaps[] = {{"wlan0", "vap0", 6}, {"wlan1", "vap1", 36}};
    for (const auto &v : vaps) {
        ASSERT_EQ(sexe_no_out("ip link add %s type veth peer name %s-p && ip link set %s up", v.os, v.os, v.os), 0);
        fake_uwb_vap &vap = g_fake_uwb.vaps[v.mib];
        vap.os_ifname = v.os;
        vap.channel = v.channel;
        vap.ssid = "herd";
        vap.channels = v.channel <= 14 ? std::vector<uint8_t>{1, 6, 11} : std::vector<uint8_t>{36, 40, 44, 48};
    }
    g_fake_uwb.steer_maps = [](const std::string &, uint8_t *buf, size_t size) {
        if (buf[7] == MAPS_CMD_PING && size == 12)
            memcpy(buf + 8, "pong", 4);
        return 0;
    };
}

void start_up_against_example(const std::string &log_path)
{
    example_file ex = read_example(BANDHERD_CONF_EXAMPLE);
    EXPECT_EQ(ex.errors, std::vector<std::string>{});
    s_given = ex.active;
    build_node();
    slog_set_path(log_path.c_str());
    char name[] = "bandherd";
    char *argv[] = {name, nullptr};
    ASSERT_EQ(steer_main_entry(1, argv), 0);
    std::string log = read_file(log_path);
    ASSERT_NE(log.find("bandherd is ready."), std::string::npos) << log;

    // Each unusable value is reported with the default used instead.
    std::map<std::string, std::set<std::string>> reported;
    const std::regex report("value 'z+' is (?:not a number|too long), mib '([^']+)'(?:, size [0-9]+)?\\. "
                            "use default '([^']*)'");
    for (auto it = std::sregex_iterator(log.begin(), log.end(), report); it != std::sregex_iterator(); ++it)
        reported[(*it)[1]].insert((*it)[2]);

    std::set<std::string> asked(s_asked.begin(), s_asked.end()), unreported;
    std::string missing, extra;
    for (const std::string &key : asked) {
        if (!ex.active.count(key) && !ex.defaults.count(key))
            missing += "#" + key + "=" + (reported.count(key) ? *reported[key].begin() : "?") + "\n";
    }
    for (const auto *table : {&ex.active, &ex.defaults}) {
        for (const auto &[key, value] : *table) {
            if (!asked.count(key))
                extra += key + "\n";
        }
    }
    EXPECT_EQ(missing, "") << "keys the daemon reads that the example does not list";
    EXPECT_EQ(extra, "") << "keys the example lists that the daemon does not read";

    for (const std::string &key : asked) {
        auto r = reported.find(key);
        if (r == reported.end()) {
            unreported.insert(key);
            continue;
        }
        // Modules that read one key agree on its default.
        ASSERT_EQ(r->second.size(), 1u) << key << " is read with different defaults";
        auto d = ex.defaults.find(key);
        if (d != ex.defaults.end() && d->second.rfind('<', 0) != 0) {
            EXPECT_EQ(d->second, *r->second.begin()) << "the default of " << key;
        }
    }
    // The keys whose default the run cannot see: those the start-up needs set
    // (the example's active lines), and the log path, whose buffer holds any
    // value the store can give.
    std::set<std::string> unseen = {"bandherd.log_path"};
    for (const auto &[key, value] : ex.active)
        unseen.insert(key);
    EXPECT_EQ(unreported, unseen);
}

TEST(ConfExample, ListsEveryKeyTheDaemonReadsWithItsDefault)
{
    temp_dir dir;
    std::string log_path = dir.file("log");
    int rc = run_in_sandbox(SANDBOX_NET | SANDBOX_VAR, [&] { start_up_against_example(log_path); });
    if (rc == SANDBOX_UNAVAILABLE)
        GTEST_SKIP() << "no private namespaces here";
    std::string log = std::regex_replace(read_file(log_path), std::regex("z{8,}"), "zzz...");
    EXPECT_EQ(rc, 0) << "the start-up's log:\n" << log;
}

}  // namespace
