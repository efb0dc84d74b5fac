#include "steer_log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "steer.h"

int g_logger = SLOG_INFO;

namespace {

struct slog_reg {
    slist_link list;
    int *plogger;
    const char *name;  // a literal that lives for the whole run
};

constexpr const char *STEER_LOG_FILE = "/var/run/steer.log";
constexpr off_t SLOG_FILE_MAX = 104857600;  // the steering log starts afresh past 100 MiB
constexpr size_t SLOG_COPY_BLOCK = 65536;

const char *const s_level_names[] = {"silence", "fatal", "error", "warning", "info", "debug", "dump", "steer"};

SLIST(slog_reg, list) s_loggers;

FILE *s_output;
char s_output_path[4096];
bool s_output_is_file;
bool s_output_is_tty;
bool s_print_time = true;
size_t s_max_log;

void slog_use_stdout()
{
    s_output = stdout;
    s_output_is_file = false;
    s_output_is_tty = isatty(fileno(stdout));
    s_output_path[0] = '\0';
}

// The wall clock's seconds (time(), by the call the daemon makes anyway).
time_t slog_wall_time()
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts.tv_sec;
}

void slog_print_time(FILE *f)
{
    char buf[64];
    time_t now = slog_wall_time();
    struct tm tm;

    if (!localtime_r(&now, &tm))
        return;
    size_t n = strftime(buf, sizeof(buf), "%s %m/%d %H:%M:%S ", &tm);
    fwrite(buf, 1, n, f);
}

// Cuts a log file that grew past s_max_log to its newest s_max_log / 2 bytes,
// keeping its name. Any failure leaves the log as it was.
void slog_check_rotate()
{
    struct stat st;

    if (!s_output || s_output == stdout || s_max_log == 0)
        return;
    if (stat(s_output_path, &st) != 0 || (size_t)st.st_size <= s_max_log || !S_ISREG(st.st_mode))
        return;

    fflush(s_output);
    char tmp[4104];
    snprintf(tmp, sizeof(tmp), "%s_%ld", s_output_path, (long)slog_wall_time());

    FILE *in = fopen(s_output_path, "r");
    if (!in) {
        unlink(tmp);
        return;
    }
    FILE *out = fopen(tmp, "w+");
    if (!out || fseek(in, (long)(st.st_size - (off_t)(s_max_log / 2)), SEEK_SET) != 0) {
        if (out)
            fclose(out);
        fclose(in);
        unlink(tmp);
        return;
    }

    char block[SLOG_COPY_BLOCK];
    size_t n;
    while ((n = fread(block, 1, sizeof(block), in)) > 0) {
        if (fwrite(block, 1, n, out) != n) {
            fclose(out);
            fclose(in);
            unlink(tmp);
            return;
        }
    }

    fclose(s_output);
    fclose(in);
    fclose(out);
    unlink(s_output_path);
    rename(tmp, s_output_path);
    s_output = fopen(s_output_path, "a+");
    if (s_output) {
        setvbuf(s_output, nullptr, _IOLBF, 0);
    } else {
        slog_use_stdout();
        setvbuf(s_output, nullptr, _IOLBF, 0);
    }
    unlink(tmp);
}

}  // namespace

const char *slog_get_level_name(int level)
{
    if (level < SLOG_SILENCE || level > SLOG_STEER)
        return "illegal";
    return s_level_names[level];
}

namespace {

int slog_file_at(const char *file, const char *func, int line, const char *fmt, va_list ap);

// vfprintf of the formats slog_fmt_known accepts, with "%p" printing the MAC
// address its argument points at. Each conversion is printf's own, with the
// argument its length asks for.
void slog_vprint(FILE *f, const char *fmt, va_list ap)
{
    for (;;) {
        const char *pct = strchr(fmt, '%');
        size_t lit = pct ? (size_t)(pct - fmt) : strlen(fmt);
        fwrite(fmt, 1, lit, f);
        if (!pct || pct[1] == '\0')
            return;
        char directive[16] = "%";
        size_t n = 1;
        for (fmt = pct + 1; *fmt != '\0' && strchr("-+ #0123456789.hlz", *fmt) && n < sizeof(directive) - 2; fmt++)
            directive[n++] = *fmt;
        char conv = *fmt++;
        if (conv == '\0')
            return;
        directive[n] = conv == 'p' ? 's' : conv;
        switch (conv) {
        case '%':
            fputc('%', f);
            break;
        case 's':
            fprintf(f, directive, va_arg(ap, const char *));
            break;
        case 'p': {
            const auto *mac = va_arg(ap, const uint8_t *);
            fprintf(f, directive, mac ? mac_text(mac).s : "(null)");
            break;
        }
        default:
            if (strchr(directive, 'z'))
                fprintf(f, directive, va_arg(ap, size_t));
            else if (strstr(directive, "ll"))
                fprintf(f, directive, va_arg(ap, long long));
            else if (strchr(directive, 'l'))
                fprintf(f, directive, va_arg(ap, long));
            else
                fprintf(f, directive, va_arg(ap, int));
            break;
        }
    }
}

// A line of `level`: `fmt` with `ap`, after "<func>:<line>, " when `func` is
// given (the prefix of a call site's format).
void slog_vlog(int level, const char *func, int line, const char *fmt, va_list ap)
{
    SASSERT(fmt);

    if (!s_output)
        slog_use_stdout();
    else if (s_output_is_file)
        slog_check_rotate();

    bool coloured = s_output_is_tty && level < SLOG_INFO;
    if (s_output_is_tty) {
        if (coloured)
            fwrite(level < SLOG_WARNING ? "\033[31m" : "\033[33m", 1, 5, s_output);
        fwrite("bandherd: ", 1, 10, s_output);
    }
    if (s_print_time)
        slog_print_time(s_output);
    fprintf(s_output, "%s ", slog_get_level_name(level));

    if (level == SLOG_STEER) {
        // The record goes to the steering log; the prefix stays on the output
        // and the next line continues it.
        slog_file_at(STEER_LOG_FILE, func, line, fmt, ap);
        return;
    }
    if (func)
        fprintf(s_output, SLOG_PREFIX, func, line);
    slog_vprint(s_output, fmt, ap);

    if (coloured)
        fwrite("\033[0m", 1, 4, s_output);
    size_t len = strlen(fmt);
    if (len > 0 && fmt[len - 1] == '\n') {
        if (coloured)
            fflush(s_output);
    } else {
        fputc('\n', s_output);
    }
}

}  // namespace

