// The configuration store as a file of key=value lines.
//
// The file is BANDHERD_CONF, or /etc/bandherd.conf. Each line is key=value:
// the key is the text before the first '=' without surrounding blanks, the
// value is everything after it up to the line end, verbatim. Blank lines and
// lines whose first non-blank character is '#' are comments. When a key
// appears twice the last line wins. A missing file means every key is
// missing; a value longer than CONF_VALUE_MAX characters is unreadable.
#include "conf_store.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char *conf_path()
{
    const char *path = getenv("BANDHERD_CONF");
    return path && *path ? path : "/etc/bandherd.conf";
}

// isspace() of the C locale.
bool conf_blank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Trims blanks at both ends, in place; returns the start.
char *conf_trim(char *s, char *end)
{
    while (s < end && conf_blank(*s))
        s++;
    while (end > s && conf_blank(end[-1]))
        end--;
    *end = '\0';
    return s;
}

}  // namespace

extern "C" int GetValue(const char *mib, char *value)
{
    if (!mib || !value)
        return 0;

    FILE *f = fopen(conf_path(), "r");
    if (!f)
        return 0;

    int found = 0;
    char *line = nullptr;
    size_t cap = 0;
    ssize_t len;
    while ((len = getline(&line, &cap, f)) >= 0) {
        while (len > 0 && (line[len - 1] == '\n' || line[len - 1] == '\r'))
            line[--len] = '\0';
        char *eq = strchr(line, '=');
        if (!eq)
            continue;
        char *key = conf_trim(line, eq);
        if (*key == '#' || strcmp(key, mib) != 0)
            continue;
        const char *val = eq + 1;
        size_t val_len = strlen(val);
        if (val_len > CONF_VALUE_MAX) {
            found = 0;
        } else {
            memcpy(value, val, val_len + 1);
            found = 1;
        }
    }
    free(line);
    fclose(f);
    return found;
}
