/*
 * vael_apps.h - start and stop the library, and the umbrella header.
 *
 * A process calls vael_apps_init (or vael_apps_init_multik for a host with
 * several instances) once before any other call, and vael_apps_fini once at
 * the end, after every PM is destroyed.
 */
#ifndef VAEL_APPS_H
#define VAEL_APPS_H

#include "vael/vael_htab.h"
#include "vael/vael_kw_gen.h"
#include "vael/vael_list.h"
#include "vael/vael_params.h"
#include "vael/vael_pm.h"
#include "vael/vael_pm_selftest.h"
#include "vael/vael_pm_verify.h"
#include "vael/vael_pm_stats.h"
#include "vael/vael_pmglob.h"
#include "vael/vael_rem.h"
#include "vael/vael_thin_nfa.h"
#include "vael/vael_us_adaptor.h"
#include "vael/vael_vbuf.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The host's control channel. A host without one passes null functions. */
/* ioctl(number, record) performs one request, 0 on success. */
typedef int (*vael_apps_ioctl_fn)(int number, void *record);
typedef int (*vael_apps_get_ioctl_num_fn)(void);
typedef int (*vael_apps_ioctl_multik_fn)(int number, void *record, int instance);
typedef int (*vael_apps_get_instance_range_fn)(int *first, int *last);

typedef struct vael_apps_callbacks {
    vael_apps_ioctl_fn ioctl;
    vael_apps_get_ioctl_num_fn get_ioctl_num;
} vael_apps_callbacks;

typedef struct vael_apps_callbacks_multik {
    vael_apps_ioctl_fn ioctl;
    vael_apps_get_ioctl_num_fn get_ioctl_num;
    vael_apps_ioctl_multik_fn ioctl_multik;
    vael_apps_get_instance_range_fn get_instance_range;
} vael_apps_callbacks_multik;

/* The record of one control request, as the host's ioctl receives it. */
typedef struct vael_ctl_record {
    uint32_t command;  /* what is asked, e.g. VAEL_HTAB_CTL_COMMAND */
    void *data;        /* the request's block, in and out */
    uint32_t reserved; /* not used by the library's requests */
    uint32_t data_len; /* bytes at data */
} vael_ctl_record;

/* The hooks in force: the host's, once an init has run; before that,
 * stand-ins that report the missing init and fail. Control tools send their
 * requests through vael_ioctl_func_multik with the number that
 * vael_get_ioctl_num gives; instance -1 is the host's default one. */
extern vael_apps_ioctl_fn vael_ioctl_func;
extern vael_apps_get_ioctl_num_fn vael_get_ioctl_num;
extern vael_apps_ioctl_multik_fn vael_ioctl_func_multik;
extern vael_apps_get_instance_range_fn vael_get_instance_range;

/* Result 0 or -1. A null callbacks record is taken as a host without a
 * control channel. */
int vael_apps_init(const vael_apps_callbacks *callbacks);
int vael_apps_init_multik(const vael_apps_callbacks_multik *callbacks);
void vael_apps_fini(void);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_APPS_H */
