// The lab's Wi-Fi base library: a client of the lab's driver double. Each call
// connects to /var/run/maps/uwb, writes one request line, reads one answer
// line ("<result> <values>...") and closes. Texts that may hold blanks and
// binary buffers travel hex-encoded ("-" when empty).
#include "uwb.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "maps.h"

namespace {

constexpr char UWB_SOCKET[] = "/var/run/maps/uwb";
constexpr int UWB_TIMEOUT_SEC = 2;
constexpr size_t UWB_LINE = 4096;

#define UWB_MAC_FMT "%02x:%02x:%02x:%02x:%02x:%02x"
#define UWB_MAC_ARG(m) (m)[0], (m)[1], (m)[2], (m)[3], (m)[4], (m)[5]

bool uwb_write_all(int fd, const char *buf, size_t len)
{
    while (len > 0) {
        ssize_t n = write(fd, buf, len);
        if (n <= 0)
            return false;
        buf += n;
        len -= (size_t)n;
    }
    return true;
}

// Sends the request and returns the answer's result code, with the values
// after it in `values` (without the line end). -1 when the double cannot be
// reached or answers nothing readable.
int uwb_call(char *values, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

int uwb_call(char *values, size_t size, const char *fmt, ...)
{
    char request[UWB_LINE];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(request, sizeof(request) - 1, fmt, ap);
    va_end(ap);
    if (n < 0 || (size_t)n >= sizeof(request) - 1)
        return -1;
    request[n++] = '\n';

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    struct timeval tv = {UWB_TIMEOUT_SEC, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    static_assert(sizeof(UWB_SOCKET) <= sizeof(addr.sun_path));
    memcpy(addr.sun_path, UWB_SOCKET, sizeof(UWB_SOCKET));
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 || !uwb_write_all(fd, request, (size_t)n)) {
        close(fd);
        return -1;
    }

    char answer[UWB_LINE];
    size_t got = 0;
    while (got < sizeof(answer) - 1) {
        ssize_t r = read(fd, answer + got, sizeof(answer) - 1 - got);
        if (r <= 0)
            break;
        got += (size_t)r;
        answer[got] = '\0';
        if (strchr(answer + got - (size_t)r, '\n'))
            break;
    }
    close(fd);
    answer[got] = '\0';
    char *eol = strchr(answer, '\n');
    if (!eol)
        return -1;
    *eol = '\0';

    char *end = nullptr;
    long rc = strtol(answer, &end, 10);
    if (end == answer)
        return -1;
    while (*end == ' ')
        end++;
    if (values && size > 0)
        snprintf(values, size, "%s", end);
    return (int)rc;
}

// Hex text of `len` bytes ("-" when empty) into `out` (2 * len + 2 bytes).
const char *uwb_hex(const void *data, size_t len, char *out)
{
    static const char digits[] = "0123456789abcdef";
    if (len == 0)
        return static_cast<const char *>(memcpy(out, "-", 2));
    const auto *p = static_cast<const uint8_t *>(data);
    for (size_t i = 0; i < len; i++) {
        out[2 * i] = digits[p[i] >> 4];
        out[2 * i + 1] = digits[p[i] & 0xf];
    }
    out[2 * len] = '\0';
    return out;
}

// Decodes hex text into at most `size` bytes; the count, or -1 on bad text.
int uwb_unhex(const char *text, uint8_t *out, size_t size)
{
    if (strcmp(text, "-") == 0)
        return 0;
    size_t len = strlen(text);
    if (len % 2 != 0 || len / 2 > size)
        return -1;
    for (size_t i = 0; i < len / 2; i++) {
        unsigned int b;
        if (sscanf(text + 2 * i, "%2x", &b) != 1)
            return -1;
        out[i] = (uint8_t)b;
    }
    return (int)(len / 2);
}

// Copies the first token of `values` into a name buffer; -1 if it does not fit.
int uwb_copy_name(const char *values, char *out, int size)
{
    const char *blank = strchr(values, ' ');
    size_t len = blank ? (size_t)(blank - values) : strlen(values);
    if (len == 0 || size <= 0 || len >= (size_t)size)
        return -1;
    memcpy(out, values, len);
    out[len] = '\0';
    return 0;
}

int uwb_scan_mac(const char *text, uint8_t *mac)
{
    return sscanf(text, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &mac[0], &mac[1], &mac[2], &mac[3], &mac[4], &mac[5]) == 6
               ? 0
               : -1;
}

}  // namespace

extern "C" {

int uwb_get_os_ifname(const char *ifname, char *osif, int size)
{
    char v[UWB_LINE];
    if (!ifname || !osif || uwb_call(v, sizeof(v), "os_ifname %s", ifname) != 0)
        return -1;
    return uwb_copy_name(v, osif, size);
}

int uwb_get_mib_ifname(const char *ifname, char *mib_ifname, int size)
{
    char v[UWB_LINE];
    if (!ifname || !mib_ifname || uwb_call(v, sizeof(v), "mib_ifname %s", ifname) != 0)
        return -1;
    return uwb_copy_name(v, mib_ifname, size);
}

int uwb_get_bssmode(const char *mib_ifname, char *mode, int size)
{
    char v[UWB_LINE];
    if (!mib_ifname || !mode || uwb_call(v, sizeof(v), "bssmode %s", mib_ifname) != 0)
        return -1;
    return uwb_copy_name(v, mode, size);
}

int uwb_get_ap_cap(const char *ifname, uwb_ap_cap_t *caps)
{
    char v[UWB_LINE];
    if (!ifname || !caps || uwb_call(v, sizeof(v), "ap_cap %s", ifname) != 0)
        return -1;
    return sscanf(v, "%d %d", &caps->rrm_11k, &caps->btm_11v) == 2 ? 0 : -1;
}

int uwb_get_chan_info(const char *ifname, uwb_chan_info_t *info)
{
    char v[UWB_LINE];
    unsigned int channel, bandwidth;
    if (!ifname || !info || uwb_call(v, sizeof(v), "chan_info %s", ifname) != 0)
        return -1;
    if (sscanf(v, "%u %u", &channel, &bandwidth) != 2)
        return -1;
    info->channel = (uint8_t)channel;
    info->bandwidth = (uint8_t)(bandwidth / 10);
    return 0;
}

int uwb_get_channel_list(const char *ifname, uwb_chan_list_t *list)
{
    char v[UWB_LINE];
    if (!ifname || !list || uwb_call(v, sizeof(v), "channel_list %s", ifname) != 0)
        return -1;
    list->count = 0;
    for (char *tok = v; *tok != '\0';) {
        char *comma = strchr(tok, ',');
        if (comma == tok) {  // empty fields are skipped
            tok++;
            continue;
        }
        if (list->count >= UWB_CHAN_LIST_MAX)
            return -1;
        list->channels[list->count++] = (uint8_t)strtol(tok, nullptr, 10);
        if (!comma)
            break;
        tok = comma + 1;
    }
    return 0;
}

int uwb_get_ssid(const char *ifname, char *ssid, size_t size)
{
    char v[UWB_LINE];
    uint8_t raw[UWB_SSID_SIZE];
    if (!ifname || !ssid || size == 0 || uwb_call(v, sizeof(v), "ssid %s", ifname) != 0)
        return -1;
    int len = uwb_unhex(v, raw, sizeof(raw) - 1);
    if (len < 0 || (size_t)len >= size)
        return -1;
    memcpy(ssid, raw, (size_t)len);
    ssid[len] = '\0';
    return 0;
}

int uwb_get_sta_maxnum(const char *ifname)
{
    char v[UWB_LINE];
    if (!ifname || uwb_call(v, sizeof(v), "sta_maxnum %s", ifname) != 0)
        return -1;
    return (int)strtol(v, nullptr, 10);
}

int uwb_get_sta_info(const char *ifname, const uint8_t *macs, uwb_sta_info_t *info, int max, int *count)
{
    if (!ifname || !macs || !info || max <= 0)
        return -1;
    int filled = 0;
    for (int i = 0; i < max; i++) {
        const uint8_t *mac = macs + 6 * i;
        char v[UWB_LINE];
        int rssi, rate;
        if (uwb_call(v, sizeof(v), "sta_info %s " UWB_MAC_FMT, ifname, UWB_MAC_ARG(mac)) != 0 ||
            sscanf(v, "%d %d", &rssi, &rate) != 2)
            break;
        memcpy(info[filled].mac, mac, 6);
        info[filled].rssi = (int8_t)rssi;
        info[filled].rate = rate;
        filled++;
    }
    if (count)
        *count = filled;
    return filled > 0 ? 0 : -1;
}

int uwb_get_bssid(const char *ifname, uint8_t *bssid, int size)
{
    char v[UWB_LINE];
    if (!ifname || !bssid || size < 6 || uwb_call(v, sizeof(v), "bssid %s", ifname) != 0)
        return -1;
    return uwb_scan_mac(v, bssid);
}

int uwb_kick_sta(const char *ifname, const uint8_t *mac, int len)
{
    if (!ifname || !mac || len < 6)
        return -1;
    return uwb_call(nullptr, 0, "kick_sta %s " UWB_MAC_FMT, ifname, UWB_MAC_ARG(mac));
}

int uwb_set_bssload(const char *ifname, int load)
{
    if (!ifname)
        return -1;
    return uwb_call(nullptr, 0, "set_bssload %s %d", ifname, load);
}

int uwb_add_rrm_neighbor(const char *ifname, const uwb_rrm_nbr_t *e)
{
    if (!ifname || !e || e->ssid_len >= UWB_SSID_SIZE)
        return -1;
    char ssid[2 * UWB_SSID_SIZE + 2];
    return uwb_call(nullptr, 0, "add_rrm_neighbor %s %s " UWB_MAC_FMT " %u %u %s", ifname, e->ifname,
                    UWB_MAC_ARG(e->bssid), e->channel, e->band, uwb_hex(e->ssid, e->ssid_len, ssid));
}

int uwb_del_rrm_neighbor(const char *ifname, const uint8_t *bssid, int len)
{
    if (!ifname || !bssid || len < 6)
        return -1;
    return uwb_call(nullptr, 0, "del_rrm_neighbor %s " UWB_MAC_FMT, ifname, UWB_MAC_ARG(bssid));
}

int uwb_beacon_req(const char *ifname, const beacon_req_params_t *p)
{
    if (!ifname || !p)
        return -1;
    char ssid[2 * UWB_SSID_SIZE + 2];
    size_t ssid_len = 0;
    while (ssid_len < UWB_SSID_SIZE - 1 && p->ssid[ssid_len] != '\0')
        ssid_len++;
    return uwb_call(nullptr, 0, "beacon_req %s " UWB_MAC_FMT " %u %s", ifname, UWB_MAC_ARG(p->sta_mac), p->channel,
                    uwb_hex(p->ssid, ssid_len, ssid));
}

int uwb_bss_trans_req(const char *ifname, const struct maps_msg_bss_trans_req *req)
{
    if (!ifname || !req)
        return -1;
    return uwb_call(nullptr, 0, "bss_trans_req %s " UWB_MAC_FMT " " UWB_MAC_FMT " %u", ifname, UWB_MAC_ARG(req->sta),
                    UWB_MAC_ARG(req->bss), req->channel);
}

int uwb_steer_maps(const char *ifname, void *req, size_t size, void *rsp)
{
    if (!ifname || !req || !rsp || size > 1024)
        return -1;
    char hex[2 * 1024 + 2];
    char v[UWB_LINE];
    int rc = uwb_call(v, sizeof(v), "steer_maps %s %s", ifname, uwb_hex(req, size, hex));
    if (rc != 0)
        return rc;
    uint8_t answer[1024];
    int len = uwb_unhex(v, answer, sizeof(answer));
    if (len < 0 || (size_t)len != size)
        return -1;
    memcpy(rsp, answer, size);
    return 0;
}

}  // extern "C"
