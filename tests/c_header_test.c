/* Compiles the public headers as C99 (the virtual-buffer header first, so it
 * stands alone) and runs the plain road and the error road through them. */
#include "vael/vael_vbuf.h"

#include <stdio.h>
#include <string.h>

#include "vael/vael_apps.h"
#include "vael/vael_dfa.h"
#include "vael/vael_lookup3.h"

static int hits;

static int on_match(vael_pm_handle *pm, int32_t pattern_id, void *user_arg, const unsigned char *buf, uint32_t len,
                    uint32_t offset, vael_vbuf *vbuf, int *keep_going) {
    (void)pm, (void)user_arg, (void)buf, (void)len, (void)vbuf, (void)keep_going;
    if (pattern_id == 7 && offset == 7)
        hits++;
    return 0;
}

int main(void) {
    const char *text = "GET /etc/passwd";
    vael_pm_error err;
    vael_pm_patterns *patterns;
    vael_pm_handle *pm;
    vael_pm_mask *mask;
    int rc, masked;

    if (vael_apps_init(NULL) != 0 || vael_hashlittle("", 0, 0) != 0xdeadbeefu)
        return 1;
    patterns = vael_pm_patterns_create();
    if (!patterns || vael_pm_patterns_add_simple_pattern(patterns, "/etc", 4, 7, 0) != 0)
        return 2;
    pm = vael_pm_compile(patterns, on_match, 0, &err, "c-test");
    /* A phrase with no word in it is refused: the error names its id. */
    vael_pm_patterns_add_word(patterns, "--", 2, 9, 0);
    if (vael_pm_compile(patterns, on_match, 0, &err, "c-test") != NULL || err.pattern_id != 9 ||
        err.error_type != VAEL_PM_ERROR_ILLEGAL || !err.error_string)
        return 3;
    vael_pm_patterns_destroy(patterns);
    if (!pm)
        return 4;
    mask = vael_pm_mask_create(pm);
    masked = vael_pm_exec_ex(pm, (const unsigned char *)text, (uint32_t)strlen(text), NULL, mask, NULL, 0);
    rc = vael_pm_exec_ex(pm, (const unsigned char *)text, (uint32_t)strlen(text), NULL, NULL, NULL, 0);
    vael_pm_mask_destroy(mask);
    vael_pm_destroy(pm);
    vael_apps_fini();
    if (rc != 0 || masked != 0 || hits != 1) {
        fprintf(stderr, "rc %d masked %d hits %d\n", rc, masked, hits);
        return 5;
    }
    return 0;
}
