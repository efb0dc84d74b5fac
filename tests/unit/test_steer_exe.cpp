#include <gtest/gtest.h>

#include "steer.h"
#include "steer_exe.h"
#include "test_util.h"

namespace {

TEST(Sexe, CommandMustFitIn511CharactersAndExitZeroWithoutASignal)
{
    std::string fits = "true" + std::string(507, ' '), too_long = fits + " ";
    log_capture log;
    char out[10];
    EXPECT_EQ(sexe_no_out("%s", fits.c_str()), 0);
    EXPECT_EQ(sexe_output(out, sizeof(out), "%s", fits.c_str()), 0);
    EXPECT_EQ(sexe_no_out("exit %d", 0), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(sexe_no_out("%s", too_long.c_str()), -1);
    EXPECT_EQ(sexe_output(out, sizeof(out), "%s", too_long.c_str()), -1);
    EXPECT_EQ(sexe_no_out("exit %d", 3), -1);
    EXPECT_EQ(sexe_no_out("kill -9 $$"), -1);  // the exit code byte stays 0, the signal does not
    // Each runner says so under its own name.
    EXPECT_EQ(log.plain(), "error sexe_no_out, command too long(>511), fmt '%s'\n"
                           "error sexe_output, command too long(>511), fmt '%s'\n"
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
    EXPECT_EQ(log.plain(), "error sexe_output, command output is too long(>9), cmd: 'printf 123456789'\n"
                           "error sexe_output, the exit code of command 'echo half; exit 2' is not 0, output "
                           "'half\n'\n");
}

}  // namespace
