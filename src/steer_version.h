// The version and build strings, produced at build time; each ends with a newline.
#ifndef STEER_VERSION_H
#define STEER_VERSION_H

extern const char g_steer_version[];
extern const char g_steer_build[];

#endif
