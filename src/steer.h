// What every module of the daemon uses: the assertion, the guarded log call,
// the cached clock, MAC address helpers and an intrusive list.
#ifndef STEER_H
#define STEER_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "steer_log.h"

// ---------------------------------------------------------------------------
// Assertion: a broken precondition prints the one assertion message of the
// daemon on standard error and aborts (the SIGABRT path of the exit handler).
#define STEER_ASSERT_FMT "\033[0;31mbandherd: Assertion failed, '%s' is not satisfied!!!\n   at %s:%d %s\033[0m\n"

#define SASSERT(expr)                                                                \
    do {                                                                             \
        if (!(expr))                                                                 \
            steer_assert_fail(SLOG_PACKED(#expr), __FILE_NAME__, __LINE__, __func__); \
    } while (0)

// Prints the assertion message (STEER_ASSERT_FMT) with the packed expression
// `expr` and aborts; one call per assertion instead of the printing at every
// site.
[[noreturn]] void steer_assert_fail(const char *expr, const char *file, int line, const char *func);

// The string literal `lit` packed (steer_log.h), as a pointer to constant storage.
#define SLOG_PACKED(lit)                                                                   \
    ([] {                                                                                  \
        static_assert(slog_text_fits(lit), "texts pack: no code bytes, shorter than SLOG_TEXT_MAX"); \
        constexpr auto packing = slog_pack(lit);                                           \
        static constexpr auto packed = slog_cut<packing.size>(packing);                    \
        return packed.text;                                                                \
    }())

// ---------------------------------------------------------------------------
// A function that calls the C library's floating-point functions (pow,
// strtod) or converts a double to an unsigned or 64-bit integer (a call into
// libgcc). In the MIPS16 build it is compiled in the standard encoding: MIPS16
// code keeps doubles in integer registers and reaches such functions through
// the PLT only by call stubs, which the linker drops (GCC 12, binutils 2.40).
// Called with integers and pointers alone, such a function needs none.
#if defined(__mips__)
#define STEER_FLOAT_CALLS __attribute__((nomips16))
#else
#define STEER_FLOAT_CALLS
#endif

// ---------------------------------------------------------------------------
// Per-module log level. Every source file gets its own pair: the level a module
// registers under its short name, and the pointer the call sites test, which
// points at the global level until the module registers.
[[maybe_unused]] static int _s_logger = SLOG_INFO;
[[maybe_unused]] static int *_s_plogger = &g_logger;

// Gives this source file a level of its own, listed and set under `name`.
#define SLOG_REGISTER(name)                          \
    do {                                             \
        _s_plogger = &_s_logger;                     \
        slog_register_logger(&_s_logger, (name));    \
    } while (0)

// Every log format starts with the function name and the line.
constexpr char SLOG_PREFIX[] = "%s:%d, ";
constexpr size_t SLOG_PREFIX_LEN = sizeof(SLOG_PREFIX) - 1;
constexpr bool slog_fmt_has_prefix(const char *fmt)
{
    for (size_t i = 0; i < SLOG_PREFIX_LEN; i++) {
        if (fmt[i] != SLOG_PREFIX[i])
            return false;
    }
    return true;
}

// The call site's record (slog_site_t) and the call. The compiler checks the
// arguments against the whole format; the record keeps the level, the line
// and the rest of the format, packed.
#define SLOG_CALL(level, fmt, ...)                                                                   \
    do {                                                                                             \
        static_assert(slog_fmt_has_prefix(fmt), "log formats begin with %s:%d, ");                  \
        static_assert(slog_text_fits(fmt), "log formats pack: no code bytes, shorter than SLOG_TEXT_MAX");   \
        static_assert(slog_fmt_known(fmt), "log formats use the conversions slog_fmt_known lists");  \
        static_assert(__LINE__ <= UINT16_MAX, "a log call's line fits its record");                 \
        (void)sizeof(slog_format_check(fmt, __func__, __LINE__, ##__VA_ARGS__));                    \
        constexpr auto slog_packing_ = slog_pack(fmt, SLOG_PREFIX_LEN);                              \
        static constexpr auto slog_site_ = slog_make_site<slog_packing_.size>((level), __LINE__, slog_packing_); \
        slog_site_log(__func__, &slog_site_.site, ##__VA_ARGS__);                                    \
    } while (0)

// The guarded call site: the level test is one comparison, made before any
// argument is formatted.
#define SLOG(level, fmt, ...)                         \
    do {                                              \
        if (*_s_plogger >= (level))                   \
            SLOG_CALL((level), fmt, ##__VA_ARGS__);   \
    } while (0)

// fprintf to `f` with a literal format, which is stored packed: the output
// of the operator's commands.
#define SPRINTF(f, fmt, ...)                                                                                 \
    ((void)sizeof(slog_format_check(fmt, ##__VA_ARGS__)),                                                   \
     [] { static_assert(slog_fmt_known(fmt), "output formats use the conversions slog_fmt_known lists"); }(), \
     slog_fprintf((f), SLOG_PACKED(fmt), ##__VA_ARGS__))

#define LOG_FATAL(fmt, ...) SLOG(SLOG_FATAL, fmt, ##__VA_ARGS__)
#define LOG_ERROR(fmt, ...) SLOG(SLOG_ERROR, fmt, ##__VA_ARGS__)
#define LOG_WARN(fmt, ...) SLOG(SLOG_WARNING, fmt, ##__VA_ARGS__)
#define LOG_INFO(fmt, ...) SLOG(SLOG_INFO, fmt, ##__VA_ARGS__)
#define LOG_DEBUG(fmt, ...) SLOG(SLOG_DEBUG, fmt, ##__VA_ARGS__)
#define LOG_DUMP(fmt, ...) SLOG(SLOG_DUMP, fmt, ##__VA_ARGS__)
// A steering record is written whatever the module's level: no level can be
// set to steer, and the steering log is the trace of every decision.
#define LOG_STEER(fmt, ...) SLOG_CALL(SLOG_STEER, fmt, ##__VA_ARGS__)

// Input from the driver, the mesh or the operator that breaks a state the code
// relies on. Such input must never abort the daemon: the broken condition is
// logged at ERROR in the assertion's words and the caller drops the input.
// True when the input is to be dropped:  if (SREFUSE(size)) return;
#define SREFUSE(expr) (!(expr) && slog_refuse(*_s_plogger, __func__, __LINE__, SLOG_PACKED(#expr)))

// ---------------------------------------------------------------------------
// The daemon's clock: whole seconds of the monotonic clock, refreshed every
// second by the event loop. Steering decisions read nothing else.
extern unsigned long g_time;

// ---------------------------------------------------------------------------
// MAC addresses: six bytes.
constexpr size_t MAC_LEN = 6;

// "xx:xx:xx:xx:xx:xx" (lower-case hex) of `m`: mac_text(m).s with "%s", in a
// temporary that lives until the end of the full expression, i.e. the
// printf-family call it is an argument of.
struct mac_text_t {
    char s[MAC_LEN * 3];
};
mac_text_t mac_text(const uint8_t *m);
// In the formats of the log (LOG_*) and of SPRINTF only: MAC_FMT with
// MAC_ARG(m) prints the same text, which the log writes from the address
// itself ("%p"), so the call site passes nothing but the pointer.
#define MAC_FMT "%p"
#define MAC_ARG(m) (static_cast<const uint8_t *>(m))
#define MAC_SCAN_FMT "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx"
#define MAC_SCAN_ARG(m) &(m)[0], &(m)[1], &(m)[2], &(m)[3], &(m)[4], &(m)[5]

constexpr uint8_t MAC_BCAST[MAC_LEN] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

inline bool mac_equal(const uint8_t *a, const uint8_t *b)
{
    return memcmp(a, b, MAC_LEN) == 0;
}

inline bool mac_is_zero(const uint8_t *m)
{
    static const uint8_t zero[MAC_LEN] = {};
    return memcmp(m, zero, MAC_LEN) == 0;
}

inline bool mac_is_bcast(const uint8_t *m)
{
    return mac_equal(m, MAC_BCAST);
}

inline void mac_copy(uint8_t *dst, const uint8_t *src)
{
    memcpy(dst, src, MAC_LEN);
}

// Parses "xx:xx:xx:xx:xx:xx" into `mac`; returns 0, or -1 when fewer than six
// fields scan, leaving `mac` as it was.
inline int mac_scan(const char *text, uint8_t *mac)
{
    uint8_t tmp[MAC_LEN];
    if (sscanf(text, MAC_SCAN_FMT, MAC_SCAN_ARG(tmp)) != 6)
        return -1;
    mac_copy(mac, tmp);
    return 0;
}

// ---------------------------------------------------------------------------
// Intrusive doubly linked list: a record carries a `slist_link` member and a
// list of such records is `SLIST(type, member)`. The link is a plain pair of
// pointers, so records stay plain data (calloc, memset, static storage). New entries go to the head,
// so iteration sees the newest first. Iterating is safe against removing the
// current entry.
struct slist_link {
    slist_link *next;
    slist_link *prev;

    bool linked() const { return next != nullptr; }
};

template <typename T, size_t Off>
class slist {
public:
    slist() : head_{&head_, &head_} {}
    slist(const slist &) = delete;
    slist &operator=(const slist &) = delete;

    static T *entry(slist_link *l) { return reinterpret_cast<T *>(reinterpret_cast<char *>(l) - Off); }
    static slist_link *link(T *t) { return reinterpret_cast<slist_link *>(reinterpret_cast<char *>(t) + Off); }

    void add_head(T *t)
    {
        slist_link *l = link(t);
        l->next = head_.next;
        l->prev = &head_;
        head_.next->prev = l;
        head_.next = l;
    }

    // For the few lists that keep arrival order.
    void add_tail(T *t)
    {
        slist_link *l = link(t);
        l->prev = head_.prev;
        l->next = &head_;
        head_.prev->next = l;
        head_.prev = l;
    }

    static void del(T *t)
    {
        slist_link *l = link(t);
        if (!l->linked())
            return;
        l->prev->next = l->next;
        l->next->prev = l->prev;
        l->next = l->prev = nullptr;
    }

    bool empty() const { return head_.next == &head_; }

    size_t size() const
    {
        size_t n = 0;
        for (const slist_link *l = head_.next; l != &head_; l = l->next)
            n++;
        return n;
    }

    T *first() { return empty() ? nullptr : entry(head_.next); }
    // The entry after `t`, or null at the end.
    T *next(T *t) { return link(t)->next == &head_ ? nullptr : entry(link(t)->next); }

    class iterator {
    public:
        iterator(slist_link *cur, slist_link *head) : cur_(cur), next_(cur->next), head_(head) {}
        T *operator*() const { return entry(cur_); }
        iterator &operator++()
        {
            cur_ = next_;
            next_ = cur_ == head_ ? cur_ : cur_->next;
            return *this;
        }
        bool operator!=(const iterator &o) const { return cur_ != o.cur_; }

    private:
        slist_link *cur_, *next_, *head_;
    };

    iterator begin() { return iterator(head_.next, &head_); }
    iterator end() { return iterator(&head_, &head_); }

private:
    slist_link head_;
};

#define SLIST(type, member) slist<type, offsetof(type, member)>

#endif
