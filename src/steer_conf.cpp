#include "steer_conf.h"

#include <cstdlib>
#include <cstring>

#include "conf_store.h"
#include "steer.h"

namespace {

// What the store may write: at most 2307 characters and the NUL.
constexpr size_t SCONF_VALUE_SIZE = CONF_VALUE_MAX + 1;

// Base-0 integer; the whole text must be the number, so an empty text is 0.
bool sconf_parse_int(const char *value, int *out)
{
    char *end = nullptr;
    long n = strtol(value, &end, 0);
    if (*end != '\0')
        return false;
    *out = (int)n;
    return true;
}

}  // namespace

int sconf_get_int(const char *mib)
{
    char value[SCONF_VALUE_SIZE] = {};
    int n;

    if (!GetValue(mib, value)) {
        LOG_FATAL("%s:%d, get mib '%s' failed.", mib);
        abort();
    }
    if (!sconf_parse_int(value, &n)) {
        LOG_FATAL("%s:%d, value '%s' is not a number, mib '%s'. ", value, mib);
        abort();
    }
    return n;
}

int sconf_get_int_def(const char *mib, int def)
{
    char value[SCONF_VALUE_SIZE] = {};
    int n;

    if (!GetValue(mib, value))
        return def;
    if (!sconf_parse_int(value, &n)) {
        LOG_ERROR("%s:%d, value '%s' is not a number, mib '%s'. use default '%d'", value, mib, def);
        return def;
    }
    return n;
}

char *sconf_get_str(const char *mib, char *buff, int size)
{
    char value[SCONF_VALUE_SIZE] = {};

    if (!GetValue(mib, value)) {
        LOG_FATAL("%s:%d, get mib '%s' failed.", mib);
        abort();
    }
    if ((long)strlen(value) >= size) {
        LOG_FATAL("%s:%d, value '%s' is too long, mib '%s', size %d.", value, mib, size);
        abort();
    }
    snprintf(buff, size, "%s", value);
    return buff;
}

char *sconf_get_str_def(const char *mib, char *buff, int size, const char *def)
{
    char value[SCONF_VALUE_SIZE] = {};

    if (GetValue(mib, value)) {
        if ((long)strlen(value) < size) {
            snprintf(buff, size, "%s", value);
            return buff;
        }
        LOG_ERROR("%s:%d, value '%s' is too long, mib '%s', size %d. use default '%s'", value, mib, size, def);
    }
    snprintf(buff, size, "%s", def);
    return buff;
}
