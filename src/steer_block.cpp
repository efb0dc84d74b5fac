#include "steer_block.h"

#include "maps.h"
#include "steer_drv.h"

namespace {

int sblock_send(const maps_msg_sta_conf_t *conf)
{
    maps_msg_sta_conf_t copy = *conf;
    return sdrv_ioctl(MAPS_CMD_SET_STA, &copy, sizeof(copy), nullptr) == 0 ? 0 : -1;
}

int sblock_disable(ssta_status_t *sta)
{
    maps_msg_sta_conf_t conf = {};
    mac_copy(conf.mac, sta->mac);
    conf.mode = MAPS_BLOCK_DISBALE;
    if (sblock_send(&conf) != 0) {
        LOG_ERROR("%s:%d, ioctl MAPS_CMD_SET_STA failed");
        return -1;
    }
    LOG_DUMP("%s:%d, allow " MAC_FMT " to connect any bss", MAC_ARG(sta->mac));
    return 0;
}

int sblock_default(ssta_status_t *sta)
{
    maps_msg_sta_conf_t conf = {};
    mac_copy(conf.mac, sta->mac);
    conf.mode = MAPS_BLOCK_DEFAULT;
    if (sblock_send(&conf) != 0) {
        LOG_ERROR("%s:%d, ioctl MAPS_CMD_SET_STA failed");
        return -1;
    }
    LOG_DUMP("%s:%d, block " MAC_FMT " according to radio configuration", MAC_ARG(sta->mac));
    return 0;
}

}  // namespace

int sblock_bss(ssta_status_t *sta, const uint8_t *target_bssid, sap_ess_t *ess)
{
    SASSERT(sta);
    SASSERT(target_bssid);
    SASSERT(ess);
    maps_msg_sta_conf_t conf = {};
    mac_copy(conf.mac, sta->mac);
    conf.mode = MAPS_BLOCK_BSS;
    for (sap_bss_t &bss : ess->bss) {
        if (bss.bss_index == 0)
            continue;
        if (bss.bss_index > 31) {
            LOG_ERROR("%s:%d, invalid bss index %u", bss.bss_index);
            continue;
        }
        if (!mac_equal(bss.bssid, target_bssid)) {
            conf.block_bss |= 1u << bss.bss_index;
            LOG_DUMP("%s:%d, block BSS%d for " MAC_FMT, bss.bss_index, MAC_ARG(sta->mac));
        }
    }
    if (sblock_send(&conf) != 0) {
        LOG_ERROR("%s:%d, ioctl MAPS_CMD_SET_STA failed");
        return -1;
    }
    return 0;
}

int sblock_update(ssta_status_t *sta)
{
    SASSERT(sta);
    if (sta->no_block_btm || sta->no_block_boff || sta->no_block_ctl)
        return sblock_disable(sta);
    return sblock_default(sta);
}

int sblock_update_btm(ssta_status_t *sta, bool no_block)
{
    SASSERT(sta);
    sta->no_block_btm = no_block;
    return sblock_update(sta);
}

int sblock_update_boff(ssta_status_t *sta, bool no_block)
{
    SASSERT(sta);
    sta->no_block_boff = no_block;
    return sblock_update(sta);
}

int sblock_update_ctl(ssta_status_t *sta, bool no_block)
{
    SASSERT(sta);
    sta->no_block_ctl = no_block;
    return sblock_update(sta);
}

void sblock_print(FILE *f, ssta_status_t *sta, bool detail)
{
    SASSERT(f);
    SASSERT(sta);
    if (detail) {
        SPRINTF(f, "sblock/no_block_btm: %d\n", sta->no_block_btm);
        SPRINTF(f, "sblock/no_block_boff: %d\n", sta->no_block_boff);
        SPRINTF(f, "sblock/no_block_ctl: %d\n", sta->no_block_ctl);
    } else {
        SPRINTF(f, "sblock/no_block: %d\n", sta->no_block_btm || sta->no_block_boff || sta->no_block_ctl);
    }
}