void slog_log(int level, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    slog_vlog(level, nullptr, 0, fmt, ap);
    va_end(ap);
}

void slog_site_log(const char *func, const slog_site_t *site, ...)
{
    SASSERT(site);
    char fmt[SLOG_TEXT_MAX];
    slog_unpack(reinterpret_cast<const char *>(site + 1), fmt);
    va_list ap;
    va_start(ap, site);
    slog_vlog(site->level, func, site->line[0] | site->line[1] << 8, fmt, ap);
    va_end(ap);
}

void slog_fprintf(FILE *f, const char *packed_fmt, ...)
{
    char fmt[SLOG_TEXT_MAX];
    slog_unpack(packed_fmt, fmt);
    va_list ap;
    va_start(ap, packed_fmt);
    slog_vprint(f, fmt, ap);
    va_end(ap);
}

bool slog_refuse(int level, const char *func, int line, const char *expr)
{
    if (level >= SLOG_ERROR) {
        char text[SLOG_TEXT_MAX];
        slog_unpack(expr, text);
        slog_log(SLOG_ERROR, "%s:%d, '%s' is not satisfied", func, line, text);
    }
    return true;
}

void slog_register_logger(int *plogger, const char *name)
{
    SASSERT(plogger);
    SASSERT(name);
    SASSERT(plogger != &g_logger);

    *plogger = g_logger;
    // A module started again keeps its one entry.
    for (slog_reg *reg : s_loggers) {
        if (reg->plogger == plogger) {
            reg->name = name;
            return;
        }
    }
    auto *reg = static_cast<slog_reg *>(malloc(sizeof(slog_reg)));
    if (!reg)
        return;
    reg->plogger = plogger;
    reg->name = name;
    reg->list = slist_link{};
    s_loggers.add_head(reg);
}

int slog_set_level(const char *name, int level)
{
    if (level < SLOG_SILENCE || level > SLOG_DUMP)
        return -1;

    bool set = false;
    if (!name || strcmp(name, "other") == 0) {
        g_logger = level;
        set = true;
    }
    for (slog_reg *reg : s_loggers) {
        if (!name || strcmp(reg->name, name) == 0) {
            *reg->plogger = level;
            set = true;
        }
    }
    return set ? 0 : -1;
}

void slog_print_levels(FILE *f)
{
    SASSERT(f);
    for (slog_reg *reg : s_loggers)
        fprintf(f, "%s: %s\n", reg->name, slog_get_level_name(*reg->plogger));
    fprintf(f, "other: %s\n", slog_get_level_name(g_logger));
}

int slog_set_size(size_t log_size)
{
    s_max_log = log_size;
    return 0;
}

int slog_set_print_time(bool print_time)
{
    s_print_time = print_time;
    return 0;
}

int slog_set_path(const char *path)
{
    if (!path || strcmp(path, "stdout") == 0) {
        if (s_output != stdout) {
            if (s_output)
                fclose(s_output);
            slog_use_stdout();
        }
        setvbuf(s_output, nullptr, _IOLBF, 0);
        return 0;
    }

    FILE *f = fopen(path, "a+");
    if (!f)
        return -1;
    struct stat st;
    if (fstat(fileno(f), &st) != 0) {
        fclose(f);
        return -1;
    }
    if (s_output && s_output != stdout)
        fclose(s_output);
    s_output = f;
    s_output_is_file = S_ISREG(st.st_mode);
    s_output_is_tty = isatty(fileno(f));
    snprintf(s_output_path, sizeof(s_output_path), "%s", path);
    setvbuf(s_output, nullptr, _IOLBF, 0);
    return 0;
}

int slog_file(const char *file, const char *fmt, va_list ap)
{
    return slog_file_at(file, nullptr, 0, fmt, ap);
}

namespace {

// slog_file, after "<func>:<line>, " when `func` is given.
int slog_file_at(const char *file, const char *func, int line, const char *fmt, va_list ap)
{
    // A va_list cannot be tested for null portably; the file and the format can.
    if (!file || !fmt)
        return -1;

    FILE *f;
    struct stat st;
    if (stat(file, &st) == 0) {
        f = fopen(file, st.st_size <= SLOG_FILE_MAX ? "a+" : "w+");
    } else if (errno != ENOENT) {
        fprintf(stdout, "%s(%d): stat fail\n", "slog_file", __LINE__);
        return -2;
    } else {
        f = fopen(file, "w+");
    }
    if (!f)
        return 0;

    slog_print_time(f);
    if (func)
        fprintf(f, SLOG_PREFIX, func, line);
    slog_vprint(f, fmt, ap);
    fclose(f);
    return 0;
}

}  // namespace
