/*
 * A sync domain over one or more chassis, started and then watched: every
 * second it asks whether the domain stayed coherent since the last check.
 *
 *   domainWatch CHECKS HOST[:PORT]@DAEMONPORT...
 *   domainWatch 5 127.0.0.1:41321@33667 127.0.0.1:45779@35495
 *
 * The required timescale is the host clock. Exit 0 when coherency held over
 * every check, 1 when it was lost or not reached, 2 on a library error.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "ztsdlib/ztsdlib.h"

#define MAX_CHASSIS 16

int main(int argc, char** argv) {
    zterr_Status status = {0, 0, ztsdlib_Status_defaultReallocate, NULL};
    ztsdlib_SyncableDevice* devices[MAX_CHASSIS] = {NULL};
    ztsdlib_Timescale** timescales[MAX_CHASSIS] = {NULL};
    uint32_t counts[MAX_CHASSIS] = {0};
    int chassis = argc - 2, c, check, held = 1, started = 0;
    uint32_t i;
    if (argc < 3 || chassis > MAX_CHASSIS || atoi(argv[1]) < 1) {
        fprintf(stderr, "usage: %s CHECKS HOST[:PORT]@DAEMONPORT... (at most %d chassis)\n", argv[0], MAX_CHASSIS);
        return 2;
    }

    ztsdlib_Timescale* host = ztsdlib_HostTimescale_create(ZTSDLIB_HOST_TIMESCALE_URI, &status);
    void* pool = ztsdlib_ThreadPool_create((uint32_t)chassis, &status);
    ztsdlib_SyncDomain* domain = ztsdlib_SyncDomain_create("/localhost/example/syncDomains/watched", host,
                                                           1000 /* maxOffset_ns */, 100 /* minSyncDuration_ms */,
                                                           pool, &status);
    for (c = 0; c < chassis; ++c) {
        char params[512];
        const char* at = strrchr(argv[c + 2], '@');
        if (at == NULL) {
            fprintf(stderr, "'%s' has no @DAEMONPORT\n", argv[c + 2]);
            held = 0;
            break;
        }
        snprintf(params, sizeof params,
                 "{\"version\":1,\"type\":\"networkDeviceParams\","
                 "\"params\":{\"remoteHost\":\"%.*s\",\"timestampDaemonPort\":%d}}",
                 (int)(at - argv[c + 2]), argv[c + 2], atoi(at + 1));
        ztsdlib_loadProxyResources(params, &devices[c], &timescales[c], &counts[c], malloc, &status);
        ztsdlib_SyncDomain_addSyncableDevice(domain, devices[c], &status);
    }

    if (held && ztsdlib_SyncDomain_start(domain, 30 /* timeout_s */, &status)) {
        started = 1;
        printf("started: coherent\n");
        for (check = 1; check <= atoi(argv[1]) && status.code >= 0; ++check) {
            sleep(1);
            const int since = ztsdlib_SyncDomain_isCoherentSinceLastChecked(domain, &status);
            printf("check %d: coherent since the last check: %s\n", check, since ? "yes" : "NO");
            fflush(stdout);
            if (!since) held = 0;
        }
        ztsdlib_SyncDomain_stop(domain, &status);
    } else if (held && status.code >= 0) {
        printf("coherency not reached\n");
    }
    if (status.code < 0) fprintf(stderr, "error %d: %s\n", (int)status.code, status.json ? status.json : "");
    const int exitStatus = status.code < 0 ? 2 : (started && held ? 0 : 1);

    ztsdlib_SyncDomain_delete(domain); /* the domain before what it refers to */
    ztsdlib_ThreadPool_delete(pool);
    for (c = 0; c < chassis; ++c) {
        ztsdlib_SyncableDevice_delete(devices[c]);
        for (i = 0; i < counts[c]; ++i) ztsdlib_Timescale_delete(timescales[c][i]);
        free(timescales[c]);
    }
    ztsdlib_Timescale_delete(host);
    status.reallocate(&status, 0);
    return exitStatus;
}
