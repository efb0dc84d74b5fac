#include "steer_rate.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "maps.h"
#include "steer_conf.h"
#include "steer_nei.h"
#include "steer_ven.h"

namespace {

constexpr int SRATE_CONF_SIZE = 512;

srate_equation_t *s_eq_rssi_2to5;
srate_equation_t *s_eq_rssi_5to2;
srate_equation_t *s_eq_rssi_5to6;
srate_equation_t *s_eq_rssi_6to5;
srate_equation_t *s_eq_rssi_2to6;
srate_equation_t *s_eq_rssi_6to2;
srate_equation_t *s_eq_rate_ag;
srate_equation_t *s_eq_rate_1xn;
srate_equation_t *s_eq_rate_2xn;
srate_equation_t *s_eq_rate_1xac;
srate_equation_t *s_eq_rate_2xac;
srate_equation_t *s_eq_rate_2xax_2g;
srate_equation_t *s_eq_rate_2xax_5g;
srate_equation_t *s_eq_rate_2xax_6g;

int s_rate_factor = 85;
int s_rate_rd_ratio;

struct srate_eq_config_t {
    srate_equation_t **eq;
    const char *key;
    const char *def;
};

const srate_eq_config_t s_eq_table[] = {
    {&s_eq_rssi_2to5, "bandherd.rssi_2to5", "-70,-6;-10,1;6.8937,1.4988,0.004;0"},
    {&s_eq_rssi_5to2, "bandherd.rssi_5to2", "-78,0;11,1;-9.7534,0.5618,-0.0022;0"},
    {&s_eq_rssi_5to6, "bandherd.rssi.5to6", "-80,0;1;-9.775,0.1486,-0.02374,-0.000188;0"},
    {&s_eq_rssi_6to5, "bandherd.rssi.6to5", "-78,0;-1,1;51.54,4.23,0.06711,0.0004425;0"},
    {&s_eq_rssi_2to6, "bandherd.rssi.2to6", "-63,0;-15,1;-30.62,-0.1245,-0.03594,-0.0003509;0"},
    {&s_eq_rssi_6to2, "bandherd.rssi.6to2", "-78,0;16;103.8,5.947,0.09531,0.0005902;0"},
    {&s_eq_rate_ag, "bandherd.rate_ag", "-80,-69;3;8257.665,301.9452,3.7226,0.0155;54"},
    {&s_eq_rate_1xn, "bandherd.rate_1xn", "-78,-69;6;-47813.46,-1932.905,-25.89654,-0.115087;72"},
    {&s_eq_rate_2xn, "bandherd.rate_2xn", "-79,-68;6;-15004.33,-680.9447,-9.974218,-0.047598;144"},
    {&s_eq_rate_1xac, "bandherd.rate_1xac", "-78,-55;29;-7068.696,-388.5284,-6.421405,-0.033445;433"},
    {&s_eq_rate_2xac, "bandherd.rate_2xac", "-79,-55;32;-3419.757,-310.705,-6.190509,-0.035608;866"},
    {&s_eq_rate_2xax_2g, "bandherd.rate_2xax_2g", "-88,-46;6;-15.42,-23.58,-0.5068,-0.002745;286"},
    {&s_eq_rate_2xax_5g, "bandherd.rate_2xax_5g", "-90,-57;30;-6172,-336.2,-5.005,-0.02268;1083"},
    {&s_eq_rate_2xax_6g, "bandherd.rate_2xax_6g", "-78,-49;6;24260,928.7,13.01,0.06541;2402"},
};

bool srate_is_5g(uint32_t band)
{
    return (band & (MAPS_5L | MAPS_5H)) != 0;
}

// Rounds half away from zero; values beyond int's range stay at its ends and
// a value that is no number (from a wild configured equation) is 0.
int srate_round(double y)
{
    if (std::isnan(y))
        return 0;
    y = y >= 0 ? y + 0.5 : y - 0.5;
    if (y >= (double)INT_MAX)
        return INT_MAX;
    if (y <= (double)INT_MIN)
        return INT_MIN;
    return (int)y;
}

int srate_clamp(int64_t v)
{
    return (int)std::clamp<int64_t>(v, INT_MIN, INT_MAX);
}

// The number at `p`, into `value`; returns the end of what was read.
STEER_FLOAT_CALLS char *srate_strtod(char *p, double *value)
{
    char *end = nullptr;
    *value = strtod(p, &end);
    return end;
}

// Numbers separated by commas, into `array`; the count, or -1 (logged).
int srate_get_float_array(double *array, char *text, int max_count)
{
    int count = 0;
    char *p = text;
    while (true) {
        char *comma = strchr(p, ',');
        if (comma)
            *comma = '\0';
        if (count == max_count) {
            LOG_ERROR("%s:%d, too many numbers, support %d at most", max_count);
            return -1;
        }
        if (*srate_strtod(p, &array[count++]) != '\0') {
            LOG_ERROR("%s:%d, not a number '%s'", p);
            return -1;
        }
        if (!comma)
            return count;
        p = comma + 1;
    }
}

// Each hop takes its ratio off the rate. A ratio of 100 or more leaves
// nothing; the rate only shrinks, so the loop ends once it reaches 0,
// whatever hop count a heartbeat claims.
int srate_rd_ratio_cal(const sap_node_t *node, int rate)
{
    if (node->is_mpp || node->hop <= 0 || s_rate_rd_ratio <= 0)
        return rate;
    int64_t keep = 100 - std::min(s_rate_rd_ratio, 100);
    int64_t r = rate;
    for (int i = 0; i < node->hop && r != 0; i++)
        r = r * keep / 100;
    return (int)r;
}

}  // namespace

