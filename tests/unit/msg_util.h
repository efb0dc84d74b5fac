// Building raw mesh messages for tests.
#ifndef MSG_UTIL_H
#define MSG_UTIL_H

#include <cstdint>
#include <string>
#include <vector>

// sa, da, the type NUL-padded to 32 bytes, then `text` and (if `nul`) its NUL.
std::vector<uint8_t> mesh_message(const uint8_t *sa, const uint8_t *da, const std::string &type,
                                  const std::string &text, bool nul = true);
// Hands a broadcast from `sa` to the daemon's receive handler.
void mesh_receive(const uint8_t *sa, const std::string &type, const std::string &text);

#endif
