#include "steer_limit.h"

#include <cmath>
#include <new>

#include "steer_conf.h"

namespace {

slimit_ph_bss_t *slimit_find(slimit_info_t *info, const uint8_t *bssid)
{
    for (slimit_ph_bss_t *ph : info->targets) {
        if (mac_equal(ph->bssid, bssid))
            return ph;
    }
    return nullptr;
}

// factor * base ^ level seconds, at most `max`; a result beyond 32 bits is `max`.
STEER_FLOAT_CALLS uint32_t slimit_duration(const slimit_ph_conf_t *conf, uint32_t level)
{
    double d = static_cast<double>(conf->factor) * pow(static_cast<double>(conf->base), static_cast<double>(level));
    if (!(d < 4294967296.0))
        return conf->max;
    uint32_t duration = static_cast<uint32_t>(d);
    return duration < conf->max ? duration : conf->max;
}

void slimit_dump_ph(FILE *f, const char *key, slimit_ph_bss_t *ph)
{
    if (ph->ph_short.level == 0 && ph->ph_long.level == 0)
        return;
    SPRINTF(f, "    %s, prohibit_level(short/long): %d/%d", key, ph->ph_short.level, ph->ph_long.level);
    if (ph->ph_short.expire <= g_time && ph->ph_long.expire <= g_time) {
        fputc('\n', f);
        return;
    }
    long left_short = ph->ph_short.expire > g_time ? static_cast<long>(ph->ph_short.expire - g_time) : 0;
    long left_long = ph->ph_long.expire > g_time ? static_cast<long>(ph->ph_long.expire - g_time) : 0;
    SPRINTF(f, ", left_prohibit_time(short/long): %ld/%ld senconds\n", left_short, left_long);
}

}  // namespace

slimit_conf_t *slimit_new_conf(uint32_t interval, uint32_t burst)
{
    auto *conf = static_cast<slimit_conf_t *>(calloc(1, sizeof(slimit_conf_t)));
    if (!conf) {
        LOG_ERROR("%s:%d, no memory!");
        return nullptr;
    }
    conf->interval = interval;
    conf->burst = burst;
    conf->ph_short.base = sconf_get_int_def("bandherd.ph_short_base", 30);
    conf->ph_short.factor = sconf_get_int_def("bandherd.ph_short_factor", 90);
    conf->ph_short.max = sconf_get_int_def("bandherd.ph_short_max", 86400);
    conf->ph_long.base = sconf_get_int_def("bandherd.ph_long_base", 8);
    conf->ph_long.factor = sconf_get_int_def("bandherd.ph_long_factor", 21600);
    conf->ph_long.max = sconf_get_int_def("bandherd.ph_long_max", 2592000);
    return conf;
}

void slimit_del_conf(slimit_conf_t *conf)
{
    free(conf);
}

slimit_info_t *slimit_new_info()
{
    auto *info = new (std::nothrow) slimit_info_t{};
    if (!info)
        LOG_ERROR("%s:%d, no memory!");
    return info;
}

void slimit_del_info(slimit_info_t *info)
{
    SASSERT(info);
    for (slimit_ph_bss_t *ph : info->targets) {
        slimit_ph_list::del(ph);
        free(ph);
    }
    delete info;
}

