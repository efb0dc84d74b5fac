#include <gtest/gtest.h>

#include "steer.h"
#include "steer_conf.h"
#include "test_util.h"

namespace {

const char *const CONF = "hex=0x20\noctal=012\ndec= -10\nempty=\nblank_after=10 \nfrac=1.5\nbad=12abc\n"
                         "nine=123456789\nten=1234567890\n";

// What the reader with a default gives and logs; the strict reader gives the
// same value, or ends the daemon with `fatal` when it is set.
struct conf_case {
    const char *key;
    const char *def;
    const char *value;
    const char *log;
    const char *fatal;
};

TEST(Sconf, NumbersAreReadInBaseZeroAndMustBeWhole)
{
    conf_file conf(CONF);
    const conf_case cases[] = {
        {"hex", "1", "32", "", nullptr},
        {"octal", "1", "10", "", nullptr},
        {"dec", "1", "-10", "", nullptr},
        {"empty", "5", "0", "", nullptr},
        {"blank_after", "5", "5", "error sconf_get_int_def, value '10 ' is not a number, mib 'blank_after'. use default '5'\n",
         "fatal sconf_get_int:[0-9]+, value '10 ' is not a number, mib 'blank_after'. "},
        {"frac", "6", "6", "error sconf_get_int_def, value '1.5' is not a number, mib 'frac'. use default '6'\n",
         "value '1.5' is not a number, mib 'frac'"},
        {"bad", "7", "7", "error sconf_get_int_def, value '12abc' is not a number, mib 'bad'. use default '7'\n",
         "value '12abc' is not a number, mib 'bad'"},
        {"missing", "42", "42", "", "fatal sconf_get_int:[0-9]+, get mib 'missing' failed."},
    };
    for (const conf_case &c : cases) {
        log_capture log;
        EXPECT_EQ(sconf_get_int_def(c.key, atoi(c.def)), atoi(c.value)) << c.key;
        EXPECT_EQ(log.plain(), c.log) << c.key;
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
        {"ten", "dflt", "dflt", "error sconf_get_str_def, value '1234567890' is too long, mib 'ten', size 10. use default 'dflt'\n",
         "fatal sconf_get_str:[0-9]+, value '1234567890' is too long, mib 'ten', size 10."},
        {"missing", "abcdefghijk", "abcdefghi", "", "fatal sconf_get_str:[0-9]+, get mib 'missing' failed."},
    };
    for (const conf_case &c : cases) {
        log_capture log;
        char buf[10];
        EXPECT_EQ(sconf_get_str_def(c.key, buf, sizeof(buf), c.def), buf);
        EXPECT_STREQ(buf, c.value) << c.key;
        EXPECT_EQ(log.plain(), c.log) << c.key;
        if (c.fatal)
            EXPECT_FATAL(sconf_get_str(c.key, buf, sizeof(buf)), c.fatal) << c.key;
        else
            EXPECT_STREQ(sconf_get_str(c.key, buf, sizeof(buf)), c.value) << c.key;
    }
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

    setenv("BANDHERD_CONF", "/nonexistent/bandherd.conf", 1);  // no file: every key is missing
    EXPECT_EQ(sconf_get_int_def("dup", 3), 3);
}

}  // namespace
