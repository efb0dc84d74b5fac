#include "msg_util.h"

#include <cstring>

#include "steer.h"
#include "steer_msg.h"

std::vector<uint8_t> mesh_message(const uint8_t *sa, const uint8_t *da, const std::string &type,
                                  const std::string &text, bool nul)
{
    std::vector<uint8_t> msg(44 + text.size() + (nul ? 1 : 0), 0);
    memcpy(msg.data(), sa, 6);
    memcpy(msg.data() + 6, da, 6);
    memcpy(msg.data() + 12, type.data(), type.size() < 32 ? type.size() : 32);
    if (!text.empty())
        memcpy(msg.data() + 44, text.data(), text.size());
    return msg;
}

void mesh_receive(const uint8_t *sa, const std::string &type, const std::string &text)
{
    std::vector<uint8_t> msg = mesh_message(sa, MAC_BCAST, type, text);
    smsg_recv_handler(msg.data(), msg.size());
}
