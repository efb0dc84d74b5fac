// The operator's command channel: one command line per write into a FIFO,
// the answer on a second FIFO (or standard output when nobody reads it), and
// the command's return code in a file.
#ifndef STEER_CMD_H
#define STEER_CMD_H

#include <cstdint>
#include <cstdio>

#include "steer_sta.h"

#define SCMD_INPUT "/var/run/steer_cmd_input"
#define SCMD_OUTPUT "/var/run/steer_cmd_output"
#define SCMD_RET "/var/run/steer_cmd_ret"

void scmd_init();
void scmd_exit();
int scmd_help(FILE *f);
// 0, or -1 with an error line on `f`.
int scmd_str_to_mac(FILE *f, const char *s, uint8_t *mac);
// Station iterator callback of "sta"; `arg` is the command's output.
bool scmd_print_sta(ssta_status_t *sta, void *arg);
// Runs one command line (at most 126 bytes) with its output on `f`; the return code.
int scmd_execute(FILE *f, char *line);

#endif
