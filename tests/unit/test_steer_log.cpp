#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <regex>

#include "steer.h"
#include "test_util.h"

namespace {

int s_formatted;

int counted(int v)
{
    s_formatted++;
    return v;
}

std::string levels_text()
{
    char *buf = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&buf, &len);
    slog_print_levels(f);
    fclose(f);
    std::string text(buf, len);
    free(buf);
    return text;
}

// Registrations live for the whole run, so each test registers its own names.
TEST(SlogLevels, RegisteredLoggersAreListedNewestFirstAndSetByName)
{
    static int first, second;
    g_logger = SLOG_INFO;
    slog_register_logger(&first, "lv_ap");
    slog_register_logger(&second, "lv_btm");
    EXPECT_EQ(first, SLOG_INFO);  // starts at the global level

    EXPECT_EQ(slog_set_level("lv_btm", SLOG_DEBUG), 0);
    EXPECT_EQ(second, SLOG_DEBUG);
    EXPECT_EQ(first, SLOG_INFO);
    EXPECT_EQ(g_logger, SLOG_INFO);

    std::string text = levels_text();
    EXPECT_EQ(text.rfind("lv_btm: debug\nlv_ap: info\n", 0), 0u) << text;
    EXPECT_TRUE(text.ends_with("other: info\n")) << text;
}

TEST(SlogLevels, OtherSetsTheGlobalLevelAndNullSetsEveryone)
{
    static int mod;
    g_logger = SLOG_INFO;
    slog_register_logger(&mod, "lv_other");

    EXPECT_EQ(slog_set_level("other", SLOG_ERROR), 0);
    EXPECT_EQ(g_logger, SLOG_ERROR);
    EXPECT_EQ(mod, SLOG_INFO);
    EXPECT_TRUE(levels_text().ends_with("other: error\n"));

    EXPECT_EQ(slog_set_level(nullptr, SLOG_DUMP), 0);
    EXPECT_EQ(g_logger, SLOG_DUMP);
    EXPECT_EQ(mod, SLOG_DUMP);

    // A new module starts at whatever the global level is now.
    static int late;
    slog_register_logger(&late, "lv_late");
    EXPECT_EQ(late, SLOG_DUMP);
    slog_set_level(nullptr, SLOG_INFO);
}

TEST(SlogLevels, SteerAndOutOfRangeLevelsAndUnknownNamesAreRefused)
{
    static int mod;
    slog_set_level(nullptr, SLOG_INFO);
    slog_register_logger(&mod, "lv_refuse");

    EXPECT_EQ(slog_set_level(nullptr, SLOG_STEER), -1);
    EXPECT_EQ(slog_set_level("lv_refuse", 7), -1);
    EXPECT_EQ(slog_set_level("lv_refuse", -1), -1);
    EXPECT_EQ(slog_set_level("no-such-module", SLOG_DEBUG), -1);
    EXPECT_EQ(g_logger, SLOG_INFO);
    EXPECT_EQ(mod, SLOG_INFO);

    EXPECT_STREQ(slog_get_level_name(SLOG_STEER), "steer");
    EXPECT_STREQ(slog_get_level_name(SLOG_SILENCE), "silence");
    EXPECT_STREQ(slog_get_level_name(8), "illegal");
    EXPECT_STREQ(slog_get_level_name(-1), "illegal");
}

TEST(SlogLevels, CallSiteTestsTheModuleLevelBeforeFormatting)
{
    SLOG_REGISTER("lv_callsite");
    log_capture log;
    ASSERT_EQ(slog_set_level("lv_callsite", SLOG_WARNING), 0);

    s_formatted = 0;
    LOG_INFO("%s:%d, quiet %d", counted(1));
    EXPECT_EQ(s_formatted, 0);
    EXPECT_EQ(log.text(), "");

    int line = __LINE__ + 1;
    LOG_WARN("%s:%d, loud %d", counted(2));
    EXPECT_EQ(s_formatted, 1);
    EXPECT_EQ(log.text(), "warning " + std::string(__func__) + ":" + std::to_string(line) + ", loud 2\n");

    // Other modules still follow the global level.
    EXPECT_EQ(g_logger, SLOG_INFO);
    slog_set_level("lv_callsite", SLOG_INFO);
}

