/* Finds "needle" once through the installed library; exit 0 on success. */
#include <string.h>

#include <vael/vael_apps.h>

static int hits;

static int on_match(vael_pm_handle *pm, int32_t id, void *arg, const unsigned char *buf, uint32_t len,
                    uint32_t end, vael_vbuf *vbuf, int *keep_going) {
    (void)pm, (void)arg, (void)buf, (void)len, (void)vbuf, (void)keep_going;
    hits += id == 5 && end == 7;
    return 0;
}

int main(void) {
    const char *text = "a needle";
    vael_pm_error err;
    vael_pm_patterns *patterns;
    vael_pm_handle *pm;
    if (vael_apps_init(NULL) != 0)
        return 1;
    patterns = vael_pm_patterns_create();
    vael_pm_patterns_add_simple_pattern(patterns, "needle", 6, 5, 0);
    pm = vael_pm_compile(patterns, on_match, 0, &err, "consumer");
    vael_pm_patterns_destroy(patterns);
    if (!pm)
        return 2;
    vael_pm_exec_ex(pm, (const unsigned char *)text, (uint32_t)strlen(text), NULL, NULL, NULL, 0);
    vael_pm_destroy(pm);
    vael_apps_fini();
    return hits == 1 ? 0 : 3;
}
