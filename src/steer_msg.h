// Mesh messages: named types carrying one JSON object, addressed by node MAC,
// dispatched to the handler registered for each type.
#ifndef STEER_MSG_H
#define STEER_MSG_H

#include <cstddef>
#include <cstdint>

struct cJSON;
typedef struct cJSON smsg_dict_t;
typedef struct cJSON smsg_list_t;

constexpr size_t SMSG_TYPE_SIZE = 32;

// The envelope in front of the JSON text (and its NUL).
typedef struct smsg_head {
    uint8_t sa[6];
    uint8_t da[6];
    char type[SMSG_TYPE_SIZE];
    char msg[];
} smsg_head_t;

static_assert(sizeof(smsg_head_t) == 44, "the envelope is 44 bytes");

typedef void (*smsg_handler_t)(const uint8_t *da, const uint8_t *sa, const char *type, smsg_dict_t *root);

typedef struct smsg_list_iter {
    smsg_list_t *list;
    int index;
} smsg_list_iter_t;

void smsg_init();
void smsg_exit();

void smsg_register(const char *type, smsg_handler_t cb);
// Sends `root` to `da` (ff:ff:ff:ff:ff:ff: every node); the caller keeps `root`.
int smsg_send(const uint8_t *da, const char *type, smsg_dict_t *root);
// The transport's receive callback.
void smsg_recv_handler(void *data, size_t size);

smsg_dict_t *smsg_new_root();
void smsg_del_root(smsg_dict_t *root);

void smsg_put_string(smsg_dict_t *dic, const char *key, const char *value);
void smsg_put_int(smsg_dict_t *dic, const char *key, int value);
void smsg_put_mac(smsg_dict_t *dic, const char *key, const uint8_t *mac);
smsg_list_t *smsg_add_list(smsg_dict_t *dic, const char *key);
smsg_dict_t *smsg_list_append(smsg_list_t *list);

int smsg_get_int(smsg_dict_t *dic, const char *key, int *err_indicate);
const char *smsg_get_string(smsg_dict_t *dic, const char *key);
int smsg_get_mac(smsg_dict_t *dic, const char *key, uint8_t *mac);
smsg_list_iter_t *smsg_list_iter(smsg_dict_t *dic, const char *key, smsg_list_iter_t *iter);
smsg_dict_t *smsg_list_next(smsg_list_iter_t *iter);

#endif
