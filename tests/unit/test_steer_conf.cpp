#include <gtest/gtest.h>

#include "steer.h"
#include "steer_conf.h"
#include "test_util.h"

namespace {

const char *const CONF = "hex=0x20\noctal=012\ndec= -10\nempty=\nblank_after=10 \nfrac=1.5\nbad=12abc\n"
                         "nine=123456789\nten=1234567890\n";

// The reader with a default gives `value` and logs `log`; the strict reader
// gives the same, or ends the daemon with `fatal` when there is one.
struct conf_case {
    const char *key, *def, *value, *log, *fatal;
};

TEST(Sconf, NumbersAreReadInBaseZeroAndMustBeWhole)
{
    conf_file conf(CONF);
    const conf_case cases[] = {
        {"hex", "1", "32", "", nullptr},
        {"octal", "1", "10", "", nullptr},
        {"dec", "1", "-10", "", nullptr},
        {"empty", "5", "0", "", nullptr},
        {"blank_after", "5", "5", "value '10 ' is not a number, mib 'blank_after'. use default '5'",
         "fatal sconf_get_int:[0-9]+, value '10 ' is not a number, mib 'blank_after'. \n"},
        {"frac", "6", "6", "value '1.5' is not a number, mib 'frac'. use default '6'", "value '1.5' is not a number"},
        {"bad", "7", "7", "value '12abc' is not a number, mib 'bad'. use default '7'", "value '12abc' is not a number"},
        {"missing", "42", "42", "", "fatal sconf_get_int:[0-9]+, get mib 'missing' failed.\n"},
    };
    for (const conf_case &c : cases) {
        log_capture log;
        EXPECT_EQ(sconf_get_int_def(c.key, atoi(c.def)), atoi(c.value)) << c.key;
        EXPECT_EQ(log.plain(), *c.log ? "error sconf_get_int_def, " + std::string(c.log) + "\n" : "") << c.key;
        if (c.fatal)
            EXPECT_FATAL(sconf_get_int(c.key), c.fatal) << c.key;
        else
            EXPECT_EQ(sconf_get_int(c.key), atoi(c.value)) << c.key;
    }
}

TEST(Sconf, TextMustFitWithItsNul)
{
    conf_file conf(CONF);
    const conf_case cases[] = {
        {"nine", "d", "123456789", "", nullptr},
        {"empty", "d", "", "", nullptr},
        {"ten", "dflt", "dflt", "value '1234567890' is too long, mib 'ten', size 10. use default 'dflt'",
         "fatal sconf_get_str:[0-9]+, value '1234567890' is too long, mib 'ten', size 10.\n"},
        {"missing", "abcdefghijk", "abcdefghi", "", "fatal sconf_get_str:[0-9]+, get mib 'missing' failed.\n"},
    };
    for (const conf_case &c : cases) {
        log_capture log;
        char buf[10];
        EXPECT_EQ(sconf_get_str_def(c.key, buf, sizeof(buf), c.def), buf);
        EXPECT_STREQ(buf, c.value) << c.key;
        EXPECT_EQ(log.plain(), *c.log ? "error sconf_get_str_def, " + std::string(c.log) + "\n" : "") << c.key;
        if (c.fatal)
            EXPECT_FATAL(sconf_get_str(c.key, buf, sizeof(buf)), c.fatal) << c.key;
        else
            EXPECT_STREQ(sconf_get_str(c.key, buf, sizeof(buf)), c.value) << c.key;
    }
}

// The store behind these reads: a file of key=value lines.
TEST(ConfStore, FileFormat)
{
    conf_file conf("# a comment=1\n\n  spaced.key  = value with = sign\r\ndup=1\ndup=2\nno equals sign\nlongest=" +
                   std::string(2307, 'x') + "\ntoo.long=" + std::string(2308, 'y') + "\n");
    char buf[2400];
    EXPECT_STREQ(sconf_get_str_def("spaced.key", buf, sizeof(buf), "d"), " value with = sign");
    EXPECT_EQ(sconf_get_int_def("dup", 0), 2);
    EXPECT_EQ(sconf_get_int_def("# a comment", 9), 9);
    EXPECT_EQ(sconf_get_int_def("no equals sign", 9), 9);
    EXPECT_EQ(strlen(sconf_get_str_def("longest", buf, sizeof(buf), "d")), 2307u);
    EXPECT_STREQ(sconf_get_str_def("too.long", buf, sizeof(buf), "d"), "d");
    setenv("BANDHERD_CONF", "/nonexistent/bandherd.conf", 1);  // no file: every key is missing
    EXPECT_EQ(sconf_get_int_def("dup", 3), 3);
}

}  // namespace
