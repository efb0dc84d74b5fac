// Logging: one line per call, per-module levels, an optional time prefix,
// colours on terminals, a size-bounded log file and the steering log.
#ifndef STEER_LOG_H
#define STEER_LOG_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>

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
// under `func` and `line`; returns true.
bool slog_refuse(int level, const char *func, int line, const char *expr);

#endif
