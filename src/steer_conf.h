// Configuration access: the daemon's only way to read settings, once, at start-up.
#ifndef STEER_CONF_H
#define STEER_CONF_H

int sconf_get_int(const char *mib);
int sconf_get_int_def(const char *mib, int def);
char *sconf_get_str(const char *mib, char *buff, int size);
char *sconf_get_str_def(const char *mib, char *buff, int size, const char *def);

#endif
