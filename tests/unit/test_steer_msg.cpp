#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cjson/cJSON.h>

#include <regex>

#include "fake_cm.h"
#include "fake_platform.h"
#include "msg_util.h"
#include "steer.h"
#include "steer_msg.h"
#include "test_util.h"

namespace {

const uint8_t SELF[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
const uint8_t PEER[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
const uint8_t OTHER[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x03};

struct delivery {
    int calls = 0;
    std::string type;
    uint8_t sa[6] = {};
    uint8_t da[6] = {};
    int value = 0;
};

delivery s_got;

void record_message(const uint8_t *da, const uint8_t *sa, const char *type, smsg_dict_t *root)
{
    s_got.calls++;
    s_got.type = type;
    memcpy(s_got.sa, sa, 6);
    memcpy(s_got.da, da, 6);
    s_got.value = smsg_get_int(root, "v", nullptr);
}

void other_handler(const uint8_t *, const uint8_t *, const char *, smsg_dict_t *) {}

class SmsgTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake_cm_reset();
        fake_platform_reset();
        smsg_init();
        s_got = delivery{};
    }
};

void receive(std::vector<uint8_t> msg)
{
    smsg_recv_handler(msg.data(), msg.size());
}

TEST_F(SmsgTest, MessagesForUsAreDispatchedByType)
{
    smsg_register("T_UNICAST", record_message);
    receive(mesh_message(PEER, SELF, "T_UNICAST", "{\"v\": 7}"));
    EXPECT_EQ(s_got.calls, 1);
    EXPECT_EQ(s_got.type, "T_UNICAST");
    EXPECT_TRUE(mac_equal(s_got.sa, PEER));
    EXPECT_EQ(s_got.value, 7);

    receive(mesh_message(PEER, MAC_BCAST, "T_UNICAST", "{\"v\": 8}"));
    EXPECT_EQ(s_got.calls, 2);
    EXPECT_TRUE(mac_is_bcast(s_got.da));
}

TEST_F(SmsgTest, OwnAndOthersMessagesAreDroppedSilently)
{
    smsg_register("T_DROP", record_message);
    log_capture log;
    receive(mesh_message(SELF, MAC_BCAST, "T_DROP", "{}"));
    receive(mesh_message(SELF, SELF, "T_DROP", "{}"));
    receive(mesh_message(PEER, OTHER, "T_DROP", "{}"));
    EXPECT_EQ(s_got.calls, 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(SmsgTest, BrokenMessagesAreDroppedWithTheirReason)
{
    smsg_register("T_BROKEN", record_message);
    log_capture log;
    std::vector<uint8_t> head_only = mesh_message(PEER, SELF, "T_BROKEN", "", false);
    receive(head_only);                                                // 44 bytes
    receive(mesh_message(PEER, SELF, "T_BROKEN", ""));                // 45: empty text and its NUL
    receive(mesh_message(PEER, SELF, "T_NOBODY", "{}"));
    receive(mesh_message(PEER, SELF, "T_BROKEN", "{\"v\": 1}", false));  // the sender's NUL is required
    EXPECT_EQ(s_got.calls, 0);
    std::regex lines("error smsg_recv_handler:[0-9]+, invalid message size 44\n"
                     "error smsg_recv_handler:[0-9]+, json parse error: \n"
                     "warning smsg_recv_handler:[0-9]+, message 'T_NOBODY' is not registered.\n"
                     "error smsg_recv_handler:[0-9]+, json parse error: \\{\"v\": 1\n");
    EXPECT_TRUE(std::regex_match(log.text(), lines)) << log.text();
}

TEST_F(SmsgTest, TypeNamesAreCutTo31Characters)
{
    std::string longer = "T_" + std::string(38, 'x');  // 40 characters
    smsg_register(longer.c_str(), record_message);
    log_capture log;
    // The receiver forces the 32nd byte to NUL and compares 31 characters.
    receive(mesh_message(PEER, SELF, longer, "{\"v\": 3}"));
    EXPECT_EQ(s_got.calls, 1);
    EXPECT_EQ(s_got.type, longer.substr(0, 31));
    smsg_register(longer.substr(0, 31).c_str(), other_handler);
    EXPECT_TRUE(std::regex_match(log.text(), std::regex("error smsg_register:[0-9]+, type 'T_x+' is already regitered\n")))
        << log.text();
    receive(mesh_message(PEER, SELF, longer, "{\"v\": 4}"));
    EXPECT_EQ(s_got.calls, 2);  // the first handler stays

    // Exit forgets the registry: a fresh start takes the type again.
    smsg_exit();
    smsg_init();
    smsg_register(longer.c_str(), other_handler);
    receive(mesh_message(PEER, SELF, longer, "{\"v\": 5}"));
    EXPECT_EQ(s_got.calls, 2);
}

TEST_F(SmsgTest, TypedGettersReportWhatIsMissingOrWrong)
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
    int err = 5;
    EXPECT_EQ(smsg_get_int(root, "n", &err), 42);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(smsg_get_int(root, "s", &err), 0);
    EXPECT_EQ(err, -1);
    EXPECT_EQ(smsg_get_int(root, "none", nullptr), 0);
    EXPECT_STREQ(smsg_get_string(root, "s"), "text");
    EXPECT_EQ(smsg_get_string(root, "n"), nullptr);
    EXPECT_STREQ(smsg_get_string(root, "m"), "02:ab:00:00:00:0f");
    uint8_t got[6] = {};
    EXPECT_EQ(smsg_get_mac(root, "m", got), 0);
    EXPECT_TRUE(mac_equal(got, mac));
    EXPECT_EQ(smsg_get_mac(root, "bad_mac", got), -1);

    smsg_list_iter_t iter;
    ASSERT_EQ(smsg_list_iter(root, "l", &iter), &iter);
    int sum = 0, count = 0;
    for (smsg_dict_t *item; (item = smsg_list_next(&iter)) != nullptr; count++)
        sum += smsg_get_int(item, "i", nullptr);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(sum, 3);
    EXPECT_EQ(smsg_list_iter(root, "nolist", &iter), nullptr);
    smsg_del_root(root);

    std::regex lines("error smsg_get_int:[0-9]+, s is not a number\n"
                     "error smsg_get_int:[0-9]+, can't get 'none'\n"
                     "error smsg_get_string:[0-9]+, n is not string\n"
                     "error smsg_get_mac:[0-9]+, scan mac failed, '02:ab'\n"
                     "error smsg_list_iter:[0-9]+, can't get 'nolist'\n");
    EXPECT_TRUE(std::regex_match(log.text(), lines)) << log.text();
}

TEST_F(SmsgTest, NullArgumentsAbortWithTheirNames)
{
    smsg_dict_t *root = smsg_new_root();
    EXPECT_DEATH(smsg_put_int(nullptr, "k", 1), "'dic' is not satisfied");
    EXPECT_DEATH(smsg_put_string(root, nullptr, "v"), "'key' is not satisfied");
    EXPECT_DEATH(smsg_put_string(root, "k", nullptr), "'value' is not satisfied");
    EXPECT_DEATH(smsg_put_mac(root, "k", nullptr), "'mac' is not satisfied");
    EXPECT_DEATH(smsg_list_next(nullptr), "'iter' is not satisfied");
    smsg_list_iter_t iter = {nullptr, 0};
    EXPECT_DEATH(smsg_list_next(&iter), "'iter->list' is not satisfied");
    EXPECT_DEATH(smsg_send(nullptr, "T", root), "'da' is not satisfied");
    EXPECT_DEATH(smsg_register("T", nullptr), "'cb' is not satisfied");
    smsg_del_root(root);
}

TEST_F(SmsgTest, StartUpNeedsTheNodeAddress)
{
    g_fake_iof_result = -1;
    EXPECT_DEATH(smsg_init(), "");
}

// Listens on /var/weft_socket as the mesh daemon does and returns the bytes of one connection.
struct weft_stub {
    int fd = -1;
    weft_stub()
    {
        fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, "/var/weft_socket");
        unlink(addr.sun_path);
        if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 || listen(fd, 4) != 0)
            ADD_FAILURE() << "cannot listen on /var/weft_socket";
    }
    ~weft_stub() { close(fd); }
    std::vector<uint8_t> take()
    {
        int c = accept(fd, nullptr, nullptr);
        std::vector<uint8_t> out;
        uint8_t buf[4096];
        ssize_t n;
        while ((n = read(c, buf, sizeof(buf))) > 0)
            out.insert(out.end(), buf, buf + n);
        close(c);
        return out;
    }
};

