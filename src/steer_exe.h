// Shell commands built from a format, with or without their output.
#ifndef STEER_EXE_H
#define STEER_EXE_H

#include <cstddef>

// 0 when the command ran and exited 0 without a signal, -1 otherwise.
int sexe_no_out(const char *cmd_fmt, ...) __attribute__((format(printf, 1, 2)));
// Captures at most output_size - 1 bytes of standard output; returns their
// count, or -1 (command failed, non-zero exit, or more output than fits).
int sexe_output(char *output, size_t output_size, const char *cmd_fmt, ...) __attribute__((format(printf, 3, 4)));

#endif
