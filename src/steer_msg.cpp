#include "steer_msg.h"

#include <cjson/cJSON.h>

#include "iof.h"
#include "steer.h"
#include "steer_com_weft.h"

namespace {

constexpr size_t SMSG_HEAD_LEN = sizeof(smsg_head_t);

struct smsg_reg_t {
    slist_link list;
    char type[SMSG_TYPE_SIZE];
    smsg_handler_t cb;
};

SLIST(smsg_reg_t, list) s_msg_regs;
uint8_t s_self_addr[MAC_LEN];

smsg_reg_t *smsg_find(const char *type)
{
    for (smsg_reg_t *reg : s_msg_regs)
        if (strncmp(reg->type, type, SMSG_TYPE_SIZE) == 0)
            return reg;
    return nullptr;
}

}  // namespace

void smsg_init()
{
    SLOG_REGISTER("msg");
    scom_init();
    scom_set_recv_cb(smsg_recv_handler);
    if (iof_mac_addr_get(s_self_addr) != 0) {
        LOG_FATAL("%s:%d, get mac address failed");
        abort();
    }
    LOG_DEBUG("%s:%d, self address is " MAC_FMT, MAC_ARG(s_self_addr));
}

void smsg_exit()
{
    scom_exit();
    for (smsg_reg_t *reg : s_msg_regs) {
        decltype(s_msg_regs)::del(reg);
        free(reg);
    }
}

void smsg_register(const char *type, smsg_handler_t cb)
{
    SASSERT(type);
    SASSERT(cb);

    if (smsg_find(type)) {
        LOG_ERROR("%s:%d, type '%s' is already regitered", type);
        return;
    }
    auto *reg = static_cast<smsg_reg_t *>(calloc(1, sizeof(smsg_reg_t)));
    if (!reg) {
        LOG_FATAL("%s:%d, no enough memory");
        abort();
    }
    snprintf(reg->type, sizeof(reg->type), "%s", type);
    reg->cb = cb;
    s_msg_regs.add_head(reg);
}

int smsg_send(const uint8_t *da, const char *type, smsg_dict_t *root)
{
    SASSERT(da);
    SASSERT(type);
    SASSERT(root);

    char *text = cJSON_Print(root);
    if (!text) {
        LOG_ERROR("%s:%d, dump json to message failed");
        return -1;
    }
    size_t text_len = strlen(text);
    size_t size = SMSG_HEAD_LEN + text_len + 1;
    auto *head = static_cast<smsg_head_t *>(malloc(size));
    if (!head) {
        LOG_ERROR("%s:%d, no enough memory");
        cJSON_free(text);
        return -1;
    }
    memset(head, 0, size);
    mac_copy(head->sa, s_self_addr);
    mac_copy(head->da, da);
    snprintf(head->type, sizeof(head->type), "%s", type);
    memcpy(head->msg, text, text_len + 1);
    LOG_DUMP("%s:%d, send message to " MAC_FMT ", type '%s', content: \n%s", MAC_ARG(da), head->type, text);

    int ret = scom_send(head, size);
    cJSON_free(text);
    free(head);
    return ret;
}

void smsg_recv_handler(void *data, size_t size)
{
    if (size <= SMSG_HEAD_LEN) {
        LOG_ERROR("%s:%d, invalid message size %u", (unsigned)size);
        return;
    }
    auto *head = static_cast<smsg_head_t *>(data);
    if (mac_equal(head->sa, s_self_addr))
        return;  // our own broadcast, back through the mesh daemon
    if (!mac_equal(head->da, s_self_addr) && !mac_is_bcast(head->da))
        return;

    head->type[SMSG_TYPE_SIZE - 1] = '\0';
    smsg_reg_t *reg = smsg_find(head->type);
    if (!reg) {
        LOG_WARN("%s:%d, message '%s' is not registered.", head->type);
        return;
    }
    static_cast<char *>(data)[size - 1] = '\0';
    cJSON *root = cJSON_Parse(head->msg);
    if (!root) {
        LOG_ERROR("%s:%d, json parse error: %s", head->msg);
        return;
    }
    LOG_DUMP("%s:%d, receive message from " MAC_FMT " to " MAC_FMT ", type '%s', content: \n%s", MAC_ARG(head->sa),
             MAC_ARG(head->da), head->type, head->msg);
    SASSERT(reg->cb);
    reg->cb(head->da, head->sa, head->type, root);
    cJSON_Delete(root);
}

