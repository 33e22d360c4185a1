// vael_pm_glue.cpp - start and stop of the library, and the control-channel
// hooks a host hands in at start.
//
// Until a host has called an init, every hook is a stand-in that reports the
// missing init and fails, so a control tool that runs too early is told why.

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "pm/vael_pm_internal.h"
#include "runtime/vael_runtime.h"
#include "vael/vael_apps.h"

extern "C" void vael_us_adaptor_error(int status, int errnum, const char *format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    vael_us_adaptor_kdprintf("error (status %d, errno %d): %s", status, errnum, text);
}

namespace {

void report_not_initialized() { vael_us_adaptor_error(1, 0, "vael_apps_init function was not called\n"); }

int stub_ioctl(int, void *) {
    report_not_initialized();
    return -1;
}
int stub_get_ioctl_num() {
    report_not_initialized();
    return -1;
}
int stub_ioctl_multik(int, void *, int) {
    report_not_initialized();
    return -1;
}
int stub_get_instance_range(int *, int *) {
    report_not_initialized();
    return -1;
}

}  // namespace

vael_apps_ioctl_fn vael_ioctl_func = stub_ioctl;
vael_apps_get_ioctl_num_fn vael_get_ioctl_num = stub_get_ioctl_num;
vael_apps_ioctl_multik_fn vael_ioctl_func_multik = stub_ioctl_multik;
vael_apps_get_instance_range_fn vael_get_instance_range = stub_get_instance_range;

namespace {

// A host with one instance: every request goes to its plain ioctl.
int forward_ioctl_multik(int number, void *record, int instance) {
    if (!vael_ioctl_func)
        return -1;
    return vael_ioctl_func(number, record);
}

int single_instance_range(int *first, int *last) {
    if (first)
        *first = 0;
    if (last)
        *last = 0;
    return 0;
}

// The adaptor cannot fail and is not undone; a failed step undoes the ones
// before it.
int vael_apps_internal_init() {
    vael_us_adaptor_init();
    bool ok = vael_htab_ini() == 0;
    if (ok && vael_pm_init() != 0) {
        vael_htab_fini();
        ok = false;
    }
    if (!ok) {
        vael_us_adaptor_error(1, 0, "%s: Unable to init vael_apps module\n", "vael_apps_internal_init");
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

}  // namespace

extern "C" int vael_apps_init(const vael_apps_callbacks *callbacks) {
    vael_ioctl_func = callbacks ? callbacks->ioctl : nullptr;
    vael_get_ioctl_num = callbacks ? callbacks->get_ioctl_num : nullptr;
    vael_ioctl_func_multik = forward_ioctl_multik;
    vael_get_instance_range = single_instance_range;
    return vael_apps_internal_init();
}

extern "C" int vael_apps_init_multik(const vael_apps_callbacks_multik *callbacks) {
    vael_ioctl_func = callbacks ? callbacks->ioctl : nullptr;
    vael_get_ioctl_num = callbacks ? callbacks->get_ioctl_num : nullptr;
    vael_ioctl_func_multik = callbacks ? callbacks->ioctl_multik : nullptr;
    vael_get_instance_range = callbacks ? callbacks->get_instance_range : nullptr;
    return vael_apps_internal_init();
}

extern "C" void vael_apps_fini(void) {
    vael_pm_fini();
    vael_htab_fini();
    vael_us_adaptor_fini();
}
