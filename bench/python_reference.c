/* The C side of bench/python_vs_c.py: the same sweeps and I/Q reads the
 * Python package makes, through the C API, on the same scene.
 *   python_reference sweep|iq COUNT SCENE_JSON
 * Prints "<seconds> <items>": COUNT sweeps, or COUNT blocks of 65536 samples
 * at 61.44 MS/s, timed after one warm-up sweep or block. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <lx_api.h>
#include <lx_sim.h>

static double now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + 1e-9 * (double)t.tv_nsec;
}

static void check(LxStatus s, const char* what) {
    if (s < 0) {
        fprintf(stderr, "%s: %s\n", what, lxGetErrorString(s));
        exit(1);
    }
}

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const int count = atoi(argv[2]);
    const int32_t serial = 10000099;
    int32_t h = -1;
    check(lxSimAttach(serial, argv[3]), "attach");
    check(lxOpenDeviceBySerial(&h, serial), "open");
    double t0 = 0, t1 = 0;
    if (strcmp(argv[1], "sweep") == 0) {
        check(lxSetSweepCenterSpan(h, 1e9, 100e6), "span");
        check(lxSetSweepCoupling(h, 30e3, 30e3, 1e-6), "coupling");
        check(lxConfigure(h, lxModeSweep), "configure");
        int32_t n = 0;
        check(lxGetSweepParameters(h, NULL, NULL, NULL, NULL, &n), "parameters");
        float* mn = malloc(sizeof(float) * (size_t)n);
        float* mx = malloc(sizeof(float) * (size_t)n);
        uint64_t ts;
        check(lxGetSweep(h, mn, mx, &ts), "sweep");
        t0 = now();
        for (int i = 0; i < count; ++i) check(lxGetSweep(h, mn, mx, &ts), "sweep");
        t1 = now();
        free(mn);
        free(mx);
    } else {
        check(lxSetIQCenterFreq(h, 1e9), "centre");
        check(lxSetIQSampleRate(h, 1), "rate");
        check(lxConfigure(h, lxModeIQ), "configure");
        const int32_t block = 65536;
        float* iq = malloc(sizeof(float) * 2 * (size_t)block);
        uint64_t ts;
        int32_t loss;
        check(lxGetIQ(h, iq, block, NULL, 0, &ts, 0, &loss, NULL), "iq");
        t0 = now();
        for (int i = 0; i < count; ++i) check(lxGetIQ(h, iq, block, NULL, 0, &ts, 0, &loss, NULL), "iq");
        t1 = now();
        free(iq);
    }
    printf("%.6f %d\n", t1 - t0, count);
    lxCloseDevice(h);
    lxSimDetach(serial);
    return 0;
}
