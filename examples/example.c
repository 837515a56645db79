/* Lists the databases of a cluster and, for each, its services and whether they are enabled.
 *
 * Build:  cc -std=c99 example.c -lkeyview12 -lkeyview-host
 * Run:    KEYVIEW_REGISTRY=lmdb:/var/lib/keyview ./a.out
 */
#include <keyview/keyview_host.h>
#include <keyview/prsr.h>
#include <stdio.h>

/* The library hands this on to the lock service, which expects 224 bytes. */
static uint64_t status[28];

static int fail(const char *what, int32_t rc) {
    fprintf(stderr, "example: %s: code %d: %s\n", what, (int)rc, keyview_host_last_error());
    return 1;
}

static int print_database(prsr_ctx *ctx, const char *dbname) {
    prsr_cfg *cfg = NULL;
    int32_t rc = prsr_fetch_db_config(status, ctx, dbname, &cfg);
    if (rc != PRSR_SUCCESS) return fail(dbname, rc);

    printf("%s\n", cfg->sp_name);
    for (uint32_t n = 0; n < cfg->service_count; ++n) {
        const prsr_srv_cfg *service = cfg->services[n];
        printf("    %-28s %s\n", service->name, service->enabled ? "enabled" : "disabled");
    }
    (void)prsr_release_db_config(status, ctx, cfg);
    return 0;
}

static int print_databases(prsr_ctx *ctx) {
    char **names = NULL;
    uint32_t count = 0;
    int32_t rc = prsr_list_db(status, ctx, &names, &count);
    int failed = rc == PRSR_SUCCESS ? 0 : fail("the databases cannot be listed", rc);

    for (uint32_t n = 0; n < count && !failed; ++n)
        failed = print_database(ctx, names[n]);
    if (names != NULL) (void)prsr_release_db_list(status, ctx, names, count);
    return failed;
}

int main(void) {
    prsr_ctx *ctx = NULL;
    int32_t rc = prsr_init(status, &ctx);
    if (rc != PRSR_SUCCESS) return fail("no context", rc);

    int failed = print_databases(ctx);
    (void)prsr_terminate(status, ctx);
    return failed;
}