void slimit_prohibit(slimit_conf_t *conf, slimit_info_t *info, const uint8_t *bssid, bool is_long)
{
    SASSERT(conf);
    SASSERT(info);
    slimit_ph_bss_t *ph = &info->ph_bss;
    if (bssid) {
        ph = slimit_find(info, bssid);
        if (!ph) {
            ph = static_cast<slimit_ph_bss_t *>(calloc(1, sizeof(slimit_ph_bss_t)));
            if (!ph) {
                LOG_ERROR("%s:%d, malloc failed, bss " MAC_FMT, MAC_ARG(bssid));
                return;
            }
            mac_copy(ph->bssid, bssid);
            info->targets.add_head(ph);
        }
    }
    slimit_ph_info_t *track = is_long ? &ph->ph_long : &ph->ph_short;
    const slimit_ph_conf_t *track_conf = is_long ? &conf->ph_long : &conf->ph_short;
    uint32_t duration = slimit_duration(track_conf, track->level);
    track->level++;
    const char *name = is_long ? "Long" : "Short";
    if (bssid)
        LOG_DEBUG("%s:%d, prohibition(%s, Level %d, Target " MAC_FMT ") will expire after %ld seconds", name,
                  track->level, MAC_ARG(bssid), static_cast<long>(duration));
    else
        LOG_DEBUG("%s:%d, prohibition(%s, Level %d, ALL_BSS) will expire after %ld seconds", name, track->level,
                  static_cast<long>(duration));
    track->expire = g_time + duration;
}

void slimit_unprohibit(slimit_info_t *info, const uint8_t *bssid)
{
    SASSERT(info);
    info->ph_bss.ph_short = {};
    info->ph_bss.ph_long = {};
    if (!bssid)
        return;
    slimit_ph_bss_t *ph = slimit_find(info, bssid);
    if (ph) {
        slimit_ph_list::del(ph);
        free(ph);
    }
}

void slimit_pass(slimit_conf_t *conf, slimit_info_t *info)
{
    SASSERT(conf);
    SASSERT(info);
    if (info->slot_begin + conf->interval <= g_time) {
        info->slot_begin = g_time;
        info->slot_times = 1;
    } else {
        info->slot_times++;
    }
}

bool slimit_allowed(slimit_conf_t *conf, slimit_info_t *info, const uint8_t *bssid, bool check_frequence)
{
    SASSERT(conf);
    SASSERT(info);
    if (check_frequence && conf->interval != 0 && conf->burst != 0 && g_time < info->slot_begin + conf->interval &&
        info->slot_times >= conf->burst)
        return false;
    if (g_time < info->ph_bss.ph_long.expire || g_time < info->ph_bss.ph_short.expire)
        return false;
    if (!bssid)
        return true;
    slimit_ph_bss_t *ph = slimit_find(info, bssid);
    if (!ph)
        return true;
    if (g_time < ph->ph_long.expire)
        return false;
    return g_time >= ph->ph_short.expire;
}

bool slimit_any_prohibited(slimit_info_t *info)
{
    SASSERT(info);
    if (info->ph_bss.ph_long.level || info->ph_bss.ph_short.level)
        return true;
    for (slimit_ph_bss_t *ph : info->targets) {
        if (ph->ph_long.level || ph->ph_short.level)
            return true;
    }
    return false;
}

void slimit_dump_conf(FILE *f, slimit_conf_t *conf)
{
    SASSERT(f);
    SASSERT(conf);
    if (conf->interval || conf->burst)
        SPRINTF(f, "    frequence: allow %d times in %d seconds\n", conf->burst, conf->interval);
    SPRINTF(f, "    short_prohibit: %d*%d^x, up to %d seconds\n", conf->ph_short.factor, conf->ph_short.base,
            conf->ph_short.max);
    SPRINTF(f, "    long_prohibit: %d*%d^x, up to %d seconds\n", conf->ph_long.factor, conf->ph_long.base,
            conf->ph_long.max);
}

void slimit_dump_info(FILE *f, slimit_info_t *info)
{
    SASSERT(f);
    SASSERT(info);
    if (info->slot_begin != 0)
        SPRINTF(f, "    has triggered %d times in %ld seconds\n", info->slot_times,
                static_cast<long>(g_time - info->slot_begin));
    char key[18];
    snprintf(key, sizeof(key), "%-17s", "ALL_BSS");
    slimit_dump_ph(f, key, &info->ph_bss);
    for (slimit_ph_bss_t *ph : info->targets) {
        snprintf(key, sizeof(key), "%s", mac_text(ph->bssid).s);
        slimit_dump_ph(f, key, ph);
    }
}