srate_equation_t *srate_new_equation(char *text)
{
    auto *eq = static_cast<srate_equation_t *>(calloc(1, sizeof(srate_equation_t)));
    if (!eq) {
        LOG_ERROR("%s:%d, alloc memory failed");
        return nullptr;
    }
    char *semi = strchr(text, ';');
    if (!semi) {
        LOG_ERROR("%s:%d, invalid format '%s'", text);
        srate_del_equation(eq);
        return nullptr;
    }
    *semi = '\0';
    int count = srate_get_float_array(eq->boundaries, text, SRATE_BOUNDARY_MAX);
    if (count < 0) {
        LOG_ERROR("%s:%d, parse boundaries failed");
        srate_del_equation(eq);
        return nullptr;
    }
    eq->segment_count = count + 1;
    eq->polynomes = static_cast<srate_polynome_t *>(calloc((size_t)eq->segment_count, sizeof(srate_polynome_t)));
    if (!eq->polynomes) {
        LOG_ERROR("%s:%d, alloc polynomes failed");
        srate_del_equation(eq);
        return nullptr;
    }

    int pieces = 0;
    char *p = semi + 1;
    while (true) {
        char *next = strchr(p, ';');
        if (next)
            *next = '\0';
        if (pieces == eq->segment_count) {
            LOG_ERROR("%s:%d, too many polynomes");
            srate_del_equation(eq);
            return nullptr;
        }
        LOG_DUMP("%s:%d, parse polynome '%s'", p);
        srate_polynome_t *poly = &eq->polynomes[pieces++];
        poly->factor_count = srate_get_float_array(poly->factors, p, SRATE_FACTOR_MAX);
        if (poly->factor_count < 1) {
            LOG_ERROR("%s:%d, parse polynome failed, count %d", poly->factor_count);
            srate_del_equation(eq);
            return nullptr;
        }
        if (!next)
            break;
        p = next + 1;
    }
    if (pieces != eq->segment_count) {
        LOG_ERROR("%s:%d, polynome count mismatch, expect %d, provide %d", eq->segment_count, pieces);
        srate_del_equation(eq);
        return nullptr;
    }
    return eq;
}

void srate_del_equation(srate_equation_t *eq)
{
    if (!eq)
        return;
    free(eq->polynomes);
    free(eq);
}

