// The event library over libuv. libuv closes handles asynchronously, so each
// cm record points at a handle of its own that is freed by the close
// callback: the user may free its record right after stopping it.
#include "cm.h"

#include <uv.h>

#include "cm_uv_loop.h"

#include <cstdio>
#include <cstdlib>

namespace {

uv_loop_t *s_loop;

uv_loop_t *cm_loop()
{
    return cm_uv_loop();
}

void cm_free_handle(uv_handle_t *h)
{
    free(h);
}

void cm_close(uv_handle_t *h)
{
    cm_uv_close_free(h);
}

template <typename H>
H *cm_new_handle()
{
    auto *h = static_cast<H *>(calloc(1, sizeof(H)));
    if (!h)
        cm_abort("cm: out of memory");
    return h;
}

void cm_timer_fire(uv_timer_t *h)
{
    auto *timer = static_cast<cm_timer *>(h->data);
    if (timer)
        timer->cb(timer);
}

struct cm_timeout_rec {
    uv_timer_t handle;
    cm_timeout_cb cb;
    void *data;
};

void cm_timeout_fire(uv_timer_t *h)
{
    auto *rec = reinterpret_cast<cm_timeout_rec *>(h);
    rec->cb(rec->data);
    uv_close(reinterpret_cast<uv_handle_t *>(h), cm_free_handle);
}

// Time-outs of 0 run on the next loop pass, after the descriptors that are
// readable by then: each waits for one poll of the loop after it was made.
// The pass counter moves just before each poll; a check handle right after
// the poll runs what was made before it, and an idle handle keeps the poll
// from blocking while any wait.
struct cm_soon {
    cm_soon *next;
    cm_timeout_cb cb;
    void *data;
    uint64_t pass;
};

uv_prepare_t s_pass_counter;
uv_check_t s_soon_runner;
uv_idle_t s_soon_waker;
bool s_soon_ready;
uint64_t s_pass;
cm_soon *s_soon_head;
cm_soon **s_soon_tail = &s_soon_head;

void cm_soon_count_pass(uv_prepare_t *)
{
    s_pass++;
}

void cm_soon_nothing(uv_idle_t *)
{
}

void cm_soon_run(uv_check_t *)
{
    uint64_t pass = s_pass;
    while (s_soon_head && s_soon_head->pass < pass) {
        cm_soon *soon = s_soon_head;
        s_soon_head = soon->next;
        if (!s_soon_head)
            s_soon_tail = &s_soon_head;
        soon->cb(soon->data);
        free(soon);
    }
    if (!s_soon_head) {
        uv_check_stop(&s_soon_runner);
        uv_idle_stop(&s_soon_waker);
    }
}

int cm_soon_add(cm_timeout_cb cb, void *data)
{
    if (!s_soon_ready) {
        uv_prepare_init(cm_loop(), &s_pass_counter);
        uv_prepare_start(&s_pass_counter, cm_soon_count_pass);
        uv_unref(reinterpret_cast<uv_handle_t *>(&s_pass_counter));
        uv_check_init(cm_loop(), &s_soon_runner);
        uv_idle_init(cm_loop(), &s_soon_waker);
        s_soon_ready = true;
    }
    auto *soon = static_cast<cm_soon *>(calloc(1, sizeof(cm_soon)));
    if (!soon)
        cm_abort("cm: out of memory");
    soon->cb = cb;
    soon->data = data;
    soon->pass = s_pass;
    *s_soon_tail = soon;
    s_soon_tail = &soon->next;
    uv_check_start(&s_soon_runner, cm_soon_run);
    uv_idle_start(&s_soon_waker, cm_soon_nothing);
    return 0;
}

void cm_poll_fire(uv_poll_t *h, int status, int events)
{
    auto *poll = static_cast<cm_poll *>(h->data);
    if (!poll)
        return;
    int bits = 0;
    if (status < 0) {
        // An error on the descriptor: let the owner read it and see the failure.
        bits = CM_POLL_READ;
    } else {
        if (events & UV_READABLE)
            bits |= CM_POLL_READ;
        if (events & UV_WRITABLE)
            bits |= CM_POLL_WRITE;
    }
    poll->cb(poll, poll->fd, bits);
}

// Whole seconds and the milliseconds of their fraction, each converted to a
// 32-bit integer (at most 68 years): converting a double to a 64-bit integer
// is a call into libgcc, which MIPS16 code cannot make through the PLT.
uint64_t cm_ms(double seconds)
{
    if (!(seconds > 0))
        return 0;
    if (seconds > 2147483647.0)
        seconds = 2147483647.0;
    int32_t whole = (int32_t)seconds;
    int32_t ms = (int32_t)((seconds - whole) * 1000.0 + 0.5);
    return (uint64_t)whole * 1000 + (uint64_t)ms;
}

}  // namespace

