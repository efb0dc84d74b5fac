#include "steer_ctl.h"

#include "steer_act.h"
#include "steer_block.h"

namespace {

sctl_sta_t *sctl_of(ssta_status_t *sta)
{
    return static_cast<sctl_sta_t *>(sta->ctl);
}

void sctl_init_sta(ssta_status_t *sta)
{
    SASSERT(sta);
    SASSERT(!sta->ctl);
    auto *sta_ctl = static_cast<sctl_sta_t *>(calloc(1, sizeof(sctl_sta_t)));
    if (!sta_ctl) {
        LOG_FATAL("%s:%d, new sta_ctl failed");
        abort();
    }
    sta->ctl = sta_ctl;
    sact_sta_init(sta);
}

void sctl_fini_sta(ssta_status_t *sta)
{
    SASSERT(sta);
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    sblock_update_ctl(sta, false);
    sact_sta_fini(sta);
    if (sta_ctl->offload_list.linked()) {
        sta_ctl->offload_list.prev->next = sta_ctl->offload_list.next;
        sta_ctl->offload_list.next->prev = sta_ctl->offload_list.prev;
    }
    free(sta_ctl);
    sta->ctl = nullptr;
}

bool sctl_sta_useable(ssta_status_t *sta, bool mem_stress)
{
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    if (sta_ctl->state != SCTL_STA_STATE_IDLE || sta_ctl->protected_)
        return true;
    return sact_sta_useable(sta, mem_stress);
}

void sctl_sta_assoc(ssta_status_t *sta, sap_bss_t *bss)
{
    sact_sta_join_event(sta, bss);
}

void sctl_sta_disassoc(ssta_status_t *sta, sap_bss_t *bss)
{
    SASSERT(sta);
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    sact_sta_leave_event(sta, bss);
    if (sta_ctl->state != SCTL_STA_STATE_IDLE && sta_ctl->state != SCTL_STA_STATE_STEERING) {
        LOG_WARN("%s:%d, override state of " MAC_FMT " to idle", MAC_ARG(sta->mac));
        sta_ctl->state = SCTL_STA_STATE_IDLE;
    }
}

}  // namespace

void sctl_init()
{
    SLOG_REGISTER("ctl");
    ssta_set_init_cb(sctl_init_sta);
    ssta_set_fini_cb(sctl_fini_sta);
    ssta_set_assoc_cb(sctl_sta_assoc);
    ssta_set_disassoc_cb(sctl_sta_disassoc);
    ssta_set_check_useable_cb(sctl_sta_useable);
    sact_init();
}

void sctl_exit()
{
    sact_exit();
}

void sctl_act_result_handler(ssta_status_t *sta, const uint8_t *bssid, bool success)
{
    SASSERT(bssid);
    SASSERT(sta);
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    if (sta_ctl->state != SCTL_STA_STATE_STEERING) {
        LOG_WARN("%s:%d, sta " MAC_FMT " wrong state %d", MAC_ARG(sta->mac), sta_ctl->state);
        return;
    }
    sta_ctl->state = SCTL_STA_STATE_IDLE;
    LOG_DEBUG("%s:%d, steer " MAC_FMT " to " MAC_FMT " %s", MAC_ARG(sta->mac), MAC_ARG(bssid),
              success ? "success" : "failed");
}

void sctl_print_sta(FILE *f, ssta_status_t *sta)
{
    SASSERT(f);
    SASSERT(sta);
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    fprintf(f, "sctl/protected: %d\n", sta_ctl->protected_);
    switch (sta_ctl->state) {
    case SCTL_STA_STATE_IDLE:
        fprintf(f, "sctl/state: idle\n");
        break;
    case SCTL_STA_STATE_MEASURING:
        fprintf(f, "sctl/state: measuring\n");
        break;
    case SCTL_STA_STATE_STEERING:
        fprintf(f, "sctl/state: steering\n");
        break;
    default:
        fprintf(f, "sctl/state: unknown\n");
        break;
    }
}
