// The driver's event channel. On a router it is a raw netlink socket of the
// driver's protocol; the bytes that cross it are netlink messages either way.
#ifndef NL_CHANNEL_H
#define NL_CHANNEL_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

// Opens the channel of netlink protocol `protocol`; a descriptor or -1 (errno set).
int nlc_socket(int protocol);
// Binds it to this process's port id and multicast groups; 0 or -1 (errno set).
// Fails while another live process holds the port id.
int nlc_bind(int fd, uint32_t port_id, uint32_t groups);
// Sends one message to the kernel (port id 0); the result of sendto.
ssize_t nlc_send_kernel(int fd, const void *buf, size_t len, uint32_t groups);
// Receives one message; the result of recv. `*from_driver` tells whether the
// driver sent it (the kernel's port id 0); anything else may reach the socket
// too (another process that knows the port id) and is not the driver's word.
ssize_t nlc_recv(int fd, void *buf, size_t size, int *from_driver);

#ifdef __cplusplus
}
#endif

#endif
