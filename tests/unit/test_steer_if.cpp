#include <gtest/gtest.h>

#include <set>

#include "fake_uwb.h"
#include "steer.h"
#include "steer_exe.h"
#include "steer_if.h"
#include "test_util.h"

namespace {

class SifTest : public ::testing::Test {
protected:
    void SetUp() override { fake_uwb_reset(); }
};

bool collect(const char *ifname, void *data)
{
    static_cast<std::set<std::string> *>(data)->insert(ifname);
    return false;
}

bool stop_at_first(const char *, void *data)
{
    ++*static_cast<int *>(data);
    return true;
}

// Inside a network namespace of its own with a bridge br0 and a fresh sysfs.
void bridge_in_own_namespace()
{
    ASSERT_EQ(sexe_no_out("ip link add br0 type bridge && ip link set br0 address 02:11:22:33:44:55"), 0);
    uint8_t mac[6] = {};
    const uint8_t expected[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(sif_get_mac("br0", mac), 0);
    EXPECT_TRUE(mac_equal(mac, expected));
    EXPECT_EQ(g_fake_uwb.os_ifname_calls, 0);  // no Wi-Fi library for a bridge

    EXPECT_FALSE(sif_is_up("br0"));
    EXPECT_EQ(sexe_no_out("ip link set br0 up"), 0);
    EXPECT_TRUE(sif_is_up("br0"));

    std::set<std::string> names;
    EXPECT_EQ(sif_iterate(collect, &names), 0);
    EXPECT_EQ(names, (std::set<std::string>{"lo", "br0"}));
    int calls = 0;
    EXPECT_EQ(sif_iterate(stop_at_first, &calls), 0);
    EXPECT_EQ(calls, 1);
}

TEST_F(SifTest, BridgeReadsItsOwnAddressFileWithoutTheWifiLibrary)
{
    EXPECT_SANDBOXED(SANDBOX_NET, bridge_in_own_namespace);
}

}  // namespace
