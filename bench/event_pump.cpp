// The load benchmark's driver side: sends station events down the driver's
// event channel as fast as the receiver takes them, or plays the bare
// receiver that the daemon is compared with.
//
//   event_pump send --to PATH (--fd N | --from PATH) --event status|join|leave|cycle
//              --stations N --bss I [--rssi R] [--base 0xHHHH]
//              (--count N | --seconds S [--warmup W] | --fill 1)
//   event_pump sink PATH
//
// `send` writes netlink datagrams as the driver does (nlmsg_len 24 + the
// payload's exact size) to the Unix datagram socket PATH, from an inherited
// socket (--fd: the driver double's own, so that they come from the driver)
// or from one bound at --from. Each event names one of N stations in turn
// (02:bb:HH:HH:i>>8:i&255); "cycle" sends a leave and a join of each in turn.
// Events go out in batches (sendmmsg), and the socket blocks: on a full queue a send waits until the receiver has
// taken a datagram, so the pace of sending is the receiver's pace. With
// --count it sends exactly that many events; with --seconds it sends for
// --warmup seconds uncounted, then counts for S seconds; with --fill 1 it
// sends without blocking until the receiver's queue is full (a stopped
// receiver's, to be timed draining it). It prints one line:
// {"sent": N, "seconds": T, "rate": N/T, "all": events sent in all, "all_seconds": ...}.
//
// `sink` binds a Unix datagram socket at PATH and receives until it is
// killed: the least a receiver of the channel can do.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "maps.h"

namespace {

constexpr long BATCH = 64;  // events per sendmmsg

struct options {
    std::string to, from;
    int fd = -1;
    std::string event = "status";
    int stations = 1;
    int bss = 1;
    int rssi = -62;
    unsigned base = 0;
    long count = 0;
    double seconds = 0, warmup = 0.5;
    bool fill = false;
};

[[noreturn]] void die(const char *what)
{
    fprintf(stderr, "event_pump: %s%s%s\n", what, errno ? ": " : "", errno ? strerror(errno) : "");
    exit(2);
}

double now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

sockaddr_un unix_addr(const std::string &path)
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        errno = 0;
        die("socket path too long");
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return addr;
}

// One datagram of the driver: netlink header, magic, event code, station record.
struct datagram {
    uint8_t bytes[MAPS_NL_HDR_LEN + sizeof(maps_msg_head_t) + sizeof(maps_msg_sta_t)];
};

datagram event_of(uint8_t code, int station, const options &o)
{
    datagram d = {};
    uint32_t len = sizeof(d.bytes);
    memcpy(d.bytes, &len, sizeof(len));  // nlmsg_len; type, flags, seq and port id 0
    memcpy(d.bytes + MAPS_NL_HDR_LEN, MAPS_MAGIC, MAPS_MAGIC_LEN);
    d.bytes[MAPS_NL_HDR_LEN + MAPS_MAGIC_LEN] = code;
    maps_msg_sta_t m = {};
    const uint8_t mac[6] = {0x02, 0xbb, (uint8_t)(o.base >> 8), (uint8_t)o.base, (uint8_t)(station >> 8),
                            (uint8_t)station};
    memcpy(m.mac, mac, sizeof(mac));
    m.bss_index = (uint8_t)o.bss;
    m.bands = MAPS_2G | MAPS_5L;
    m.caps = MAPS_CAP_HT | MAPS_CAP_VHT | MAPS_CAP_RRM | MAPS_CAP_BTM;
    m.rssi = (int8_t)o.rssi;
    m.nss = 2;
    m.sta_num = (uint8_t)(o.stations > 255 ? 255 : o.stations);
    memcpy(d.bytes + MAPS_NL_HDR_LEN + sizeof(maps_msg_head_t), &m, sizeof(m));
    return d;
}

