#include "steer_sta.h"

#include "maps.h"
#include "steer_conf.h"
#include "steer_drv.h"
#include "steer_ev.h"
#include "steer_msg.h"
#include "steer_nei.h"
#include "steer_ven.h"

namespace {

constexpr int SSTA_HASH_SIZE = 64;
constexpr int SSTA_GC_PERIOD = 90;

ssta_hnode *s_sta_hash_heads[SSTA_HASH_SIZE];
int s_sta_count;
int s_max_sta = 256;
bool s_roam_kick = true;
sev_timer_t *s_gc_timer;

ssta_cb s_sta_init_cb;
ssta_cb s_sta_fini_cb;
ssta_check_useable_cb s_sta_check_useable_cb;
ssta_cb s_sta_status_cb;
ssta_bss_cb s_sta_assoc_cb;
ssta_bss_cb s_sta_disassoc_cb;

ssta_status_t *ssta_of(ssta_hnode *n)
{
    return reinterpret_cast<ssta_status_t *>(reinterpret_cast<char *>(n) - offsetof(ssta_status_t, node));
}

ssta_hnode **ssta_get_hash_head(const uint8_t *mac)
{
    uint32_t h = 0;
    for (size_t i = 0; i < MAC_LEN; i++)
        h = h * 13131 + mac[i];
    return &s_sta_hash_heads[h & (SSTA_HASH_SIZE - 1)];
}

void ssta_link(ssta_status_t *sta)
{
    ssta_hnode **head = ssta_get_hash_head(sta->mac);
    sta->node.next = *head;
    if (*head)
        (*head)->pprev = &sta->node.next;
    *head = &sta->node;
    sta->node.pprev = head;
}

void ssta_remove(ssta_status_t *sta)
{
    if (sta->node.pprev) {
        *sta->node.pprev = sta->node.next;
        if (sta->node.next)
            sta->node.next->pprev = sta->node.pprev;
        sta->node.next = nullptr;
        sta->node.pprev = nullptr;
    }
    if (s_sta_count > 0)
        s_sta_count--;
    else
        LOG_ERROR("%s:%d, wrong sta count");
    if (s_sta_fini_cb)
        s_sta_fini_cb(sta);
}

// Frees the unassociated record that has waited longest among those that no
// module needs even under memory stress (the keep-or-drop callback answers
// false); false when there is none.
bool ssta_spare()
{
    ssta_status_t *oldest = nullptr;
    for (ssta_hnode *head : s_sta_hash_heads) {
        for (ssta_hnode *n = head; n; n = n->next) {
            ssta_status_t *sta = ssta_of(n);
            if (sta->associated || s_sta_check_useable_cb(sta, true))
                continue;
            if (!oldest || sta->last_assoc < oldest->last_assoc)
                oldest = sta;
        }
    }
    if (!oldest)
        return false;
    LOG_DEBUG("%s:%d, release sta " MAC_FMT " for a new one", MAC_ARG(oldest->mac));
    ssta_remove(oldest);
    free(oldest);
    return true;
}

void ssta_gc_handler(void *)
{
    if (!s_sta_check_useable_cb)
        return;
    for (ssta_hnode *&head : s_sta_hash_heads) {
        for (ssta_hnode *n = head, *next; n; n = next) {
            next = n->next;
            ssta_status_t *sta = ssta_of(n);
            if (sta->associated || s_sta_check_useable_cb(sta, false))
                continue;
            LOG_DEBUG("%s:%d, free sta " MAC_FMT, MAC_ARG(sta->mac));
            ssta_remove(sta);
            free(sta);
        }
    }
}

// The event's record, copied out of the driver's buffer; false (logged) when its size is wrong.
bool ssta_event(void *data, uint32_t size, maps_msg_sta_t *msg)
{
    if (size != sizeof(maps_msg_sta_t)) {
        LOG_ERROR("%s:%d, wrong message size %d", (int)size);
        return false;
    }
    memcpy(msg, data, sizeof(*msg));
    return true;
}

void ssta_dump_event(uint8_t event, const maps_msg_sta_t *msg)
{
    LOG_DUMP("%s:%d, event: %d, sta: " MAC_FMT ", bss_index:%d, bands: 0x%x, nss: %d, active: %d, caps: 0x%x, "
             "load: %u%%, rssi: %d, sta_num: %d",
             event, MAC_ARG(msg->mac), msg->bss_index, msg->bands, msg->nss, msg->active, msg->caps, msg->load,
             msg->rssi, msg->sta_num);
}

void ssta_update_status(ssta_status_t *sta, const maps_msg_sta_t *msg, sap_bss_t *bss)
{
    sta->last_rssi = sta->rssi;
    sta->bss_index = msg->bss_index;
    sta->caps = msg->caps;
    sta->active = msg->active != 0;
    sta->load = msg->load;
    sta->streams = msg->nss;
    sta->rssi = msg->rssi;
    sta->bands = msg->bands;
    bss->sta_num = msg->sta_num;
    LOG_DEBUG("%s:%d, sta[" MAC_FMT "], last rssi = %d, now rssi = %d ", MAC_ARG(sta->mac), sta->last_rssi, sta->rssi);
}

void ssta_bcast_associate(const uint8_t *mac, bool associated, uint8_t bss_index)
{
    if (snei_get_cnt() == 0)
        return;
    smsg_dict_t *root = smsg_new_root();
    if (!root) {
        LOG_ERROR("%s:%d, new message failed");
        return;
    }
    smsg_put_mac(root, "sta", mac);
    smsg_put_int(root, "associated", associated ? 1 : 0);
    smsg_put_int(root, "bss", bss_index);
    if (smsg_send(MAC_BCAST, "SSTA_ASSOCIATE", root) != 0)
        LOG_ERROR("%s:%d, send message failed");
    smsg_del_root(root);
}

void ssta_join_handler(uint8_t event, void *data, uint32_t size)
{
    maps_msg_sta_t msg;
    if (!ssta_event(data, size, &msg))
        return;
    ssta_dump_event(event, &msg);

    ssta_status_t *sta = ssta_find(msg.mac);
    if (!sta)
        sta = ssta_new(msg.mac);
    if (!sta) {
        LOG_ERROR("%s:%d, new sta failed, " MAC_FMT, MAC_ARG(msg.mac));
        return;
    }
    sap_bss_t *bss = sap_get_bss(msg.bss_index);
    if (!bss) {
        LOG_ERROR("%s:%d, invalid bss %d", msg.bss_index);
        return;
    }
    sta->last_assoc = g_time;
    ssta_bcast_associate(sta->mac, true, msg.bss_index);
    LOG_INFO("%s:%d, " MAC_FMT " associate bss%u(%s), capability:0x%x, bands:0x%x, rssi:%d", MAC_ARG(sta->mac),
             msg.bss_index, bss->ifname, msg.caps, msg.bands, msg.rssi);

    sap_bss_t *org_bss = nullptr;
    if (sta->associated && sta->bss_index != msg.bss_index) {
        // A band or status event of a station never seen joining leaves it
        // associated without a BSS of ours: there is no old BSS to leave.
        org_bss = sap_get_bss(sta->bss_index);
        (void)SREFUSE(org_bss);
    }
    if (org_bss) {
        if (s_roam_kick) {
            LOG_INFO("%s:%d, " MAC_FMT " has associated to bss%d(%s), kick it on bss%d(%s)", MAC_ARG(sta->mac),
                     msg.bss_index, bss->ifname, org_bss->bss_index, org_bss->ifname);
            sven_kick_sta(org_bss->ifname, sta->mac);
        } else {
            LOG_DEBUG("%s:%d, " MAC_FMT " associate to bss%d(%s) before diassociate bss%d(%s)", MAC_ARG(sta->mac),
                      msg.bss_index, bss->ifname, org_bss->bss_index, org_bss->ifname);
        }
        if (s_sta_disassoc_cb)
            s_sta_disassoc_cb(sta, org_bss);
    }
    ssta_update_status(sta, &msg, bss);
    sta->associated = true;
    if (s_sta_assoc_cb)
        s_sta_assoc_cb(sta, bss);
}

void ssta_leave_handler(uint8_t, void *data, uint32_t size)
{
    maps_msg_sta_t msg;
    if (!ssta_event(data, size, &msg))
        return;
    ssta_status_t *sta = ssta_find(msg.mac);
    if (!sta) {
        LOG_ERROR("%s:%d, can't find " MAC_FMT, MAC_ARG(msg.mac));
        return;
    }
    sap_bss_t *bss = sap_get_bss(msg.bss_index);
    if (!bss) {
        LOG_ERROR("%s:%d, invalid bss %d", msg.bss_index);
        return;
    }
    if (msg.bss_index == sta->bss_index) {
        sta->associated = false;
        if (s_sta_disassoc_cb)
            s_sta_disassoc_cb(sta, bss);
    } else {
        LOG_DEBUG("%s:%d, ignore disassociation, because " MAC_FMT " is associated to bss%u", MAC_ARG(sta->mac),
                  sta->bss_index);
    }
    bss->sta_num = msg.sta_num;
    sta->last_assoc = g_time;
    ssta_bcast_associate(sta->mac, false, msg.bss_index);
    LOG_INFO("%s:%d, " MAC_FMT " disassociate bss%u(%s)", MAC_ARG(sta->mac), msg.bss_index, bss->ifname);
}

void ssta_update_handler(uint8_t event, void *data, uint32_t size)
{
    maps_msg_sta_t msg;
    if (!ssta_event(data, size, &msg))
        return;
    ssta_dump_event(event, &msg);

    ssta_status_t *sta = ssta_find(msg.mac);
    if (sta) {
        if (event != MAPS_EV_STA_BAND && msg.bss_index != sta->bss_index) {
            LOG_DEBUG("%s:%d, bss index of " MAC_FMT " mismatch, associate %d, notify %d", MAC_ARG(sta->mac),
                      sta->bss_index, msg.bss_index);
            return;
        }
    } else {
        LOG_WARN("%s:%d, can't find " MAC_FMT ", create it", MAC_ARG(msg.mac));
        sta = ssta_new(msg.mac);
        if (!sta) {
            LOG_ERROR("%s:%d, new sta failed, " MAC_FMT, MAC_ARG(msg.mac));
            return;
        }
    }
    sta->associated = true;

    if (event == MAPS_EV_STA_BAND) {
        LOG_DEBUG("%s:%d, " MAC_FMT " support band 0x%x(0x%x)", MAC_ARG(sta->mac), msg.bands, sta->bands);
        sta->bands = msg.bands;
        return;
    }
    sap_bss_t *bss = sap_get_bss(msg.bss_index);
    if (!bss) {
        LOG_ERROR("%s:%d, invalid bss %d", msg.bss_index);
        return;
    }
    ssta_update_status(sta, &msg, bss);
    if (s_sta_status_cb)
        s_sta_status_cb(sta);
}

void ssta_msg_handler(const uint8_t *, const uint8_t *sa, const char *, smsg_dict_t *body)
{
    uint8_t mac[MAC_LEN] = {};
    smsg_get_mac(body, "sta", mac);
    int associated = smsg_get_int(body, "associated", nullptr);
    int bss_index = smsg_get_int(body, "bss", nullptr);
    LOG_INFO("%s:%d, " MAC_FMT " %s node " MAC_FMT " bss%d", MAC_ARG(mac), associated ? "associate" : "disassociate",
             MAC_ARG(sa), bss_index);

    if (bss_index < 1 || bss_index > SAP_BSS_INDEX_MAX) {
        LOG_ERROR("%s:%d, invalid bss index %d", bss_index);
        return;
    }
    sap_node_t *node = snei_find(sa);
    if (!node) {
        LOG_INFO("%s:%d, can't find neighbor " MAC_FMT, MAC_ARG(sa));
        return;
    }
    sap_bss_t *nbss = node->managed_bss[bss_index];
    if (!nbss) {
        LOG_ERROR("%s:%d, bss is NULL, neighbor " MAC_FMT ", bss_index %d", MAC_ARG(sa), bss_index);
        return;
    }

    ssta_status_t *sta = ssta_find(mac);
    if (sta) {
        sta->last_assoc = g_time;
        if (associated && s_roam_kick && sta->associated) {
            sap_bss_t *bss = sap_get_bss(sta->bss_index);
            if (bss) {
                LOG_INFO("%s:%d, " MAC_FMT " has connected to another node, kick it on %s", MAC_ARG(mac), bss->ifname);
                sven_kick_sta(bss->ifname, mac);
            }
        }
    }

    if (associated) {
        nbss->sta_num++;
    } else if (nbss->sta_num > 0) {
        nbss->sta_num--;
    } else {
        LOG_ERROR("%s:%d, wrong sta number of BSS%d in NODE " MAC_FMT, bss_index, MAC_ARG(sa));
    }
}

}  // namespace

