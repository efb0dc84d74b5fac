// The platform's device MAC.
#include <gtest/gtest.h>

#include "iof.h"
#include "test_util.h"

namespace {

void base_mac_is_br0s()
{
    uint8_t mac[6];
    EXPECT_NE(iof_mac_addr_get(mac), 0);  // no br0 yet
    EXPECT_EQ(system("ip link add br0 type bridge && ip link set br0 address 02:11:22:33:44:56"), 0);
    EXPECT_EQ(iof_mac_addr_get(mac), 0);
    const uint8_t expected[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x56};
    EXPECT_EQ(memcmp(mac, expected, 6), 0);
}

TEST(Iof, BaseMacIsTheAddressOfBr0)
{
    EXPECT_SANDBOXED(SANDBOX_NET, base_mac_is_br0s);
}

}  // namespace