// The polynome's value at x, into `y`.
static STEER_FLOAT_CALLS void srate_polynome_at(const srate_polynome_t *poly, int x, double *y)
{
    *y = poly->factors[0];
    for (int k = 1; k < poly->factor_count; k++)
        *y += poly->factors[k] * pow(static_cast<double>(x), k);
}

int srate_calculate(const srate_equation_t *eq, int var)
{
    SASSERT(eq);
    SASSERT(eq->polynomes);
    SASSERT(eq->segment_count > 0);
    double x = var;
    int seg = 0;
    if (eq->segment_count > 1 && x >= eq->boundaries[0]) {
        seg = eq->segment_count - 1;
        for (int i = 1; i <= eq->segment_count - 2; i++) {
            if (x < eq->boundaries[i]) {
                seg = i;
                break;
            }
        }
    }
    const srate_polynome_t *poly = &eq->polynomes[seg];
    SASSERT(poly->factor_count > 0);
    double y;
    srate_polynome_at(poly, var, &y);
    return srate_round(y);
}

void srate_init()
{
    SLOG_REGISTER("rate");
    s_rate_factor = sconf_get_int_def("bandherd.rate_factor", 85);
    if (s_rate_factor < 1 || s_rate_factor > 100) {
        LOG_FATAL("%s:%d, invalid rate factor '%d'", s_rate_factor);
        abort();
    }
    LOG_DEBUG("%s:%d, rate_factor: %d\n", s_rate_factor);
    s_rate_rd_ratio = sconf_get_int_def("bandherd.rate_rd_ratio", 0);
    LOG_DEBUG("%s:%d, s_rate_rd_ratio: %d\n", s_rate_rd_ratio);

    for (const srate_eq_config_t &row : s_eq_table) {
        char text[SRATE_CONF_SIZE];
        sconf_get_str_def(row.key, text, sizeof(text), "");
        if (text[0] == '\0')
            snprintf(text, sizeof(text), "%s", row.def);
        LOG_DEBUG("%s:%d, parse %s '%s'", row.key, text);
        *row.eq = srate_new_equation(text);
        if (!*row.eq) {
            LOG_FATAL("%s:%d, parse %s failed", row.key);
            abort();
        }
    }
}

void srate_exit()
{
    for (const srate_eq_config_t &row : s_eq_table) {
        srate_del_equation(*row.eq);
        *row.eq = nullptr;
    }
}

int8_t srate_get_another_rssi(int8_t org_rssi, uint32_t src, uint32_t dst)
{
    const srate_equation_t *eq = nullptr;
    if (srate_is_5g(src) && srate_is_5g(dst))
        return org_rssi;
    if (srate_is_5g(src) && dst == MAPS_2G)
        eq = s_eq_rssi_5to2;
    else if (src == MAPS_2G && srate_is_5g(dst))
        eq = s_eq_rssi_2to5;
    else if (src == MAPS_6G && srate_is_5g(dst))
        eq = s_eq_rssi_6to5;
    else if (srate_is_5g(src) && dst == MAPS_6G)
        eq = s_eq_rssi_5to6;
    else if (src == MAPS_6G && dst == MAPS_2G)
        eq = s_eq_rssi_6to2;
    else if (src == MAPS_2G && dst == MAPS_6G)
        eq = s_eq_rssi_2to6;
    else
        return 1;
    return (int8_t)srate_calculate(eq, org_rssi);
}

int srate_get_rate_rssi(ssta_status_t *sta, sap_radio_t *radio, int8_t rssi)
{
    if (!sta || !radio) {
        LOG_ERROR("%s:%d, invalid argument");
        return 0;
    }
    const srate_equation_t *eq;
    uint32_t band = radio->work_band;
    if (sta->caps & MAPS_CAP_HE) {
        if (srate_is_5g(band))
            eq = s_eq_rate_2xax_5g;
        else if (band == MAPS_2G)
            eq = s_eq_rate_2xax_2g;
        else if (band == MAPS_6G)
            eq = s_eq_rate_2xax_6g;
        else
            return 0;
    } else if (srate_is_5g(band) && (sta->caps & MAPS_CAP_VHT)) {
        eq = sta->streams < 2 ? s_eq_rate_1xac : s_eq_rate_2xac;
    } else if (!(sta->caps & MAPS_CAP_HT)) {
        eq = s_eq_rate_ag;
    } else {
        eq = sta->streams < 2 ? s_eq_rate_1xn : s_eq_rate_2xn;
    }
    return (int)((int64_t)srate_calculate(eq, rssi) * s_rate_factor / 100);
}

