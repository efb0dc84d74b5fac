// Logging: one line per call, per-module levels, an optional time prefix,
// colours on terminals, a size-bounded log file and the steering log.
#ifndef STEER_LOG_H
#define STEER_LOG_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <array>
#include <cstdio>
#include <iterator>

#include "steer_log_pairs.h"

enum {
    SLOG_SILENCE = 0,
    SLOG_FATAL = 1,
    SLOG_ERROR = 2,
    SLOG_WARNING = 3,
    SLOG_INFO = 4,
    SLOG_DEBUG = 5,
    SLOG_DUMP = 6,
    SLOG_STEER = 7,
};

// The level of every module without a logger of its own ("other").
extern int g_logger;

void slog_log(int level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// ---------------------------------------------------------------------------
// Packed texts. The log formats, assertion texts and command output formats
// of the call sites are stored packed, in about half their bytes: a code
// byte stands for the two bytes of its pair in slog_pairs (which may be codes
// again), any other byte is itself. The codes are 0x80 to 0xff for pairs 0 to
// 127, then the control bytes but tab, newline and escape, which no text
// holds, for the pairs from 128 on. A call site packs its text at compile
// time (slog_pack), the log unpacks it when it writes the line (slog_unpack).
//
// The longest text, unpacked, with its NUL.
constexpr size_t SLOG_TEXT_MAX = 1024;

// The pair the byte `c` stands for, or -1 when it is itself.
constexpr int slog_pair_index(unsigned char c)
{
    if (c >= 0x80)
        return c - 0x80;
    if (c == '\0' || c >= 0x20 || c == '\t' || c == '\n' || c == '\033')
        return -1;
    return 0x80 + c - 1 - (c > '\t') - (c > '\n') - (c > '\033');
}

// The code byte of pair `index`.
constexpr unsigned char slog_pair_code(size_t index)
{
    unsigned c = 0x80 + static_cast<unsigned>(index);
    if (index >= 0x80) {
        for (c = 1; slog_pair_index(static_cast<unsigned char>(c)) != static_cast<int>(index); c++) {
        }
    }
    return static_cast<unsigned char>(c);
}

// A text that packs: no code bytes, shorter than SLOG_TEXT_MAX.
constexpr bool slog_text_fits(const char *text)
{
    size_t n = 0;
    for (; text[n] != '\0'; n++) {
        if (slog_pair_index(static_cast<unsigned char>(text[n])) >= 0)
            return false;
    }
    return n < SLOG_TEXT_MAX;
}

// The pair of each two bytes, for packing: its index in slog_pairs, or
// SLOG_NO_PAIR.
constexpr uint8_t SLOG_NO_PAIR = 0xff;
static_assert(std::size(slog_pairs) < SLOG_NO_PAIR);
inline constexpr std::array<uint8_t, 256 * 256> slog_pair_of = [] {
    std::array<uint8_t, 256 * 256> of = {};
    for (auto &p : of)
        p = SLOG_NO_PAIR;
    for (size_t p = std::size(slog_pairs); p-- > 0;)
        of[slog_pairs[p][0] * 256 + slog_pairs[p][1]] = static_cast<uint8_t>(p);
    return of;
}();

// A text of N bytes (with its NUL) packed into its first `size` bytes (with
// the NUL).
template <size_t N>
struct slog_packing {
    unsigned char bytes[N];
    size_t size;
};

// Packs `text` (slog_text_fits) after its first `skip` bytes: as if each pair
// in turn replaced its occurrences from left to right. Pairs that do not
// occur change nothing, and replacing pair p makes no pair before p, so the
// first pair that occurs is replaced, again and again.
template <size_t N>
constexpr slog_packing<N> slog_pack(const char (&text)[N], size_t skip = 0)
{
    slog_packing<N> out = {};
    size_t n = 0;
    for (; text[skip + n] != '\0'; n++)
        out.bytes[n] = static_cast<unsigned char>(text[skip + n]);
    for (;;) {
        uint8_t first = SLOG_NO_PAIR;
        for (size_t i = 0; i + 1 < n; i++) {
            uint8_t p = slog_pair_of[out.bytes[i] * 256 + out.bytes[i + 1]];
            first = p < first ? p : first;
        }
        if (first == SLOG_NO_PAIR)
            break;
        unsigned char code = slog_pair_code(first);
        size_t j = 0;
        for (size_t i = 0; i < n; j++) {
            if (i + 1 < n && out.bytes[i] == slog_pairs[first][0] && out.bytes[i + 1] == slog_pairs[first][1]) {
                out.bytes[j] = code;
                i += 2;
            } else {
                out.bytes[j] = out.bytes[i++];
            }
        }
        n = j;
    }
    out.bytes[n] = '\0';
    out.size = n + 1;
    return out;
}

template <size_t N>
struct slog_packed {
    char text[N];
};

// The packed text of `packing`, cut to its size M.
template <size_t M, size_t N>
constexpr slog_packed<M> slog_cut(const slog_packing<N> &packing)
{
    slog_packed<M> p = {};
    for (size_t i = 0; i < M; i++)
        p.text[i] = static_cast<char>(packing.bytes[i]);
    return p;
}

// Writes what the packed byte `c` stands for at `out`; returns its end.
constexpr char *slog_unpack_byte(unsigned char c, char *out)
{
    for (int i; (i = slog_pair_index(c)) >= 0; c = slog_pairs[i][1])
        out = slog_unpack_byte(slog_pairs[i][0], out);
    *out = static_cast<char>(c);
    return out + 1;
}

// Unpacks the packed text `packed` into `out` (SLOG_TEXT_MAX bytes), with a NUL.
constexpr void slog_unpack(const char *packed, char *out)
{
    for (; *packed != '\0'; packed++)
        out = slog_unpack_byte(static_cast<unsigned char>(*packed), out);
    *out = '\0';
}

// A log call site's record: its level, its line (little-endian, two bytes:
// the record is bytes alone) and its format after the "%s:%d, " prefix,
// packed right behind it (slog_site_text). The function's name is passed
// with it: one name serves every call site of a function.
struct slog_site_t {
    uint8_t level;
    uint8_t line[2];
};

template <size_t N>
struct slog_site_text {
    slog_site_t site;
    slog_packed<N> fmt;
};

template <size_t M, size_t N>
constexpr slog_site_text<M> slog_make_site(int level, unsigned line, const slog_packing<N> &fmt)
{
    return {{static_cast<uint8_t>(level), {static_cast<uint8_t>(line), static_cast<uint8_t>(line >> 8)}},
            slog_cut<M>(fmt)};
}

// Logs the line of `site` in `func` (the function and line, then the format
// with the arguments), as slog_log would log the whole format.
void slog_site_log(const char *func, const slog_site_t *site, ...);
// fprintf with a packed format (SPRINTF).
void slog_fprintf(FILE *f, const char *packed_fmt, ...);
// A format the log prints (slog_vprint): each conversion is "%%", or
// "%[-+ #0][width][.precision][hh|h|l|ll|z]" and one of d i u x X o c s p,
// where "%p" prints the MAC address its argument points at.
constexpr bool slog_fmt_known(const char *fmt)
{
    auto in = [](char c, const char *set) {
        for (; *set != '\0'; set++) {
            if (*set == c)
                return true;
        }
        return false;
    };
    while (*fmt != '\0') {
        if (*fmt++ != '%')
            continue;
        if (*fmt == '%') {
            fmt++;
            continue;
        }
        while (in(*fmt, "-+ #0"))
            fmt++;
        while (in(*fmt, "0123456789."))
            fmt++;
        if (*fmt == 'h' || *fmt == 'l')
            fmt += fmt[1] == fmt[0] ? 2 : 1;
        else if (*fmt == 'z')
            fmt++;
        if (*fmt == '\0' || !in(*fmt, "diuxXocsp"))
            return false;
        fmt++;
    }
    return true;
}

// Never called: a call in an unevaluated operand makes the compiler check a
// call site's arguments against its format.
int slog_format_check(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Lists `plogger` under `name`, at the global level; registering it again
// keeps its one entry.
void slog_register_logger(int *plogger, const char *name);
int slog_set_level(const char *name, int level);
void slog_print_levels(FILE *f);
int slog_set_size(size_t log_size);
int slog_set_print_time(bool print_time);
int slog_set_path(const char *path);
int slog_file(const char *file, const char *fmt, va_list ap) __attribute__((format(printf, 2, 0)));
const char *slog_get_level_name(int level);
// Logs "'<expr>' is not satisfied" at ERROR (when `level` lets errors through)
// under `func` and `line`; `expr` is packed. Returns true.
bool slog_refuse(int level, const char *func, int line, const char *expr);

#endif
