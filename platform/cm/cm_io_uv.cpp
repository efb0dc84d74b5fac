// Stream I/O of the event library over libuv pipes (Unix-domain sockets).
// Accepts and reads are one-shot: each delivers once and is armed again by
// its user. libuv handles live apart from the user's cm_io record, so a
// record may be freed right after cm_io_close.
#include <uv.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "cm.h"
#include "cm_uv_loop.h"

namespace {

constexpr size_t CM_IO_CHUNK = 65536;  // one read delivers at most this much
constexpr const char *CM_UNIX_PREFIX = "unix://";
// Connections a listening socket keeps open at once; past it, the one idle
// longest is closed to make room, so no peer can take them all.
constexpr int CM_IO_MAX_OPEN = 64;
// A connection that delivers nothing for this long is closed.
constexpr uint64_t CM_IO_IDLE_MS = 60 * 1000;

struct cm_io_uv {
    uv_pipe_t pipe;  // first: the handle is also the record
    cm_io *owner;    // null once the user closed it
    bool conn_pending;
    // An accepted connection: its listening socket and its place in that
    // socket's list of open connections.
    cm_io_uv *server;
    cm_io_uv *prev;
    cm_io_uv *next;
    uint64_t last_active;  // loop time (ms) of its acceptance or last data
    // A listening socket: its open connections, their limits and the idle sweep.
    cm_io_uv *conns;
    int open;
    int max_open;
    uint64_t idle_ms;
    uv_timer_t *sweep;
};

// Reads land here and are copied into a string of their own size, so an
// open connection costs nothing while it is quiet. One thread, and libuv
// hands each read to its callback before it reads the next.
char s_read_buf[CM_IO_CHUNK];

// An sds is its bytes and a NUL, preceded by its length.
struct sds_hdr {
    size_t len;
    char buf[];
};

sds_hdr *sds_of(sds s)
{
    return reinterpret_cast<sds_hdr *>(s - offsetof(sds_hdr, buf));
}

cm_io_uv *cm_io_new_impl(cm_io *owner)
{
    auto *impl = static_cast<cm_io_uv *>(calloc(1, sizeof(cm_io_uv)));
    if (!impl)
        cm_abort("cm: out of memory");
    uv_pipe_init(cm_uv_loop(), &impl->pipe, 0);
    impl->pipe.data = impl;
    impl->owner = owner;
    return impl;
}

uv_stream_t *stream_of(cm_io *io)
{
    return reinterpret_cast<uv_stream_t *>(&static_cast<cm_io_uv *>(io->impl)->pipe);
}

void cm_io_attach(cm_io *io, cm_io_uv *impl)
{
    io->impl = impl;
    uv_os_fd_t fd = -1;
    uv_fileno(reinterpret_cast<uv_handle_t *>(&impl->pipe), &fd);
    io->fd = fd;
    io->status = CM_IO_CONNECTED;
}

void cm_io_unlink_conn(cm_io_uv *conn)
{
    cm_io_uv *server = conn->server;
    if (!server)
        return;
    if (conn->prev)
        conn->prev->next = conn->next;
    else
        server->conns = conn->next;
    if (conn->next)
        conn->next->prev = conn->prev;
    conn->prev = conn->next = nullptr;
    conn->server = nullptr;
    server->open--;
}

// Ends a connection for its user as if the peer had closed it: the armed read
// reports end of stream and the user closes the record. False when no read
// is armed (the user is busy with it).
bool cm_io_expire(cm_io_uv *conn)
{
    cm_io *client = conn->owner;
    if (!client || !client->read_cb)
        return false;
    cm_io_read_cb cb = client->read_cb;
    client->read_cb = nullptr;
    uv_read_stop(reinterpret_cast<uv_stream_t *>(&conn->pipe));
    cm_io_unlink_conn(conn);
    cb(client, UV_EOF, nullptr, UV_EOF);
    return true;
}

void cm_io_sweep(uv_timer_t *t)
{
    auto *server = static_cast<cm_io_uv *>(t->data);
    uint64_t now = uv_now(cm_uv_loop());
    for (cm_io_uv *conn = server->conns, *next; conn; conn = next) {
        next = conn->next;
        if (conn->last_active + server->idle_ms <= now)
            cm_io_expire(conn);
    }
}

// Looks for idle connections a few times per idle period (at most every
// 10 s); the sweep does not keep the loop alive.
void cm_io_start_sweep(cm_io_uv *server)
{
    if (!server->sweep) {
        server->sweep = static_cast<uv_timer_t *>(calloc(1, sizeof(uv_timer_t)));
        if (!server->sweep)
            return;
        uv_timer_init(cm_uv_loop(), server->sweep);
        server->sweep->data = server;
        uv_unref(reinterpret_cast<uv_handle_t *>(server->sweep));
    }
    uint64_t period = std::clamp<uint64_t>(server->idle_ms / 4, 10, 10000);
    uv_timer_start(server->sweep, cm_io_sweep, period, period);
}

// Makes room for one more connection by closing the one idle longest.
void cm_io_make_room(cm_io_uv *server)
{
    while (server->open >= server->max_open) {
        cm_io_uv *idlest = nullptr;
        for (cm_io_uv *conn = server->conns; conn; conn = conn->next)
            if (conn->owner && conn->owner->read_cb && (!idlest || conn->last_active < idlest->last_active))
                idlest = conn;
        if (!idlest || !cm_io_expire(idlest))
            return;
    }
}

void cm_io_track_conn(cm_io_uv *server, cm_io_uv *conn)
{
    cm_io_make_room(server);
    conn->server = server;
    conn->next = server->conns;
    if (server->conns)
        server->conns->prev = conn;
    server->conns = conn;
    server->open++;
    conn->last_active = uv_now(cm_uv_loop());
    if (!server->sweep)
        cm_io_start_sweep(server);  // started once: re-arming it here would put it off for as long as peers come
}

void cm_io_do_accept(cm_io *server)
{
    cm_io *client = server->accept_client;
    cm_io_accept_cb cb = server->accept_cb;
    server->accept_client = nullptr;
    server->accept_cb = nullptr;

    cm_io_uv *impl = cm_io_new_impl(client);
    int rc = uv_accept(stream_of(server), reinterpret_cast<uv_stream_t *>(&impl->pipe));
    if (rc != 0) {
        cm_uv_close_free(reinterpret_cast<uv_handle_t *>(&impl->pipe));
        cb(server, client, rc);
        return;
    }
    cm_io_attach(client, impl);
    cm_io_track_conn(static_cast<cm_io_uv *>(server->impl), impl);
    cb(server, client, 0);
}

void cm_io_deferred_accept(void *data)
{
    auto *server = static_cast<cm_io *>(data);
    if (server->impl && server->accept_cb)
        cm_io_do_accept(server);
}

void cm_io_on_connection(uv_stream_t *stream, int status)
{
    auto *impl = static_cast<cm_io_uv *>(stream->data);
    if (!impl || !impl->owner)
        return;
    cm_io *server = impl->owner;
    if (!server->accept_cb) {
        if (status == 0)
            impl->conn_pending = true;
        return;
    }
    if (status < 0) {
        cm_io *client = server->accept_client;
        cm_io_accept_cb cb = server->accept_cb;
        server->accept_client = nullptr;
        server->accept_cb = nullptr;
        cb(server, client, status);
        return;
    }
    cm_io_do_accept(server);
}

void cm_io_alloc(uv_handle_t *h, size_t, uv_buf_t *buf)
{
    auto *impl = static_cast<cm_io_uv *>(h->data);
    size_t want = CM_IO_CHUNK;
    if (impl && impl->owner && impl->owner->read_len && impl->owner->read_len < want)
        want = impl->owner->read_len;
    *buf = uv_buf_init(s_read_buf, (unsigned)want);
}

void cm_io_on_read(uv_stream_t *stream, ssize_t nread, const uv_buf_t *)
{
    auto *impl = static_cast<cm_io_uv *>(stream->data);
    if (nread == 0 || !impl || !impl->owner)
        return;
    cm_io *client = impl->owner;
    uv_read_stop(stream);
    cm_io_read_cb cb = client->read_cb;
    client->read_cb = nullptr;
    if (nread < 0) {
        cm_io_unlink_conn(impl);
        cb(client, nread, nullptr, (int)nread);
        return;
    }
    impl->last_active = uv_now(cm_uv_loop());
    auto *hdr = static_cast<sds_hdr *>(malloc(sizeof(sds_hdr) + (size_t)nread + 1));
    if (!hdr) {
        // No memory for the data: the connection ends as if the peer had gone.
        cm_io_unlink_conn(impl);
        cb(client, UV_ENOBUFS, nullptr, UV_ENOBUFS);
        return;
    }
    memcpy(hdr->buf, s_read_buf, (size_t)nread);
    hdr->len = (size_t)nread;
    hdr->buf[nread] = '\0';
    cb(client, nread, hdr->buf, 0);
}

}  // namespace

