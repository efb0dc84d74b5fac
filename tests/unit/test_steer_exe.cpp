#include <gtest/gtest.h>

#include <regex>

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

TEST(SexeNoOut, CommandMustFitIn511Characters)
{
    log_capture log;
    EXPECT_EQ(sexe_no_out("%s", command_of_length(511).c_str()), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(sexe_no_out("%s", command_of_length(512).c_str()), -1);
    std::regex line("error sexe_no_out:[0-9]+, command too long\\(>511\\), fmt '%s'\n");
    EXPECT_TRUE(std::regex_match(log.text(), line)) << log.text();
}

TEST(SexeNoOut, SuccessNeedsExitZeroAndNoSignal)
{
    log_capture log;
    slog_set_level("other", SLOG_DUMP);
    EXPECT_EQ(sexe_no_out("exit %d", 0), 0);
    EXPECT_EQ(sexe_no_out("exit %d", 3), -1);
    // The shell itself is killed: the exit code byte stays 0, the signal does not.
    EXPECT_EQ(sexe_no_out("kill -9 $$"), -1);
    slog_set_level("other", SLOG_INFO);
    std::regex lines("dump sexe_no_out:[0-9]+, cmd: 'exit 0'\n"
                     "error sexe_no_out:[0-9]+, run command 'exit 3' failed\n"
                     "error sexe_no_out:[0-9]+, run command 'kill -9 \\$\\$' failed\n");
    EXPECT_TRUE(std::regex_match(log.text(), lines)) << log.text();
}

TEST(SexeOutput, OutputMustFitBeforeEndOfFile)
{
    log_capture log;
    char out[10];
    EXPECT_EQ(sexe_output(out, sizeof(out), "printf %s", "12345678"), 8);
    EXPECT_STREQ(out, "12345678");
    EXPECT_EQ(sexe_output(out, sizeof(out), "printf %s", "123456789"), -1);
    EXPECT_EQ(sexe_output(out, sizeof(out), "printf %s", "1234567890123"), -1);
    std::regex lines("(error sexe_output:[0-9]+, command output is too long\\(>9\\), cmd: 'printf [0-9]+'\n){2}");
    EXPECT_TRUE(std::regex_match(log.text(), lines)) << log.text();
}

TEST(SexeOutput, NonZeroExitFailsWithItsOutput)
{
    log_capture log;
    char out[64];
    EXPECT_EQ(sexe_output(out, sizeof(out), "echo half; exit 2"), -1);
    std::regex line("error sexe_output:[0-9]+, the exit code of command 'echo half; exit 2' is not 0, output 'half\n'\n");
    EXPECT_TRUE(std::regex_match(log.text(), line)) << log.text();
    EXPECT_EQ(sexe_output(out, sizeof(out), "true"), 0);
    EXPECT_STREQ(out, "");
}

TEST(SexeOutput, CommandLengthLimitAppliesToo)
{
    log_capture log;
    char out[8];
    EXPECT_EQ(sexe_output(out, sizeof(out), "%s", command_of_length(512).c_str()), -1);
    EXPECT_NE(log.text().find("command too long(>511)"), std::string::npos);
}

TEST(SexeAsserts, NullArgumentsAbort)
{
    char out[4];
    const char *no_fmt = nullptr;
    EXPECT_DEATH(sexe_no_out(no_fmt), "'cmd_fmt' is not satisfied");
    EXPECT_DEATH(sexe_output(nullptr, 4, "true"), "'output' is not satisfied");
    EXPECT_DEATH(sexe_output(out, 0, "true"), "'output_size' is not satisfied");
    EXPECT_DEATH(sexe_output(out, 4, no_fmt), "'cmd_fmt' is not satisfied");
}

}  // namespace
