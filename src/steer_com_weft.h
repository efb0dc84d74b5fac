// The mesh transport: listens on /var/steer_socket for what the mesh daemon
// delivers, and sends each message over a fresh connection to /var/weft_socket.
#ifndef STEER_COM_WEFT_H
#define STEER_COM_WEFT_H

#include <cstddef>

// Mesh message classes of the transport header.
enum {
    MESH_NETCTRL_MESSAGE_ID = 1,
    MESH_LLDP_MESSAGE_ID = 2,
    MESH_STEER_MESSAGE_ID = 3,
};

enum {
    STEER_TYPE_TEST = 1,
};

constexpr size_t SCOM_HEAD_LEN = 3;

typedef void (*scom_recv_cb)(void *data, size_t size);

// The one receive callback: each chunk read is handed over as it came.
extern scom_recv_cb g_recv_cb;

void scom_init();
void scom_exit();
void scom_set_recv_cb(scom_recv_cb rx_handler);
// Prefixes the transport header and sends; 0, or -1 when the message is lost.
int scom_send(const void *data, size_t len);

#endif