smsg_dict_t *smsg_new_root()
{
    cJSON *root = cJSON_CreateObject();
    if (!root)
        LOG_ERROR("%s:%d, create root failed");
    return root;
}

void smsg_del_root(smsg_dict_t *root)
{
    SASSERT(root);
    cJSON_Delete(root);
}

void smsg_put_string(smsg_dict_t *dic, const char *key, const char *value)
{
    SASSERT(dic);
    SASSERT(key);
    SASSERT(value);
    cJSON_AddStringToObject(dic, key, value);
}

void smsg_put_int(smsg_dict_t *dic, const char *key, int value)
{
    SASSERT(dic);
    SASSERT(key);
    cJSON_AddNumberToObject(dic, key, value);
}

void smsg_put_mac(smsg_dict_t *dic, const char *key, const uint8_t *mac)
{
    SASSERT(dic);
    SASSERT(key);
    SASSERT(mac);
    char text[18];
    snprintf(text, sizeof(text), "%s", mac_text(mac).s);
    cJSON_AddStringToObject(dic, key, text);
}

smsg_list_t *smsg_add_list(smsg_dict_t *dic, const char *key)
{
    SASSERT(dic);
    SASSERT(key);
    cJSON *list = cJSON_AddArrayToObject(dic, key);
    if (!list)
        LOG_ERROR("%s:%d, create list failed");
    return list;
}

smsg_dict_t *smsg_list_append(smsg_list_t *list)
{
    SASSERT(list);
    cJSON *item = cJSON_CreateObject();
    if (!item) {
        LOG_ERROR("%s:%d, create dict failed");
        return nullptr;
    }
    cJSON_AddItemToArray(list, item);
    return item;
}

int smsg_get_int(smsg_dict_t *dic, const char *key, int *err_indicate)
{
    SASSERT(dic);
    SASSERT(key);
    if (err_indicate)
        *err_indicate = -1;
    cJSON *item = cJSON_GetObjectItem(dic, key);
    if (!item) {
        LOG_ERROR("%s:%d, can't get '%s'", key);
        return 0;
    }
    if (!cJSON_IsNumber(item)) {
        LOG_ERROR("%s:%d, %s is not a number", key);
        return 0;
    }
    if (err_indicate)
        *err_indicate = 0;
    return item->valueint;
}

const char *smsg_get_string(smsg_dict_t *dic, const char *key)
{
    SASSERT(dic);
    SASSERT(key);
    cJSON *item = cJSON_GetObjectItem(dic, key);
    if (!item) {
        LOG_ERROR("%s:%d, can't get '%s'", key);
        return nullptr;
    }
    if (!cJSON_IsString(item)) {
        LOG_ERROR("%s:%d, %s is not string", key);
        return nullptr;
    }
    return item->valuestring;
}

int smsg_get_mac(smsg_dict_t *dic, const char *key, uint8_t *mac)
{
    SASSERT(dic);
    SASSERT(key);
    SASSERT(mac);
    cJSON *item = cJSON_GetObjectItem(dic, key);
    if (!cJSON_IsString(item))
        return -1;
    const char *text = item->valuestring;
    if (mac_scan(text, mac) != 0) {
        LOG_ERROR("%s:%d, scan mac failed, '%s'", text);
        return -1;
    }
    return 0;
}

smsg_list_iter_t *smsg_list_iter(smsg_dict_t *dic, const char *key, smsg_list_iter_t *iter)
{
    SASSERT(dic);
    SASSERT(key);
    SASSERT(iter);
    cJSON *list = cJSON_GetObjectItem(dic, key);
    if (!list) {
        LOG_ERROR("%s:%d, can't get '%s'", key);
        return nullptr;
    }
    iter->list = list;
    iter->index = 0;
    return iter;
}

smsg_dict_t *smsg_list_next(smsg_list_iter_t *iter)
{
    SASSERT(iter);
    SASSERT(iter->list);
    if (iter->index >= cJSON_GetArraySize(iter->list))
        return nullptr;
    return cJSON_GetArrayItem(iter->list, iter->index++);
}
