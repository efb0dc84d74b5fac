// The one libuv loop behind the event library, shared by its files.
#ifndef CM_UV_LOOP_H
#define CM_UV_LOOP_H

#include <uv.h>

uv_loop_t *cm_uv_loop();

// Closes a handle that was allocated with malloc; it is freed once libuv is done with it.
void cm_uv_close_free(uv_handle_t *h);

#endif
