#include <gtest/gtest.h>
#include <poll.h>
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

// Registrations live for the whole run, so each test registers its own names.
TEST(SlogLevels, ModulesStartAtTheGlobalLevelAndAreSetByNameOtherOrAll)
{
    static int first, second, late;
    slog_set_level(nullptr, SLOG_INFO);
    slog_register_logger(&first, "lv_ap");
    slog_register_logger(&second, "lv_btm");
    slog_register_logger(&first, "lv_ap");  // a module started again: still one entry
    EXPECT_EQ(first, SLOG_INFO);

    EXPECT_EQ(slog_set_level("lv_btm", SLOG_DEBUG), 0);
    EXPECT_EQ(slog_set_level("other", SLOG_ERROR), 0);
    EXPECT_EQ(std::make_tuple(first, second, g_logger), std::make_tuple(SLOG_INFO, SLOG_DEBUG, SLOG_ERROR));
    temp_dir dir;
    FILE *f = fopen(dir.file("levels").c_str(), "w");
    slog_print_levels(f);
    fclose(f);
    std::string text = read_file(dir.file("levels"));  // newest first, "other" last
    EXPECT_EQ(text.rfind("lv_btm: debug\nlv_ap: info\n", 0), 0u) << text;
    EXPECT_TRUE(text.ends_with("other: error\n")) << text;

    // The steering level, levels out of range and unknown names are refused.
    for (auto [name, level] : {std::pair<const char *, int>{nullptr, SLOG_STEER}, {"lv_ap", -1}, {"nosuch", 5}})
        EXPECT_EQ(slog_set_level(name, level), -1) << level;
    EXPECT_EQ(slog_set_level(nullptr, SLOG_DUMP), 0);
    EXPECT_EQ(std::make_tuple(first, second, g_logger), std::make_tuple(SLOG_DUMP, SLOG_DUMP, SLOG_DUMP));
    slog_register_logger(&late, "lv_late");
    EXPECT_EQ(late, SLOG_DUMP);  // whatever the global level is now
    slog_set_level(nullptr, SLOG_INFO);

    EXPECT_STREQ(slog_get_level_name(SLOG_STEER), "steer");
    EXPECT_STREQ(slog_get_level_name(8), "illegal");
}

TEST(SlogLevels, CallSiteTestsTheModuleLevelBeforeFormatting)
{
    SLOG_REGISTER("lv_callsite");
    log_capture log;
    ASSERT_EQ(slog_set_level("lv_callsite", SLOG_WARNING), 0);

    s_formatted = 0;
    LOG_INFO("%s:%d, quiet %d", counted(1));
    EXPECT_EQ(s_formatted, 0);
    int line = __LINE__ + 1;
    LOG_WARN("%s:%d, loud %d", counted(2));
    EXPECT_EQ(s_formatted, 1);
    EXPECT_EQ(log.text(), "warning " + std::string(__func__) + ":" + std::to_string(line) + ", loud 2\n");
    EXPECT_EQ(g_logger, SLOG_INFO);  // other modules still follow the global level
    slog_set_level("lv_callsite", SLOG_INFO);
}

// Packed texts come back byte for byte: every byte that is not a code, the
// longest text, texts made of the most frequent pairs and of none.
template <size_t N>
std::string slog_round_trip(const slog_packed<N> &packed)
{
    char out[SLOG_TEXT_MAX];
    slog_unpack(packed.text, out);
    return out;
}

TEST(SlogPacked, TextsUnpackToThemselves)
{
    constexpr char all[] =
        "\t\n\033 !\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_`abcdefghijklmnopqrstuvwxyz{|}~";
    constexpr auto longest = [] {
        slog_packed<SLOG_TEXT_MAX> t = {};
        for (size_t i = 0; i + 1 < SLOG_TEXT_MAX; i++)
            t.text[i] = "state %s "[i % 9];
        return t;
    }();
    static_assert(slog_text_fits(all) && slog_text_fits(longest.text));
    constexpr auto all_packing = slog_pack(all);
    constexpr auto longest_packing = slog_pack(longest.text);
    constexpr auto empty_packing = slog_pack("");
    constexpr auto all_packed = slog_cut<all_packing.size>(all_packing);
    constexpr auto longest_packed = slog_cut<longest_packing.size>(longest_packing);
    constexpr auto empty_packed = slog_cut<empty_packing.size>(empty_packing);
    static_assert(sizeof(longest_packed) < SLOG_TEXT_MAX / 2, "repeated pairs pack");
    EXPECT_EQ(slog_round_trip(all_packed), all);
    EXPECT_EQ(slog_round_trip(longest_packed), longest.text);
    EXPECT_EQ(slog_round_trip(empty_packed), "");
    // The bytes that stand for pairs are refused in a text.
    EXPECT_FALSE(slog_text_fits("\x80") || slog_text_fits("\x01") || slog_text_fits("\r"));
    EXPECT_FALSE(slog_text_fits(std::string(SLOG_TEXT_MAX, 'x').c_str()));
}