extern "C" {

size_t sdslen(const sds s)
{
    return sds_of(s)->len;
}

void sdsfree(sds s)
{
    if (s)
        free(sds_of(s));
}

int cm_io_listen(struct cm_io *server, const char *address)
{
    size_t plen = strlen(CM_UNIX_PREFIX);
    if (!server || !address || strncmp(address, CM_UNIX_PREFIX, plen) != 0)
        return -1;
    cm_io_uv *impl = cm_io_new_impl(server);
    auto *stream = reinterpret_cast<uv_stream_t *>(&impl->pipe);
    if (uv_pipe_bind(&impl->pipe, address + plen) != 0 || uv_listen(stream, 128, cm_io_on_connection) != 0) {
        cm_uv_close_free(reinterpret_cast<uv_handle_t *>(&impl->pipe));
        return -1;
    }
    impl->max_open = CM_IO_MAX_OPEN;
    impl->idle_ms = CM_IO_IDLE_MS;
    cm_io_attach(server, impl);
    return 0;
}

int cm_io_limit(struct cm_io *server, int max_open, double idle_seconds)
{
    if (!server || !server->impl || max_open < 1 || idle_seconds <= 0)
        return -1;
    auto *impl = static_cast<cm_io_uv *>(server->impl);
    impl->max_open = max_open;
    impl->idle_ms = (uint64_t)(idle_seconds * 1000.0 + 0.5);
    if (impl->sweep)
        cm_io_start_sweep(impl);
    return 0;
}

int cm_io_accept(struct cm_io *server, struct cm_io *client, cm_io_accept_cb cb, double timeout)
{
    if (!server || !server->impl || !client || !cb || timeout >= 0)
        return -1;
    server->accept_client = client;
    server->accept_cb = cb;
    auto *impl = static_cast<cm_io_uv *>(server->impl);
    if (impl->conn_pending) {
        // A connection came while no accept was armed: take it on the next pass.
        impl->conn_pending = false;
        cm_timeout(0, cm_io_deferred_accept, server);
    }
    return 0;
}

int cm_io_read(struct cm_io *client, size_t len, cm_io_read_cb cb, double timeout)
{
    if (!client || !client->impl || !cb || timeout >= 0)
        return -1;
    client->read_cb = cb;
    client->read_len = len;
    return uv_read_start(stream_of(client), cm_io_alloc, cm_io_on_read) == 0 ? 0 : -1;
}

int cm_io_close(struct cm_io *io)
{
    if (!io)
        return -1;
    auto *impl = static_cast<cm_io_uv *>(io->impl);
    if (impl) {
        cm_io_unlink_conn(impl);
        // A listening socket lets go of its connections (they stay open for
        // their users) and of its sweep.
        for (cm_io_uv *conn = impl->conns, *next; conn; conn = next) {
            next = conn->next;
            conn->server = conn->prev = conn->next = nullptr;
        }
        impl->conns = nullptr;
        if (impl->sweep) {
            uv_timer_stop(impl->sweep);
            cm_uv_close_free(reinterpret_cast<uv_handle_t *>(impl->sweep));
            impl->sweep = nullptr;
        }
        impl->owner = nullptr;
        cm_uv_close_free(reinterpret_cast<uv_handle_t *>(&impl->pipe));
    }
    io->impl = nullptr;
    io->fd = -1;
    io->status = CM_IO_CLOSED;
    io->read_cb = nullptr;
    io->accept_cb = nullptr;
    return 0;
}

}  // extern "C"
