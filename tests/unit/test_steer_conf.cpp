#include <gtest/gtest.h>

#include <regex>

#include "steer.h"
#include "steer_conf.h"
#include "test_util.h"

namespace {

TEST(SconfInt, NumbersAreReadInBaseZeroAndMustBeWhole)
{
    conf_file conf("hex=0x20\noctal=012\ndec= -10\nempty=\nblank_after=10 \nfrac=1.5\n");
    log_capture log;
    EXPECT_EQ(sconf_get_int("hex"), 32);
    EXPECT_EQ(sconf_get_int_def("hex", 1), 32);
    EXPECT_EQ(sconf_get_int("octal"), 10);
    EXPECT_EQ(sconf_get_int("dec"), -10);
    EXPECT_EQ(sconf_get_int("empty"), 0);
    EXPECT_EQ(sconf_get_int_def("empty", 5), 0);
    EXPECT_EQ(sconf_get_int_def("blank_after", 5), 5);
    EXPECT_EQ(sconf_get_int_def("frac", 6), 6);
}

TEST(SconfInt, MissingKeyGivesTheDefaultSilently)
{
    conf_file conf("other=1\n");
    log_capture log;
    EXPECT_EQ(sconf_get_int_def("bandherd.missing", 42), 42);
    EXPECT_EQ(log.text(), "");
}

TEST(SconfInt, TrailingGarbageLogsAnErrorAndGivesTheDefault)
{
    conf_file conf("k=12abc\n");
    log_capture log;
    EXPECT_EQ(sconf_get_int_def("k", 7), 7);
    std::regex line("error sconf_get_int_def:[0-9]+, value '12abc' is not a number, mib 'k'. use default '7'\n");
    EXPECT_TRUE(std::regex_match(log.text(), line)) << log.text();
}

TEST(SconfInt, StrictReadsAbortOnMissingOrBadValues)
{
    conf_file conf("k=12abc\n");
    temp_dir dir;
    std::string path = dir.file("log");
    auto strict = [&](const char *mib) {
        slog_set_print_time(false);
        slog_set_path(path.c_str());
        sconf_get_int(mib);
    };
    EXPECT_DEATH(strict("nope"), "");
    EXPECT_DEATH(strict("k"), "");
    std::regex lines("fatal sconf_get_int:[0-9]+, get mib 'nope' failed.\n"
                     "fatal sconf_get_int:[0-9]+, value '12abc' is not a number, mib 'k'. \n");
    EXPECT_TRUE(std::regex_match(read_file(path), lines)) << read_file(path);
}

TEST(SconfStr, ValueMustFitWithItsNul)
{
    conf_file conf("nine=123456789\nten=1234567890\nempty=\n");
    log_capture log;
    char buf[10];
    EXPECT_STREQ(sconf_get_str("nine", buf, sizeof(buf)), "123456789");
    EXPECT_EQ(sconf_get_str_def("nine", buf, sizeof(buf), "d"), buf);
    EXPECT_STREQ(buf, "123456789");
    EXPECT_STREQ(sconf_get_str_def("empty", buf, sizeof(buf), "d"), "");
    EXPECT_EQ(log.text(), "");

    EXPECT_STREQ(sconf_get_str_def("ten", buf, sizeof(buf), "dflt"), "dflt");
    std::regex line("error sconf_get_str_def:[0-9]+, value '1234567890' is too long, mib 'ten', size 10. use default 'dflt'\n");
    EXPECT_TRUE(std::regex_match(log.text(), line)) << log.text();
}

TEST(SconfStr, LongDefaultIsCutAndMissingKeyIsSilent)
{
    conf_file conf("");
    log_capture log;
    char buf[5];
    EXPECT_STREQ(sconf_get_str_def("missing", buf, sizeof(buf), "abcdefgh"), "abcd");
    EXPECT_EQ(log.text(), "");
}

TEST(SconfStr, StrictReadAbortsOnMissingOrTooLongValues)
{
    conf_file conf("ten=1234567890\n");
    temp_dir dir;
    std::string path = dir.file("log");
    auto strict = [&](const char *mib) {
        slog_set_print_time(false);
        slog_set_path(path.c_str());
        char buf[10];
        sconf_get_str(mib, buf, sizeof(buf));
    };
    EXPECT_DEATH(strict("missing"), "");
    EXPECT_DEATH(strict("ten"), "");
    std::regex lines("fatal sconf_get_str:[0-9]+, get mib 'missing' failed.\n"
                     "fatal sconf_get_str:[0-9]+, value '1234567890' is too long, mib 'ten', size 10.\n");
    EXPECT_TRUE(std::regex_match(read_file(path), lines)) << read_file(path);
}

// The store behind these reads: a file of key=value lines.
TEST(ConfStore, FileFormat)
{
    conf_file conf("# a comment=1\n"
                   "\n"
                   "  spaced.key  = value with = sign\r\n"
                   "dup=1\n"
                   "dup=2\n"
                   "no equals sign\n"
                   "longest=" + std::string(2307, 'x') + "\n"
                   "too.long=" + std::string(2308, 'y') + "\n");
    char buf[2400];
    EXPECT_STREQ(sconf_get_str_def("spaced.key", buf, sizeof(buf), "d"), " value with = sign");
    EXPECT_EQ(sconf_get_int_def("dup", 0), 2);
    EXPECT_EQ(sconf_get_int_def("# a comment", 9), 9);
    EXPECT_EQ(sconf_get_int_def("no equals sign", 9), 9);
    EXPECT_EQ(strlen(sconf_get_str_def("longest", buf, sizeof(buf), "d")), 2307u);
    EXPECT_STREQ(sconf_get_str_def("too.long", buf, sizeof(buf), "d"), "d");
}

TEST(ConfStore, MissingFileMeansEveryKeyIsMissing)
{
    setenv("BANDHERD_CONF", "/nonexistent/bandherd.conf", 1);
    EXPECT_EQ(sconf_get_int_def("bandherd.enable", 3), 3);
    unsetenv("BANDHERD_CONF");
}

}  // namespace
