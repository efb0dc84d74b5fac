#include <gtest/gtest.h>

#include "steer.h"
#include "steer_exe.h"
#include "test_util.h"

namespace {

// "true" padded with blanks to `len` characters.
std::string command_of_length(size_t len)
{
    std::string cmd = "true";
    cmd.resize(len, ' ');
    return cmd;
}

TEST(Sexe, CommandMustFitIn511Characters)
{
    log_capture log;
    char out[8];
    EXPECT_EQ(sexe_no_out("%s", command_of_length(511).c_str()), 0);
    EXPECT_EQ(sexe_output(out, sizeof(out), "%s", command_of_length(511).c_str()), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(sexe_no_out("%s", command_of_length(512).c_str()), -1);
    EXPECT_EQ(sexe_output(out, sizeof(out), "%s", command_of_length(512).c_str()), -1);
    EXPECT_EQ(log.plain(), "error sexe_format, command too long(>511), fmt '%s'\n"
                           "error sexe_format, command too long(>511), fmt '%s'\n");
}

TEST(Sexe, NoOutputSuccessNeedsExitZeroAndNoSignal)
{
    log_capture log;
    slog_set_level("other", SLOG_DUMP);
    EXPECT_EQ(sexe_no_out("exit %d", 0), 0);
    EXPECT_EQ(sexe_no_out("exit %d", 3), -1);
    // The shell itself is killed: the exit code byte stays 0, the signal does not.
    EXPECT_EQ(sexe_no_out("kill -9 $$"), -1);
    slog_set_level("other", SLOG_INFO);
    EXPECT_EQ(log.plain(), "dump sexe_no_out, cmd: 'exit 0'\n"
                           "error sexe_no_out, run command 'exit 3' failed\n"
                           "error sexe_no_out, run command 'kill -9 $$' failed\n");
}

TEST(Sexe, OutputMustFitAndTheCommandExitZero)
{
    log_capture log;
    char out[10];
    EXPECT_EQ(sexe_output(out, sizeof(out), "printf %s", "12345678"), 8);
    EXPECT_STREQ(out, "12345678");
    EXPECT_EQ(sexe_output(out, sizeof(out), "printf %s", "123456789"), -1);
    EXPECT_EQ(sexe_output(out, sizeof(out), "echo half; exit 2"), -1);
    EXPECT_EQ(sexe_output(out, sizeof(out), "true"), 0);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(log.plain(), "error sexe_output, command output is too long(>9), cmd: 'printf 123456789'\n"
                           "error sexe_output, the exit code of command 'echo half; exit 2' is not 0, output 'half\n'\n");
}

}  // namespace
