// The version and build strings, produced at build time. They carry no line
// end of their own, so that -V prints exactly two lines.
#ifndef STEER_VERSION_H
#define STEER_VERSION_H

extern const char g_steer_version[];
extern const char g_steer_build[];

#endif
