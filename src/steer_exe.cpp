#include "steer_exe.h"

#include <sys/wait.h>

#include <cstdarg>

#include "steer.h"

namespace {

constexpr int SEXE_CMD_SIZE = 512;

// Formats the command; false when it does not fit (the caller says so, under its own name).
bool sexe_format(char *cmd, const char *cmd_fmt, va_list ap)
{
    int n = vsnprintf(cmd, SEXE_CMD_SIZE, cmd_fmt, ap);
    return n >= 0 && n < SEXE_CMD_SIZE;
}

#define SEXE_FORMAT(cmd, cmd_fmt)                                                               \
    do {                                                                                        \
        va_list ap;                                                                             \
        va_start(ap, cmd_fmt);                                                                  \
        bool fits = sexe_format(cmd, cmd_fmt, ap);                                              \
        va_end(ap);                                                                             \
        if (!fits) {                                                                            \
            LOG_ERROR("%s:%d, command too long(>%d), fmt '%s'", SEXE_CMD_SIZE - 1, cmd_fmt);     \
            return -1;                                                                          \
        }                                                                                       \
    } while (0)

}  // namespace

int sexe_no_out(const char *cmd_fmt, ...)
{
    SASSERT(cmd_fmt);

    char cmd[SEXE_CMD_SIZE];
    SEXE_FORMAT(cmd, cmd_fmt);

    int status = system(cmd);
    if (status == -1 || ((status >> 8) & 0xff) != 0 || (status & 0x7f) != 0) {
        LOG_ERROR("%s:%d, run command '%s' failed", cmd);
        return -1;
    }
    LOG_DUMP("%s:%d, cmd: '%s'", cmd);
    return 0;
}

int sexe_output(char *output, size_t output_size, const char *cmd_fmt, ...)
{
    SASSERT(output);
    SASSERT(output_size);
    SASSERT(cmd_fmt);

    char cmd[SEXE_CMD_SIZE];
    SEXE_FORMAT(cmd, cmd_fmt);

    FILE *fp = popen(cmd, "r");
    if (!fp) {
        LOG_ERROR("%s:%d, run command '%s' failed", cmd);
        return -1;
    }

    size_t total = 0;
    while (total < output_size - 1) {
        size_t n = fread(output + total, 1, output_size - 1 - total, fp);
        total += n;
        if (ferror(fp) || (n == 0 && !feof(fp))) {
            LOG_ERROR("%s:%d, read output failed, cmd: '%s'", cmd);
            pclose(fp);
            return -1;
        }
        if (feof(fp)) {
            output[total] = '\0';
            int status = pclose(fp);
            if (status != 0) {
                LOG_ERROR("%s:%d, the exit code of command '%s' is not 0, output '%s'", cmd, output);
                return -1;
            }
            LOG_DUMP("%s:%d, cmd '%s', output '%s'", cmd, output);
            return (int)total;
        }
    }

    output[total] = '\0';
    LOG_ERROR("%s:%d, command output is too long(>%d), cmd: '%s'", (int)(output_size - 1), cmd);
    pclose(fp);
    return -1;
}
