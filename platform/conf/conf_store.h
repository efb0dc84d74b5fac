// The configuration store: named keys holding text values.
#ifndef CONF_STORE_H
#define CONF_STORE_H

#ifdef __cplusplus
extern "C" {
#endif

// The longest value the store hands out, without its NUL.
#define CONF_VALUE_MAX 2307

// Non-zero when `mib` exists: `value` (at least CONF_VALUE_MAX + 1 bytes) then
// holds its NUL-terminated text. Zero when the key is missing or unreadable.
int GetValue(const char *mib, char *value);

#ifdef __cplusplus
}
#endif

#endif