void send_through_the_mesh_daemon()
{
    smsg_dict_t *root = smsg_new_root();
    smsg_put_int(root, "v", 9);
    std::string longer = "T_" + std::string(38, 'y');
    {
        log_capture log;
        EXPECT_EQ(smsg_send(MAC_BCAST, "T_SEND", root), -1);  // nobody listens yet
        EXPECT_TRUE(std::regex_match(log.text(), std::regex("error scom_conn_weft:[0-9]+, connect socket failed\n")))
            << log.text();
    }
    weft_stub weft;
    EXPECT_EQ(smsg_send(PEER, longer.c_str(), root), 0);
    std::vector<uint8_t> wire = weft.take();

    char *text = cJSON_Print(root);  // the body as the sender formats it
    std::vector<uint8_t> expected = {3, 1, 0};
    std::vector<uint8_t> msg = mesh_message(SELF, PEER, longer.substr(0, 31), text);
    expected.insert(expected.end(), msg.begin(), msg.end());
    free(text);
    EXPECT_EQ(wire, expected);
    smsg_del_root(root);
}

TEST_F(SmsgTest, SendEnvelopesAndFramesTheMessage)
{
    EXPECT_SANDBOXED(SANDBOX_VAR, send_through_the_mesh_daemon);
}

}  // namespace