uv_loop_t *cm_uv_loop()
{
    if (!s_loop)
        cm_init();
    return s_loop;
}

void cm_uv_close_free(uv_handle_t *h)
{
    h->data = nullptr;
    uv_close(h, cm_free_handle);
}

extern "C" {

void cm_init(void)
{
    if (!s_loop)
        s_loop = uv_default_loop();
}

void cm_run(void)
{
    uv_run(cm_loop(), UV_RUN_DEFAULT);
}

void cm_stop(void)
{
    uv_stop(cm_loop());
}

int cm_timer_start(struct cm_timer *timer, double seconds, cm_timer_cb cb)
{
    if (timer->impl)
        cm_timer_stop(timer);
    auto *h = cm_new_handle<uv_timer_t>();
    uv_timer_init(cm_loop(), h);
    h->data = timer;
    timer->impl = h;
    timer->cb = cb;
    uint64_t ms = cm_ms(seconds);
    // libuv counts from the time it cached at the top of the loop pass: a
    // timer is due `seconds` after this call, however long the pass has run.
    uv_update_time(cm_loop());
    return uv_timer_start(h, cm_timer_fire, ms, ms ? ms : 1) == 0 ? 0 : -1;
}

void cm_timer_stop(struct cm_timer *timer)
{
    auto *h = static_cast<uv_timer_t *>(timer->impl);
    if (!h)
        return;
    uv_timer_stop(h);
    cm_close(reinterpret_cast<uv_handle_t *>(h));
    timer->impl = nullptr;
}

int cm_timeout(double seconds, cm_timeout_cb cb, void *data)
{
    uint64_t ms = cm_ms(seconds);
    if (ms == 0)
        return cm_soon_add(cb, data);
    auto *rec = cm_new_handle<cm_timeout_rec>();
    uv_timer_init(cm_loop(), &rec->handle);
    rec->cb = cb;
    rec->data = data;
    uv_update_time(cm_loop());
    return uv_timer_start(&rec->handle, cm_timeout_fire, ms, 0) == 0 ? 0 : -1;
}

int cm_poll_start(struct cm_poll *poll, int fd, int events, cm_poll_cb cb)
{
    if (poll->impl)
        cm_poll_stop(poll);
    auto *h = cm_new_handle<uv_poll_t>();
    if (uv_poll_init(cm_loop(), h, fd) != 0) {
        free(h);
        return -1;
    }
    h->data = poll;
    poll->impl = h;
    poll->cb = cb;
    poll->fd = fd;
    int uv_events = 0;
    if (events & CM_POLL_READ)
        uv_events |= UV_READABLE;
    if (events & CM_POLL_WRITE)
        uv_events |= UV_WRITABLE;
    return uv_poll_start(h, uv_events, cm_poll_fire) == 0 ? 0 : -1;
}

void cm_poll_stop(struct cm_poll *poll)
{
    auto *h = static_cast<uv_poll_t *>(poll->impl);
    if (!h)
        return;
    uv_poll_stop(h);
    cm_close(reinterpret_cast<uv_handle_t *>(h));
    poll->impl = nullptr;
}

void cm_abort(const char *msg)
{
    fprintf(stderr, "%s\n", msg);
    abort();
}

}  // extern "C"