// The daemon's own printf: "%p" writes the MAC address its argument points
// at; every other conversion is printf's, with the argument its length takes.
TEST(SlogOutput, FormatsPrintAsPrintfWithMacAddressesForPointers)
{
    const uint8_t mac[MAC_LEN] = {0x02, 0xab, 0, 0x0c, 0xff, 0x10};
    char *text = nullptr;
    size_t size = 0;
    FILE *f = open_memstream(&text, &size);
    SPRINTF(f, "[" MAC_FMT "|%-19p|%s]", MAC_ARG(mac), MAC_ARG(mac), "x");
    SPRINTF(f, "[%d %3d %-3u| %02x %X %o %c %%]", -7, 42, 5u, 0xa, 0xbeefu, 8, 'q');
    SPRINTF(f, "[%ld %lu %lld %llu %zu %hhu %.2s]", -1L, 4000000000UL, -1LL << 40, 1ULL << 63, (size_t)12, 300, "abc");
    SPRINTF(f, "[%p]", MAC_ARG(nullptr));
    fclose(f);
    EXPECT_EQ(std::string(text, size),
              "[02:ab:00:0c:ff:10|02:ab:00:0c:ff:10  |x]"
              "[-7  42 5  | 0a BEEF 10 q %]"
              "[-1 4000000000 -1099511627776 9223372036854775808 12 44 ab]"
              "[(null)]");
    free(text);
    static_assert(slog_fmt_known("%-16s %02x %zu %lld %hhu %% %p") && !slog_fmt_known("%f") &&
                  !slog_fmt_known("%n") && !slog_fmt_known("%*d") && !slog_fmt_known("%"));
}

// The one message of every broken precondition, in full.
TEST(SlogAssert, MessageNamesTheExpressionAndWhereInRed)
{
    EXPECT_DEATH(slog_register_logger(&g_logger, "x"),
                 "^\033\\[0;31mbandherd: Assertion failed, 'plogger != &g_logger' is not satisfied!!!\n"
                 "   at steer_log.cpp:[0-9]+ slog_register_logger\033\\[0m\n$");
}

TEST(SlogOutput, NewlineIsAddedOnlyWhenTheFormatLacksOneAndTimeIsOptional)
{
    log_capture log(true);
    slog_log(SLOG_WARNING, "with time");
    slog_set_print_time(false);
    slog_log(SLOG_INFO, "a %s", "line");
    slog_log(SLOG_ERROR, "ends %s\n", "here");
    // The test is on the format: a newline from an argument does not count.
    slog_log(SLOG_DEBUG, "%s", "arg\n");
    slog_log(SLOG_DUMP, "%s", "");
    std::string text = log.text();
    std::regex expected("[0-9]+ [0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} warning with time\n"
                        "info a line\nerror ends here\ndebug arg\n\ndump \n");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;

    EXPECT_EQ(slog_set_path("/nonexistent-dir/log"), -1);  // the output stays
    slog_log(SLOG_INFO, "still here");
    EXPECT_TRUE(log.text().ends_with("dump \ninfo still here\n"));
}

TEST(SlogOutput, TerminalGetsColourAndNameFileGetsNeither)
{
    int master, slave;
    char name[64];
    struct termios raw = {};
    cfmakeraw(&raw);
    ASSERT_EQ(openpty(&master, &slave, name, &raw, nullptr), 0);
    slog_set_print_time(false);
    ASSERT_EQ(slog_set_path(name), 0);
    slog_log(SLOG_WARNING, "careful");
    slog_log(SLOG_ERROR, "broken\n");
    slog_log(SLOG_INFO, "fine");
    slog_set_path("stdout");
    slog_set_print_time(true);

    // The pty hands the bytes over on its own time: read what was written, waiting 5 seconds at most.
    const std::string expected = "\033[33mbandherd: warning careful\033[0m\n\033[31mbandherd: error broken\n\033[0m"
                                 "bandherd: info fine\n";
    std::string got;
    struct pollfd pfd = {master, POLLIN, 0};
    char buf[512];
    ssize_t n;
    while (got.size() < expected.size() && poll(&pfd, 1, 5000) == 1 && (n = read(master, buf, sizeof(buf))) > 0)
        got.append(buf, (size_t)n);
    close(master);
    close(slave);
    EXPECT_EQ(got, expected);
}

TEST(SlogOutput, FileOverItsSizeIsCutToItsNewestHalfBeforeTheNextLine)
{
    temp_dir dir;
    std::string big = dir.file("big.log"), full = dir.file("full.log"), old;
    for (int i = 0; i < 1001; i++)
        old += (char)('a' + i % 26);
    write_file(big, old);
    write_file(full, std::string(1000, 'x'));
    slog_set_print_time(false);
    slog_set_size(1000);
    ASSERT_EQ(slog_set_path(big.c_str()), 0);
    slog_log(SLOG_INFO, "next");
    slog_log(SLOG_INFO, "again");  // 510 bytes now: under the size, no cut
    ASSERT_EQ(slog_set_path(full.c_str()), 0);
    slog_log(SLOG_INFO, "x");  // at the size is not over it
    slog_set_size(0);
    slog_set_path("stdout");
    slog_set_print_time(true);
    EXPECT_EQ(read_file(big), old.substr(501) + "info next\ninfo again\n");
    EXPECT_EQ(read_file(full), std::string(1000, 'x') + "info x\n");
    // Nothing else is left in the directory: the temporary copy is gone.
    EXPECT_EQ(system(("test $(ls " + dir.path() + " | wc -l) -eq 2").c_str()), 0);
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
