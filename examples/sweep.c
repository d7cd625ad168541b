/* A swept spectrum through the API, on a simulated LX530: plug in an analyzer
 * whose input sees two tones, open it, set span, resolution and video
 * bandwidth, detector and window, configure the sweep, run it once and look
 * up what the trace shows. Build it like hello_lx.c:
 *   cc sweep.c $(pkg-config --cflags --libs lx_api) -o sweep
 * For an analyzer on the bus, leave out the lxSim calls and open it with
 * lxOpenDevice. */
#include <stdio.h>
#include <stdlib.h>

#include <lx_api.h>
#include <lx_sim.h>

/* Errors stop the program; warnings (a clamped setting, an overload) are
 * shown and the data still used. */
static int ok(LxStatus status, const char* what) {
    if (status < 0) {
        fprintf(stderr, "%s: %s (%d)\n", what, lxGetErrorString(status), (int)status);
        return 0;
    }
    if (status > 0) fprintf(stderr, "warning: %s: %s\n", what, lxGetErrorString(status));
    return 1;
}

int main(void) {
    const int32_t serial = 10000042;
    const char* scene =
        "{\"emitters\": ["
        "  {\"kind\": \"tone\", \"frequency_hz\": 433.92e6, \"power_dbm\": -30},"
        "  {\"kind\": \"tone\", \"frequency_hz\": 915.0e6, \"power_dbm\": -55}],"
        " \"noise_floor_dbm_hz\": -160}";
    const double lookups[] = {433.92e6, 915.0e6, 700.0e6};
    int32_t handle = -1, length = 0, best = 0, i;
    double rbw = 0, vbw = 0, start = 0, bin = 0;
    float* maxTrace = NULL;
    int result = 1;
    size_t k;

    if (!ok(lxSimAttach(serial, scene), "attaching the simulated analyzer")) return 1;
    if (!ok(lxOpenDeviceBySerial(&handle, serial), "opening it")) goto unplug;

    /* Settings are only stored until lxConfigure takes them to the analyzer. */
    if (!ok(lxSetSweepStartStop(handle, 100e6, 1e9), "setting the span") ||
        !ok(lxSetSweepCoupling(handle, 100e3, 10e3, 1e-6), "setting RBW, VBW and sweep time") ||
        !ok(lxSetSweepDetector(handle, lxDetectorAverage, lxVideoPower), "setting the detector") ||
        !ok(lxSetSweepWindow(handle, lxWindowFlatTop), "setting the window") ||
        !ok(lxSetRefLevel(handle, -20.0), "setting the reference level") ||
        !ok(lxConfigure(handle, lxModeSweep), "configuring the sweep"))
        goto close;

    /* The trace's size and frequencies are known only after lxConfigure. */
    if (!ok(lxGetSweepParameters(handle, &rbw, &vbw, &start, &bin, &length), "reading the sweep parameters"))
        goto close;
    maxTrace = malloc((size_t)length * sizeof *maxTrace);
    if (!maxTrace) goto close;
    /* Every output is optional: only the max trace here. */
    if (!ok(lxGetSweep(handle, NULL, maxTrace, NULL), "sweeping")) goto close;

    printf("%d points from %.3f MHz, %.3f kHz apart; RBW %.1f kHz, VBW %.1f kHz\n", (int)length, start / 1e6,
           bin / 1e3, rbw / 1e3, vbw / 1e3);
    for (i = 1; i < length; ++i)
        if (maxTrace[i] > maxTrace[best]) best = i;
    printf("strongest point: %.3f MHz, %.2f dBm\n", (start + bin * best) / 1e6, maxTrace[best]);
    for (k = 0; k < sizeof lookups / sizeof lookups[0]; ++k) {
        /* Point i lies at start + i * bin. */
        const long at = (long)((lookups[k] - start) / bin + 0.5);
        if (at >= 0 && at < length) printf("at %.3f MHz: %.2f dBm\n", lookups[k] / 1e6, maxTrace[at]);
    }
    result = 0;

close:
    free(maxTrace);
    if (!ok(lxCloseDevice(handle), "closing the analyzer")) result = 1;
unplug:
    lxSimDetach(serial);
    return result;
}