TEST(SlogLevels, RegisteringTheGlobalLevelOrNullsAborts)
{
    EXPECT_DEATH(slog_register_logger(&g_logger, "x"), "Assertion failed, 'plogger != &g_logger' is not satisfied");
    EXPECT_DEATH(slog_register_logger(nullptr, "x"), "Assertion failed, 'plogger' is not satisfied");
    static int mod;
    EXPECT_DEATH(slog_register_logger(&mod, nullptr), "Assertion failed, 'name' is not satisfied");
    EXPECT_DEATH(slog_print_levels(nullptr), "'f' is not satisfied");
    const char *no_fmt = nullptr;
    EXPECT_DEATH(slog_log(SLOG_INFO, no_fmt), ".\\[0;31mbandherd: Assertion failed, 'fmt' is not satisfied!!!\n   at steer_log.cpp:[0-9]+ slog_log");
}

TEST(SlogOutput, NewlineIsAddedOnlyWhenTheFormatLacksOne)
{
    log_capture log;
    slog_log(SLOG_INFO, "a %s", "line");
    slog_log(SLOG_ERROR, "ends %s\n", "here");
    // The test is on the format: a newline from an argument does not count.
    slog_log(SLOG_DEBUG, "%s", "arg\n");
    slog_log(SLOG_DUMP, "%s", "");
    EXPECT_EQ(log.text(), "info a line\nerror ends here\ndebug arg\n\ndump \n");
}

