#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include "fake_cm.h"
#include "fake_platform.h"
#include "msg_util.h"
#include "steer.h"
#include "steer_msg.h"
#include "test_util.h"

namespace {

const uint8_t SELF[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
const uint8_t PEER[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x02};

// "<type> <sa last byte> <da last byte> <v>" of each message handed over.
std::vector<std::string> s_got;

void record_message(const uint8_t *da, const uint8_t *sa, const char *type, smsg_dict_t *root)
{
    s_got.push_back(std::string(type) + " " + std::to_string(sa[5]) + " " + std::to_string(da[5]) + " " +
                    std::to_string(smsg_get_int(root, "v", nullptr)));
}

void other_handler(const uint8_t *, const uint8_t *, const char *, smsg_dict_t *) {}

class SmsgTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake_cm_reset();
        fake_platform_reset();
        smsg_init();
        s_got.clear();
    }
};

void receive(std::vector<uint8_t> msg)
{
    smsg_recv_handler(msg.data(), msg.size());
}

TEST_F(SmsgTest, TypeNamesAreCutTo31CharactersAndTheFirstRegistrationStays)
{
    std::string longer = "T_" + std::string(38, 'x');  // 40 characters
    smsg_register(longer.c_str(), record_message);
    log_capture log;
    // The receiver forces the 32nd byte to NUL and compares 31 characters.
    receive(mesh_message(PEER, SELF, longer, "{\"v\": 3}"));
    smsg_register(longer.substr(0, 31).c_str(), other_handler);
    receive(mesh_message(PEER, SELF, longer, "{\"v\": 4}"));
    EXPECT_EQ(s_got, (std::vector<std::string>{longer.substr(0, 31) + " 2 1 3", longer.substr(0, 31) + " 2 1 4"}));
    EXPECT_EQ(log.plain(), "error smsg_register, type '" + longer.substr(0, 31) + "' is already regitered\n");

    // Exit forgets the registry: a fresh start takes the type again.
    smsg_exit();
    smsg_init();
    smsg_register(longer.c_str(), other_handler);
    receive(mesh_message(PEER, SELF, longer, "{\"v\": 5}"));
    EXPECT_EQ(s_got.size(), 2u);
}

TEST_F(SmsgTest, TypedGettersTellMissingOrWrongFields)
{
    smsg_dict_t *root = smsg_new_root();
    smsg_put_int(root, "n", 42);
    smsg_put_string(root, "s", "text");
    const uint8_t mac[6] = {0x02, 0xab, 0, 0, 0, 0x0f};
    smsg_put_mac(root, "m", mac);
    smsg_put_string(root, "bad_mac", "02:ab");
    smsg_list_t *list = smsg_add_list(root, "l");
    smsg_put_int(smsg_list_append(list), "i", 1);
    smsg_put_int(smsg_list_append(list), "i", 2);

    log_capture log;
    std::vector<int> ints, err = {5, 5, 5};
    for (const char *key : {"n", "s", "x"})
        ints.push_back(smsg_get_int(root, key, &err[ints.size()]));
    EXPECT_EQ(ints, (std::vector<int>{42, 0, 0}));
    EXPECT_EQ(err, (std::vector<int>{0, -1, -1}));
    EXPECT_STREQ(smsg_get_string(root, "m"), "02:ab:00:00:00:0f");
    EXPECT_EQ(smsg_get_string(root, "n"), nullptr);
    uint8_t got[6] = {};
    EXPECT_EQ(smsg_get_mac(root, "m", got), 0);
    EXPECT_TRUE(mac_equal(got, mac));
    EXPECT_EQ(smsg_get_mac(root, "bad_mac", got), -1);
    smsg_list_iter_t iter;
    ASSERT_EQ(smsg_list_iter(root, "l", &iter), &iter);
    std::vector<int> items;
    for (smsg_dict_t *item; (item = smsg_list_next(&iter)) != nullptr;)
        items.push_back(smsg_get_int(item, "i", nullptr));
    EXPECT_EQ(items, (std::vector<int>{1, 2}));
    EXPECT_EQ(smsg_list_iter(root, "nolist", &iter), nullptr);
    smsg_del_root(root);
    EXPECT_EQ(log.plain(), "error smsg_get_int, s is not a number\nerror smsg_get_int, can't get 'x'\n"
                           "error smsg_get_string, n is not string\nerror smsg_get_mac, scan mac failed, '02:ab'\n"
                           "error smsg_list_iter, can't get 'nolist'\n");
}

TEST_F(SmsgTest, StartUpNeedsTheNodeAddress)
{
    g_fake_iof_result = -1;
    EXPECT_FATAL(smsg_init(), "fatal smsg_init:[0-9]+, get mac address failed\n");
}

void send_through_the_mesh_daemon()
{
    smsg_dict_t *root = smsg_new_root();
    smsg_put_int(root, "v", 9);
    std::string longer = "T_" + std::string(38, 'y');
    {
        log_capture log;
        EXPECT_EQ(smsg_send(MAC_BCAST, "T_SEND", root), -1);  // nobody listens yet
        EXPECT_EQ(log.plain(), "error scom_conn_weft, connect socket failed\n");
    }
    weft_listener weft;
    EXPECT_EQ(smsg_send(PEER, longer.c_str(), root), 0);

    char *text = cJSON_Print(root);  // the body as the sender formats it
    std::vector<uint8_t> expected = {3, 1, 0};
    std::vector<uint8_t> msg = mesh_message(SELF, PEER, longer.substr(0, 31), text);
    expected.insert(expected.end(), msg.begin(), msg.end());
    free(text);
    EXPECT_EQ(weft.take(), std::vector<std::vector<uint8_t>>{expected});
    smsg_del_root(root);
}

TEST_F(SmsgTest, SendEnvelopesAndFramesTheMessage)
{
    EXPECT_SANDBOXED(SANDBOX_VAR, send_through_the_mesh_daemon);
}

}  // namespace