int srate_get_sta_max_rate(ssta_status_t *sta, sap_radio_t *radio)
{
    if (!sta || !radio) {
        LOG_ERROR("%s:%d, invalid argument");
        return 0;
    }
    uint32_t band = radio->work_band;
    if (sta->caps & MAPS_CAP_HE) {
        if (srate_is_5g(band))
            return 601 * sta->streams;
        if (band == MAPS_2G)
            return 143 * sta->streams;
        if (band == MAPS_6G)
            return 1201 * sta->streams;
        return 0;
    }
    if (srate_is_5g(band) && (sta->caps & MAPS_CAP_VHT))
        return 390 * sta->streams;
    if (!(sta->caps & MAPS_CAP_HT))
        return 54;
    return 65 * sta->streams;
}

int srate_share_media_rate(int rate1, int rate2)
{
    if (rate1 <= 0 || rate2 <= 0) {
        LOG_ERROR("%s:%d, invalid argument, arg1 %d, arg2: %d", rate1, rate2);
        return 0;
    }
    return srate_round((double)rate1 * rate2 / ((double)rate1 + rate2));
}

int srate_evaluate_sta2mpp(ssta_status_t *sta, sap_node_t *target_node, sap_radio_t *target_radio, int link_rate)
{
    if (!sta || !target_node || !target_radio) {
        LOG_ERROR("%s:%d, invalid argument");
        return 0;
    }
    sap_bss_t *bss = ssta_get_serving_bss(sta);
    if (!bss) {
        LOG_ERROR("%s:%d, NULL bss of " MAC_FMT, MAC_ARG(sta->mac));
        return 0;
    }
    if (!bss->radio) {
        LOG_ERROR("%s:%d, NULL radio of " MAC_FMT, MAC_ARG(sta->mac));
        return 0;
    }

    // In 64 bits: a heartbeat's rate times a hundredth-percentage fits, and
    // the results are cut to int's range only at the end.
    int64_t own = target_radio->channel == bss->radio->channel ? sta->load : 0;
    int64_t fh = (own + 100 - target_radio->load) * link_rate;

    sap_radio_t *bh_radio = snei_get_backhaul_radio();
    int64_t bhload = 0;
    if (bh_radio) {
        bhload = bh_radio->load;
        if (bhload != 0 && g_self.link_rate2mpp != 0) {
            int link = sven_get_link_rate(bss->ifname, sta->mac);
            if (link == 0) {
                LOG_INFO("%s:%d, invalid link rate to " MAC_FMT, MAC_ARG(sta->mac));
                return 0;
            }
            bhload = std::clamp<int64_t>(bhload - (int64_t)link * sta->load / g_self.link_rate2mpp, 0, 99);
        }
    }
    int64_t bh = (int64_t)target_node->link_rate2mpp * (100 - bhload);

    int rate;
    if (bh_radio && bh_radio->channel == target_radio->channel)
        rate = srate_share_media_rate(srate_clamp(bh / 100), srate_clamp(fh / 100));
    else
        rate = srate_clamp(std::min(fh / 100, bh / 100));
    rate = srate_rd_ratio_cal(target_node, rate);

    LOG_DUMP("%s:%d, channel %u in " MAC_FMT " sta " MAC_FMT ", link rate: %dM, fonthaul rate: %dM, backhaul rate: "
             "%dM, evaluated rate: %dM",
             target_radio->channel, MAC_ARG(target_node->node_id), MAC_ARG(sta->mac), link_rate,
             srate_clamp(fh / 100), srate_clamp(bh / 100), rate);
    return rate;
}