TEST(SlogOutput, TimePrefixIsSwitchedByPrintTime)
{
    log_capture log(true);
    slog_log(SLOG_WARNING, "with time");
    slog_set_print_time(false);
    slog_log(SLOG_WARNING, "without");
    std::string text = log.text();
    std::regex expected("[0-9]+ [0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} warning with time\nwarning without\n");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

TEST(SlogOutput, TerminalGetsColourAndNameFileGetsNeither)
{
    int master, slave;
    char name[64];
    ASSERT_EQ(openpty(&master, &slave, name, nullptr, nullptr), 0);
    struct termios tio;
    tcgetattr(slave, &tio);
    cfmakeraw(&tio);
    tcsetattr(slave, TCSANOW, &tio);

    slog_set_print_time(false);
    ASSERT_EQ(slog_set_path(name), 0);
    slog_log(SLOG_WARNING, "careful");
    slog_log(SLOG_ERROR, "broken\n");
    slog_log(SLOG_INFO, "fine");
    slog_set_path("stdout");
    slog_set_print_time(true);

    std::string got;
    char buf[512];
    ssize_t n;
    while ((n = read(master, buf, sizeof(buf))) > 0) {
        got.append(buf, (size_t)n);
        if (got.ends_with("info fine\n"))
            break;
    }
    close(master);
    close(slave);
    EXPECT_EQ(got,
              "\033[33mbandherd: warning careful\033[0m\n"
              "\033[31mbandherd: error broken\n\033[0m"
              "bandherd: info fine\n");
}

TEST(SlogOutput, SetPathKeepsTheOutputWhenTheFileCannotBeOpened)
{
    log_capture log;
    EXPECT_EQ(slog_set_path("/nonexistent-dir/log"), -1);
    slog_log(SLOG_INFO, "still here");
    EXPECT_EQ(log.text(), "info still here\n");
}

TEST(SlogOutput, FileOverItsSizeIsCutToItsNewestHalfBeforeTheNextLine)
{
    temp_dir dir;
    std::string path = dir.file("big.log");
    std::string old;
    for (int i = 0; i < 1001; i++)
        old += (char)('a' + i % 26);
    write_file(path, old);

    slog_set_print_time(false);
    ASSERT_EQ(slog_set_path(path.c_str()), 0);
    slog_set_size(1000);
    slog_log(SLOG_INFO, "next");
    slog_log(SLOG_INFO, "again");  // 510 bytes now: under the size, no cut
    slog_set_size(0);
    slog_set_path("stdout");
    slog_set_print_time(true);

    EXPECT_EQ(read_file(path), old.substr(501) + "info next\ninfo again\n");
    // Nothing else is left in the directory: the temporary copy is gone.
    EXPECT_EQ(system(("test $(ls " + dir.path() + " | wc -l) -eq 1").c_str()), 0);
}

TEST(SlogOutput, FileAtItsSizeIsKept)
{
    temp_dir dir;
    std::string path = dir.file("full.log");
    write_file(path, std::string(1000, 'x'));
    slog_set_print_time(false);
    ASSERT_EQ(slog_set_path(path.c_str()), 0);
    slog_set_size(1000);
    slog_log(SLOG_INFO, "x");
    slog_set_size(0);
    slog_set_path("stdout");
    slog_set_print_time(true);
    EXPECT_EQ(read_file(path), std::string(1000, 'x') + "info x\n");
}

void steer_record_to_steering_log()
{
    temp_dir dir;
    std::string path = dir.file("main.log");
    slog_set_print_time(false);
    ASSERT_EQ(slog_set_path(path.c_str()), 0);
    slog_log(SLOG_STEER, "%s:%d, [steer trigger] %s\n", "fn", 7, "go");
    slog_log(SLOG_INFO, "after");
    // A module's steering record is written whatever its level: no level reaches it.
    slog_set_level(nullptr, SLOG_SILENCE);
    LOG_STEER("%s:%d, [steer result] %s\n", "done");
    slog_set_level(nullptr, SLOG_INFO);
    slog_set_path("stdout");

    // The main output keeps only the prefix, continued by the next line.
    EXPECT_EQ(read_file(path), "steer info after\nsteer ");
    // The steering log always carries the time prefix.
    std::string steer = read_file("/var/run/steer.log");
    std::regex expected("[0-9]+ [0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} fn:7, \\[steer trigger\\] go\n"
                        "[0-9]+ [0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} steer_record_to_steering_log:[0-9]+, "
                        "\\[steer result\\] done\n");
    EXPECT_TRUE(std::regex_match(steer, expected)) << steer;
}

TEST(SlogSteer, SteerRecordsGoToTheSteeringLog)
{
    EXPECT_SANDBOXED(SANDBOX_VAR, steer_record_to_steering_log);
}

std::string slog_file_write(const std::string &path, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = slog_file(path.c_str(), fmt, ap);
    va_end(ap);
    return std::to_string(rc);
}

TEST(SlogSteer, SteeringFileAppendsAndStartsAfreshPastItsLimit)
{
    temp_dir dir;
    std::string path = dir.file("steer.log");
    EXPECT_EQ(slog_file_write(path, "one %d\n", 1), "0");
    EXPECT_EQ(slog_file_write(path, "two\n"), "0");
    std::string text = read_file(path);
    EXPECT_NE(text.find("one 1\n"), std::string::npos);
    EXPECT_NE(text.find("two\n"), std::string::npos);

    // A sparse file just over 100 MiB is started afresh.
    ASSERT_EQ(truncate(path.c_str(), 104857601), 0);
    EXPECT_EQ(slog_file_write(path, "three\n"), "0");
    text = read_file(path);
    EXPECT_LT(text.size(), 64u);
    EXPECT_TRUE(text.ends_with(" three\n"));
}

TEST(SlogSteer, SteeringFileRefusesNullArguments)
{
    const char *no_fmt = nullptr;
    va_list ap{};
    const char *fmt = "%d";
    EXPECT_EQ(slog_file(nullptr, fmt, ap), -1);
    EXPECT_EQ(slog_file("/tmp/x", no_fmt, ap), -1);
}

}  // namespace
