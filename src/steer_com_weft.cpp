#include "steer_com_weft.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "cm.h"
#include "steer.h"

scom_recv_cb g_recv_cb;

namespace {

constexpr const char *SCOM_STEER_SOCKET = "/var/steer_socket";
constexpr char SCOM_WEFT_SOCKET[] = "/var/weft_socket";

#define SCOM_STR2(x) #x
#define SCOM_STR(x) SCOM_STR2(x)
#define SCOM_WHERE "<" __FILE__ ":" SCOM_STR(__LINE__) ">"

// Transport assertions report through the event library.
#define SCOM_ASSERT(expr)                                                          \
    do {                                                                           \
        if (!(expr))                                                               \
            cm_abort("cm_assert(" #expr ") failure at " SCOM_WHERE "\r\n");        \
    } while (0)

cm_io *scom_new_io()
{
    auto *io = static_cast<cm_io *>(calloc(1, sizeof(cm_io)));
    if (!io)
        cm_abort("oom " SCOM_WHERE);
    io->fd = -1;
    io->status = CM_IO_CLOSED;
    return io;
}

void scom_sock_shutdown(cm_io *cli)
{
    if (cli->status & CM_IO_CLOSING)
        return;
    int err = cm_io_close(cli);
    SCOM_ASSERT(!err);
    SCOM_ASSERT(cm_io_is_closed(cli));
    SCOM_ASSERT(cli->status == CM_IO_CLOSED);
    free(cli);
}

void scom_recv_hanle(cm_io *cli, ssize_t, sds data, int err)
{
    if (err == 0) {
        g_recv_cb(data, sdslen(data));
        sdsfree(data);
        cm_io_read(cli, 0, scom_recv_hanle, -1.0);
        return;
    }
    sdsfree(data);
    scom_sock_shutdown(cli);
}

void scom_unix_accept_handle(cm_io *server, cm_io *cli, int err)
{
    if (err == 0) {
        cm_io_read(cli, 0, scom_recv_hanle, -1.0);
        cli = scom_new_io();
    }
    cm_io_accept(server, cli, scom_unix_accept_handle, -1.0);
}

// A non-blocking connection to the mesh daemon; -1 when it is not there.
int scom_conn_weft()
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) {
        LOG_ERROR("%s:%d, create socket failed");
        return -1;
    }
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    static_assert(sizeof(SCOM_WEFT_SOCKET) <= sizeof(addr.sun_path));
    memcpy(addr.sun_path, SCOM_WEFT_SOCKET, sizeof(SCOM_WEFT_SOCKET));
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
        LOG_ERROR("%s:%d, connect socket failed");
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

void scom_init()
{
    unlink(SCOM_STEER_SOCKET);
    cm_io *server = scom_new_io();
    char address[128];
    snprintf(address, sizeof(address), "unix://%s", SCOM_STEER_SOCKET);
    if (cm_io_listen(server, address) != 0) {
        free(server);
        return;
    }
    cm_io *client = scom_new_io();
    cm_io_accept(server, client, scom_unix_accept_handle, -1.0);
}

void scom_exit()
{
}

void scom_set_recv_cb(scom_recv_cb rx_handler)
{
    g_recv_cb = rx_handler;
}

int scom_send(const void *data, size_t len)
{
    int fd = scom_conn_weft();
    if (fd < 0)
        return -1;
    auto *buf = static_cast<uint8_t *>(malloc(len + SCOM_HEAD_LEN));
    if (!buf) {
        close(fd);
        return -1;
    }
    buf[0] = MESH_STEER_MESSAGE_ID;
    buf[1] = STEER_TYPE_TEST;
    buf[2] = 0;
    memcpy(buf + SCOM_HEAD_LEN, data, len);
    int ret = write(fd, buf, len + SCOM_HEAD_LEN) < 0 ? -1 : 0;
    free(buf);
    if (fd)
        close(fd);
    return ret;
}
