// What steer.h declares out of line: the assertion's failure path and the
// text of a MAC address.
#include "steer.h"

void steer_assert_fail(const char *expr, const char *file, int line, const char *func)
{
    char text[SLOG_TEXT_MAX];
    slog_unpack(expr, text);
    fprintf(stderr, STEER_ASSERT_FMT, text, file, line, func);
    abort();
}

mac_text_t mac_text(const uint8_t *m)
{
    static const char hex[] = "0123456789abcdef";
    mac_text_t t;
    for (size_t i = 0; i < MAC_LEN; i++) {
        t.s[i * 3] = hex[m[i] >> 4];
        t.s[i * 3 + 1] = hex[m[i] & 0xf];
        t.s[i * 3 + 2] = i + 1 < MAC_LEN ? ':' : '\0';
    }
    return t;
}