int send_events(const options &o)
{
    int fd = o.fd;
    if (fd < 0) {
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            die("socket");
        if (!o.from.empty()) {
            sockaddr_un from = unix_addr(o.from);
            unlink(from.sun_path);
            if (bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof(from)) != 0)
                die("bind");
        }
    }
    // The inherited socket may be non-blocking (its owner polls it): block while sending, or,
    // to fill the receiver's queue, never block, with room for every datagram it can hold.
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, o.fill ? flags | O_NONBLOCK : flags & ~O_NONBLOCK) != 0)
        die("fcntl");
    if (o.fill) {
        int room = 256 << 20;
        if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof(room)) != 0)
            setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
    }

    // The events, made once: status, join or leave of each station, or leave and join of each.
    std::string_view ev = o.event;
    int per = ev == "cycle" ? 2 : 1;
    long kinds = (long)o.stations * per;
    auto *events = static_cast<datagram *>(calloc((size_t)kinds, sizeof(datagram)));
    if (!events)
        die("calloc");
    for (int i = 0; i < o.stations; i++) {
        if (ev == "status")
            events[i] = event_of(MAPS_EV_STA_STATUS, i, o);
        else if (ev == "join")
            events[i] = event_of(MAPS_EV_STA_JOIN, i, o);
        else if (ev == "leave")
            events[i] = event_of(MAPS_EV_STA_LEAVE, i, o);
        else if (ev == "cycle") {
            events[2 * i] = event_of(MAPS_EV_STA_LEAVE, i, o);
            events[2 * i + 1] = event_of(MAPS_EV_STA_JOIN, i, o);
        } else {
            errno = 0;
            die("--event is status, join, leave or cycle");
        }
    }
    sockaddr_un to = unix_addr(o.to);

    mmsghdr msgs[BATCH];
    iovec iov[BATCH];
    long sent = 0, next = 0, counted = 0;
    double t0 = now(), begin = t0, end = 0;
    bool counting = o.count > 0 || o.warmup <= 0 || o.fill;
    for (;;) {
        if (o.count > 0 && sent == o.count)
            break;
        if (o.count == 0 && !o.fill) {
            double t = now();
            if (!counting && t - t0 >= o.warmup) {
                counting = true;
                begin = t;
                counted = 0;
            }
            if (counting && t - begin >= o.seconds)
                break;
        }
        // A batch of consecutive events in one call, so that the sender outpaces any receiver
        // and the queue stays full; a batch ends at the end of the events or of --count.
        long batch = std::min<long>(BATCH, kinds - next);
        if (o.count > 0)
            batch = std::min(batch, o.count - sent);
        for (long i = 0; i < batch; i++) {
            iov[i] = {events[next + i].bytes, sizeof(datagram::bytes)};
            msgs[i] = {};
            msgs[i].msg_hdr.msg_name = &to;
            msgs[i].msg_hdr.msg_namelen = sizeof(to);
            msgs[i].msg_hdr.msg_iov = &iov[i];
            msgs[i].msg_hdr.msg_iovlen = 1;
        }
        int n = sendmmsg(fd, msgs, (unsigned)batch, 0);
        if (n < 0 && o.fill && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;  // the queue is full
        if (n < 0) {
            if (errno == EINTR)
                continue;
            die("sendmmsg");
        }
        sent += n;
        counted += n;
        next = (next + n) % kinds;
    }
    end = now();
    if (o.fd >= 0)
        fcntl(fd, F_SETFL, flags);  // as its owner had it
    long n = o.count > 0 ? sent : counted;
    double span = end - begin;
    printf("{\"sent\": %ld, \"seconds\": %.6f, \"rate\": %.1f, \"all\": %ld, \"all_seconds\": %.6f}\n", n, span,
           span > 0 ? (double)n / span : 0.0, sent, end - t0);
    free(events);
    return 0;
}

int sink(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        die("socket");
    sockaddr_un addr = unix_addr(path);
    unlink(addr.sun_path);
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0)
        die("bind");
    uint8_t buf[2048];
    for (;;) {
        if (recv(fd, buf, sizeof(buf), 0) < 0 && errno != EINTR)
            die("recv");
    }
}

[[noreturn]] void usage()
{
    fputs("usage: event_pump send --to PATH (--fd N | --from PATH) --event status|join|leave|cycle\n"
          "                  --stations N --bss I [--rssi R] [--base N]\n"
          "                  (--count N | --seconds S [--warmup W] | --fill 1)\n"
          "       event_pump sink PATH\n",
          stderr);
    exit(2);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::string_view(argv[1]) == "sink")
        return sink(argv[2]);
    if (argc < 2 || std::string_view(argv[1]) != "send")
        usage();
    options o;
    for (int i = 2; i < argc; i += 2) {
        if (i + 1 >= argc)
            usage();
        std::string_view k = argv[i];
        const char *v = argv[i + 1];
        if (k == "--to")
            o.to = v;
        else if (k == "--from")
            o.from = v;
        else if (k == "--fd")
            o.fd = atoi(v);
        else if (k == "--event")
            o.event = v;
        else if (k == "--stations")
            o.stations = atoi(v);
        else if (k == "--bss")
            o.bss = atoi(v);
        else if (k == "--rssi")
            o.rssi = atoi(v);
        else if (k == "--base")
            o.base = (unsigned)strtoul(v, nullptr, 0);
        else if (k == "--count")
            o.count = atol(v);
        else if (k == "--seconds")
            o.seconds = atof(v);
        else if (k == "--warmup")
            o.warmup = atof(v);
        else if (k == "--fill")
            o.fill = atoi(v) != 0;
        else
            usage();
    }
    if (o.to.empty() || o.stations < 1 || o.stations > 65535 || (o.count <= 0 && o.seconds <= 0 && !o.fill))
        usage();
    return send_events(o);
}