void ssta_init()
{
    SLOG_REGISTER("sta");
    s_roam_kick = sconf_get_int_def("bandherd.roam_kick", 1) != 0;
    s_max_sta = sconf_get_int_def("bandherd.max_sta", 256);
    s_gc_timer = sev_new_timer(SSTA_GC_PERIOD, ssta_gc_handler, nullptr);
    sdrv_register_event(MAPS_EV_STA_BAND, ssta_update_handler);
    sdrv_register_event(MAPS_EV_STA_JOIN, ssta_join_handler);
    sdrv_register_event(MAPS_EV_STA_LEAVE, ssta_leave_handler);
    sdrv_register_event(MAPS_EV_STA_STATUS, ssta_update_handler);
    smsg_register("SSTA_ASSOCIATE", ssta_msg_handler);
}

void ssta_exit()
{
    if (s_gc_timer) {
        sev_del_timer(s_gc_timer);
        s_gc_timer = nullptr;
    }
    // Every record goes, each through the fini callback, so that the modules
    // free what they hung on it and lift what they asked of the driver.
    for (ssta_hnode *&head : s_sta_hash_heads) {
        while (head) {
            ssta_status_t *sta = ssta_of(head);
            ssta_remove(sta);
            free(sta);
        }
    }
}

#define SSTA_SET_CB(fn, slot, type)                          \
    void fn(type cb)                                         \
    {                                                        \
        SASSERT(cb);                                         \
        if (slot)                                            \
            LOG_WARN("%s:%d, " #slot " is not NULL");        \
        slot = cb;                                           \
    }

SSTA_SET_CB(ssta_set_init_cb, s_sta_init_cb, ssta_cb)
SSTA_SET_CB(ssta_set_fini_cb, s_sta_fini_cb, ssta_cb)
SSTA_SET_CB(ssta_set_check_useable_cb, s_sta_check_useable_cb, ssta_check_useable_cb)
SSTA_SET_CB(ssta_set_status_cb, s_sta_status_cb, ssta_cb)
SSTA_SET_CB(ssta_set_assoc_cb, s_sta_assoc_cb, ssta_bss_cb)
SSTA_SET_CB(ssta_set_disassoc_cb, s_sta_disassoc_cb, ssta_bss_cb)

ssta_status_t *ssta_find(const uint8_t *mac)
{
    for (ssta_hnode *n = *ssta_get_hash_head(mac); n; n = n->next) {
        ssta_status_t *sta = ssta_of(n);
        if (mac_equal(sta->mac, mac))
            return sta;
    }
    return nullptr;
}

ssta_status_t *ssta_new(const uint8_t *mac)
{
    SASSERT(mac);
    if (s_sta_count >= s_max_sta && (!s_sta_check_useable_cb || !ssta_spare())) {
        LOG_WARN("%s:%d, too many stations are maintained, support %d stations", s_max_sta);
        return nullptr;
    }
    auto *sta = static_cast<ssta_status_t *>(calloc(1, sizeof(ssta_status_t)));
    if (!sta) {
        LOG_ERROR("%s:%d, malloc failed!");
        return nullptr;
    }
    mac_copy(sta->mac, mac);
    ssta_link(sta);
    s_sta_count++;
    if (s_sta_init_cb)
        s_sta_init_cb(sta);
    LOG_DEBUG("%s:%d, new sta " MAC_FMT, MAC_ARG(mac));
    return sta;
}

int ssta_get_count()
{
    return s_sta_count;
}

void ssta_iterate(ssta_iterate_cb cb, void *data)
{
    SASSERT(cb);
    for (ssta_hnode *head : s_sta_hash_heads) {
        for (ssta_hnode *n = head, *next; n; n = next) {
            next = n->next;
            if (cb(ssta_of(n), data))
                return;
        }
    }
}

sap_bss_t *ssta_get_serving_bss(ssta_status_t *sta)
{
    SASSERT(sta);
    return sap_get_bss(sta->bss_index);
}

sap_ess_t *ssta_get_serving_ess(ssta_status_t *sta)
{
    sap_bss_t *bss = ssta_get_serving_bss(sta);
    if (!bss) {
        LOG_ERROR("%s:%d, get bss failed");
        return nullptr;
    }
    if (!bss->ess) {
        LOG_ERROR("%s:%d, NULL ess of bss%u", bss->bss_index);
        return nullptr;
    }
    if (bss->ess->essid[0] == '\0') {
        LOG_ERROR("%s:%d, invalid ess of bss%u", bss->bss_index);
        return nullptr;
    }
    return bss->ess;
}

sap_radio_t *ssta_get_serving_radio(ssta_status_t *sta)
{
    sap_bss_t *bss = ssta_get_serving_bss(sta);
    if (!bss) {
        LOG_ERROR("%s:%d, get bss failed");
        return nullptr;
    }
    if (!bss->radio) {
        LOG_ERROR("%s:%d, NULL radio of bss%u", bss->bss_index);
        return nullptr;
    }
    if (bss->radio->channel == 0) {
        LOG_ERROR("%s:%d, invalid radio of bss%u", bss->bss_index);
        return nullptr;
    }
    return bss->radio;
}

void ssta_print(FILE *f, ssta_status_t *sta)
{
    SASSERT(f);
    SASSERT(sta);
    SPRINTF(f, "\n[" MAC_FMT "]\n", MAC_ARG(sta->mac));
    SPRINTF(f, "ssta/is_associated: %d\n", sta->associated);
    SPRINTF(f, "ssta/associated_bss: BSS%d\n", sta->bss_index);
    SPRINTF(f, "ssta/supported_bands: %s%s%s%s\n", (sta->bands & MAPS_2G) ? "2G " : "",
            (sta->bands & MAPS_5L) ? "5G_low " : "", (sta->bands & MAPS_5H) ? "5G_high " : "",
            (sta->bands & MAPS_6G) ? "6G " : "");
    SPRINTF(f, "ssta/capabilities: %s%s%s%s%s\n", (sta->caps & MAPS_CAP_HT) ? "HT " : "",
            (sta->caps & MAPS_CAP_VHT) ? "VHT " : "", (sta->caps & MAPS_CAP_HE) ? "HE " : "",
            (sta->caps & MAPS_CAP_BTM) ? "BTM " : "", (sta->caps & MAPS_CAP_RRM) ? "RRM " : "");
    SPRINTF(f, "ssta/rssi: %ddBm\n", sta->rssi);
    SPRINTF(f, "ssta/is_active: %d\n", sta->active);
    SPRINTF(f, "ssta/spatial_streams: %d\n", sta->streams);
    SPRINTF(f, "ssta/media_utilization: %d%%\n", sta->load);
}
