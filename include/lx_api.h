/*
 * lx_api: host library of the LX530 USB spectrum analyzer and I/Q receiver.
 *
 * Every function returns an LxStatus: 0 is success, negative values are
 * errors (the call did nothing, or failed part-way as documented), positive
 * values are warnings that still deliver data. Test for failure with `< 0`.
 *
 * Devices are addressed by a handle 0..8 returned by the open functions.
 * Setters only store; settings reach the instrument at lxConfigure.
 *
 * Threads: every function may be called from any thread. Calls on one open
 * handle are serialised; a blocking getter (lxGetSweep) lets other calls on
 * its handle through while it waits, so a user interface may poll
 * diagnostics, GPS or fan while another thread sweeps: those answer with
 * the readings the analyzer last reported (the sweep's status packet keeps
 * them current), and commands (lxSetReference, lxSetFanSetPoint, ...) are
 * sent once the sweep's data transfer has finished. A configure, abort or
 * close on another thread ends a pending lxGetSweep (see there). Opening
 * and closing may happen on any thread too; a call on a handle being closed
 * either finishes first or returns lxInvalidDeviceErr.
 *
 * Usable from C (C11) and C++. The service functions (lxCal*, lxAdmin*,
 * lxBoot*, kdCalDoesCorrectionsExist) use C++ linkage and are declared in the
 * C++-only section at the end of this header.
 */
#ifndef LX_API_H
#define LX_API_H

#include <stdint.h>

#if defined(LX_BUILDING_LIBRARY)
#define LX_API __attribute__((visibility("default")))
#else
#define LX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Status of every call. Values outside this list are never returned. */
typedef enum LxStatus {
    lxFlashTransferErr = -101,      /* "Flash transfer error" */
    lxFileIOErr = -100,             /* "File I/O error" */
    lxAllocationErr = -11,          /* "Memory allocation error" */
    lxMaxDevicesConnectedErr = -10, /* "Max devices connected" */
    lxInvalidConfigurationErr = -9, /* "Invalid configuration" */
    lxSweepAlreadyActiveErr = -8,   /* "Sweep already active" */
    lxBootErr = -7,                 /* "Boot error" */
    lxFramingErr = -6,              /* "USB framing error" */
    lxConnectionLostErr = -5,       /* "Connection lost" */
    lxInvalidDeviceErr = -4,        /* "Invalid device specified" */
    lxNullPtrErr = -3,              /* "Null pointer specified" */
    lxInvalidParameterErr = -2,     /* "Invalid parameter specified" */
    lxDeviceNotFoundErr = -1,       /* "Device not found" */
    lxNoError = 0,                  /* "No error" */
    lxSettingClamped = 1,           /* "Setting clamped" */
    lxTempDrift = 2,                /* "Temp drift warning" */
    lxADCOverflow = 3,              /* "ADC overflow" */
    lxUncalData = 4,                /* "Uncal data, potential USB data loss" */
    lxCPULimited = 5,               /* "Exceeded CPU resources" */
    lxInvalidCalData = 6            /* "Invalid calibration data" */
} LxStatus;

/*
 * The enumerations below are passed across the API as 32-bit integers; the
 * names exist for readable application code. A value outside the range the
 * receiving setter accepts returns lxInvalidParameterErr and stores nothing.
 */

/* Measurement mode: argument of lxConfigure, result of lxGetCurrentMode. */
typedef enum LxMode {
    lxModeIdle = 0,
    lxModeSweep = 1,        /* swept spectrum; spans below 5 MHz use one decimated capture */
    lxModeRealTime = 2,     /* real-time spectrum with density frame (streaming) */
    lxModeIQ = 3,           /* continuous I/Q (streaming) */
    lxModeIQSweepList = 4,  /* I/Q captures at a list of stepped frequencies */
    lxModeAudio = 5,        /* demodulated audio (streaming) */
    lxModeFullBandIQ = 100  /* full-band I/Q capture (service) */
} LxMode;

/* Detector of sweeps and real-time frames. */
typedef enum LxDetector {
    lxDetectorAverage = 0,
    lxDetectorMinMax = 1
} LxDetector;

/* Video processing units of the sweep detector. */
typedef enum LxVideoUnits {
    lxVideoLog = 0,     /* power in dB */
    lxVideoVoltage = 1, /* magnitude */
    lxVideoPower = 2,   /* power */
    lxVideoSample = 3   /* power of a single segment, no averaging */
} LxVideoUnits;

/* Amplitude scale of sweeps and real-time frames. */
typedef enum LxScale {
    lxScaleLog = 0,          /* dBm */
    lxScaleLinear = 1,       /* millivolts */
    lxScaleLogNoStepGain = 2 /* dBm without the per-step gain correction */
} LxScale;

/* FFT window of sweeps and real-time frames. */
typedef enum LxWindow {
    lxWindowFlatTop = 0,
    lxWindowNuttall = 1,
    lxWindowBlackman = 2,
    lxWindowHamming = 3,
    lxWindowGaussian = 4,
    lxWindowRectangular = 5
} LxWindow;

/* Power state. */
typedef enum LxPowerState {
    lxPowerOn = 0,
    lxPowerStandby = 1
} LxPowerState;

/* GPS state, output only. */
typedef enum LxGPSState {
    lxGPSNoFix = 0,
    lxGPSFix = 1,
    lxGPSFixDisciplined = 2 /* valid fix, and the timebase follows the GPS */
} LxGPSState;

/* Audio demodulation type (docs/audio.md). */
typedef enum LxAudioType {
    lxAudioAM = 0,
    lxAudioFM = 1,
    lxAudioUSB = 2, /* upper sideband: a line f above the centre sounds at f */
    lxAudioLSB = 3, /* lower sideband: a line f below the centre sounds at f */
    lxAudioCW = 4   /* lower sideband tuned 520 Hz above the centre: a carrier
                       on the centre sounds at 520 Hz */
} LxAudioType;

/* Calibration correction mode (service). */
typedef enum LxCorrectionMode {
    lxCorrectionAutomatic = 0, /* temperature bracket from the measured temperature */
    lxCorrectionManual = 1     /* bracket index set by the application */
} LxCorrectionMode;

/* Temperature range of the calibration record (service), output only. */
typedef enum LxTempRange {
    lxTempRangeUnknown = -1,
    lxTempRange0 = 0,
    lxTempRange1 = 1,
    lxTempRange2 = 2,
    lxTempRangeNone = 3 /* the record carries no range code */
} LxTempRange;

/* Text of a status value; "Unknown error" for values not listed. Never null,
 * touches no state, safe from any thread. */
LX_API const char* lxGetErrorString(LxStatus status);

/* Library version, "1.0.0". */
LX_API const char* lxGetAPIVersion(void);

/* ---- calibration record ------------------------------------------------ */
/* The instrument's calibration record: a little-endian byte image of exactly
 * 2 097 152 bytes, as stored in flash and in the calibration cache file. */
typedef struct LX530CalData {
    uint8_t raw[2097152];
} LX530CalData;
/* ---- end of calibration record --------------------------------------- */


/* ==== Devices: list, open, close, preset =================================
 * Handles are 0..8. Every call that takes a handle returns
 * lxInvalidDeviceErr for a handle above 8, a negative one, or one that is
 * not open, before any other check. Open and close from one thread at a
 * time; calls on different handles may run on different threads. */

/* Serial numbers of the attached analyzers not open in this process, in
 * enumeration order. *count is the array's capacity on entry and the number
 * written on return; a negative capacity copies nothing and leaves *count.
 * No analyzer is not an error: 0 with *count = 0. */
LX_API LxStatus lxGetDeviceList(int32_t* serials, int32_t* count);

/* What an attached analyzer is running: 1 its run firmware (ready to open),
 * 0 its boot loader (an open brings it up), -1 neither. lxDeviceNotFoundErr
 * when no attached analyzer has this serial. Works for analyzers open in this
 * process too. */
LX_API LxStatus lxGetDevicePersonality(int32_t serial, int32_t* personality);

/* Opens the first analyzer found (lxDeviceNotFoundErr when none), as
 * lxOpenDeviceBySerial does. */
LX_API LxStatus lxOpenDevice(int32_t* handle);

/* Opens the analyzer with this serial number into the lowest free handle:
 * loads its calibration record (from the cache file, or from its flash the
 * first time, which takes a few seconds while the analyzer passes through its
 * boot loader), powers it up and reads its housekeeping. Returns
 * lxInvalidCalData (a warning: the handle is valid and usable with neutral
 * corrections) when the record failed its checks; lxMaxDevicesConnectedErr
 * when nine are open; lxDeviceNotFoundErr, lxBootErr or lxConnectionLostErr
 * when the analyzer could not be brought up (no handle is written then). */
LX_API LxStatus lxOpenDeviceBySerial(int32_t* handle, int32_t serial);

/* Stops any measurement, puts the analyzer into standby and frees the handle. */
LX_API LxStatus lxCloseDevice(int32_t handle);

/* Resets the analyzer (it drops off the bus and re-enumerates, about six
 * seconds) and frees the handle: open it again afterwards. */
LX_API LxStatus lxPresetDevice(int32_t handle);

/* ==== Mode control ========================================================
 * lxConfigure(handle, mode) stops the running measurement, powers the
 * analyzer on, refreshes housekeeping when older than one second, brings the
 * temperature corrections up to date and sets up `mode` (LxMode) from the
 * stored settings. Modes other than 0..5 and 100: lxInvalidParameterErr.
 * Mode 0 stops and returns lxInvalidParameterErr (use lxAbort to stop).
 * A mode whose measurement engine this version does not provide returns
 * lxInvalidConfigurationErr and leaves the analyzer idle.
 * Mode 1 returns the warning lxSettingClamped (and is configured) when the
 * RBW asked for is finer than the window length allows: 2^20 samples on
 * spans of 5 MHz and more (221 Hz with the flat-top window, the window's
 * noise bandwidth times 61.44 MHz / 2^20 in general), 2^25 samples at the
 * narrow span's decimated rate below 5 MHz; lxGetSweepParameters reports the
 * RBW in use. */
LX_API LxStatus lxConfigure(int32_t handle, int32_t mode);
/* Stops the running measurement; the analyzer is idle (mode 0). */
LX_API LxStatus lxAbort(int32_t handle);
LX_API LxStatus lxGetCurrentMode(int32_t handle, int32_t* mode);

/* ==== Measurement settings ================================================
 * Setters only store; lxConfigure takes them to the analyzer. An enumerated
 * value out of range (or a NaN) returns lxInvalidParameterErr and stores
 * nothing; a number outside its range stores the nearer bound and returns
 * lxSettingClamped. Settings survive lxAbort, failed configures and mode
 * changes, until the handle is closed. */

/* Reference level in dBm, at most 20 (default -20). With the attenuator on
 * automatic it chooses the attenuation: -20 dBm or below 0 dB, then one 5 dB
 * step per 5 dB of reference level up to 30 dB above 5 dBm. */
LX_API LxStatus lxSetRefLevel(int32_t handle, double dbm);
LX_API LxStatus lxGetRefLevel(int32_t handle, double* dbm);
/* Attenuator: -1 automatic (default), 0..6 steps of 5 dB. */
LX_API LxStatus lxSetAttenuator(int32_t handle, int32_t step);
LX_API LxStatus lxGetAttenuator(int32_t handle, int32_t* step);

/* Sweep span, each end limited to 9 kHz .. 15 GHz; start must be below stop.
 * Spans below 5 MHz are measured in one capture (narrow-span sweep). */
LX_API LxStatus lxSetSweepStartStop(int32_t handle, double startHz, double stopHz);
LX_API LxStatus lxSetSweepCenterSpan(int32_t handle, double centerHz, double spanHz);
/* Resolution and video bandwidth (Hz) and sweep time (s). VBW is limited to
 * RBW/10000 .. RBW, the sweep time to 1 us .. 100 s; a longer sweep time buys
 * more averaging. RBW must be positive; its achievable value is reported by
 * lxGetSweepParameters after lxConfigure. */
LX_API LxStatus lxSetSweepCoupling(int32_t handle, double rbwHz, double vbwHz, double sweepTimeS);
/* Detector (LxDetector) and video processing units (LxVideoUnits). */
LX_API LxStatus lxSetSweepDetector(int32_t handle, int32_t detector, int32_t videoUnits);
/* LxScale. */
LX_API LxStatus lxSetSweepScale(int32_t handle, int32_t scale);
/* LxWindow. */
LX_API LxStatus lxSetSweepWindow(int32_t handle, int32_t window);
/* Switches the GPIO port during a sweep: at the first step whose centre lies
 * above frequencies[i], values[i] is written to the port (pairs are sorted by
 * frequency). Puts the GPIO port into its switching configuration (5). A
 * count below 1 clears the list (the arrays may then be null). */
LX_API LxStatus lxSetSweepGPIOSwitching(int32_t handle, const uint64_t* frequencies,
                                        const uint8_t* values, int32_t count);
LX_API LxStatus lxSetSweepGPIOSwitchingDisabled(int32_t handle);

/* ==== Swept spectrum results (mode 1) =====================================
 * After lxConfigure(handle, lxModeSweep). */

/* The figures the sweep set-up achieved; each output optional. actualRbw:
 * the resolution bandwidth the window length gives (Hz); actualVbw (Hz);
 * actualStart: frequency of trace point 0 (Hz); binSize: spacing of trace
 * points (Hz); sweepLength: number of trace points. lxInvalidConfigurationErr
 * when mode 1 is not configured. */
LX_API LxStatus lxGetSweepParameters(int32_t handle, double* actualRbw, double* actualVbw,
                                     double* actualStart, double* binSize, int32_t* sweepLength);

/* Runs one sweep and returns its minimum and maximum traces (sweepLength
 * floats each; dBm on a logarithmic scale, mV on the linear one) and the time
 * stamp of the sweep (ns since 1970, device time); each output optional.
 * Blocks until the sweep is complete. 0, or a warning that still delivers the
 * traces: lxADCOverflow (the input overloaded the chosen attenuation),
 * lxUncalData (samples were lost), lxCPULimited, lxTempDrift (the analyzer's
 * temperature moved by more than 2 degrees since lxConfigure); errors:
 * lxInvalidConfigurationErr when mode 1 is not configured or another thread
 * reconfigured or aborted while the sweep ran (outputs untouched),
 * lxInvalidDeviceErr when another thread closed the handle meanwhile,
 * lxSweepAlreadyActiveErr while another thread's sweep on this handle is
 * pending, lxFramingErr, lxConnectionLostErr. */
LX_API LxStatus lxGetSweep(int32_t handle, float* minTrace, float* maxTrace, uint64_t* timestamp);

/* ==== Real-time spectrum (mode 2) =================================== * One 61.44 MHz capture around the centre is transformed without gaps (50 %
 * overlapping FFTs of every sample) and folded into frames of 1/30 s: a min
 * and a max trace (or, with the average detector, the mean, in both), a
 * density frame and an alpha (persistence) frame. */

/* Span limited to 200 kHz .. 40 MHz, centre to 9 kHz .. 15 GHz
 * (default 1 GHz, 40 MHz). */
LX_API LxStatus lxSetRealTimeCenterSpan(int32_t handle, double centerHz, double spanHz);
/* RBW limited to 2 kHz .. 1 MHz (default 30 kHz); the achieved value is
 * reported by lxGetRealTimeParameters. */
LX_API LxStatus lxSetRealTimeRBW(int32_t handle, double rbwHz);
/* LxDetector (default min/max). */
LX_API LxStatus lxSetRealTimeDetector(int32_t handle, int32_t detector);
/* LxScale of the traces and the density frame, and the density frame's
 * range: its top row is frameRefLevel (dBm, default 0), its bottom row
 * frameRefLevel - frameScale (dB, default 100; keep it positive). On the
 * linear scale the rows run from 0 to frameRefLevel in millivolts. The levels
 * are stored as given (NaN: lxInvalidParameterErr). */
LX_API LxStatus lxSetRealTimeScale(int32_t handle, int32_t scale, double frameRefLevel, double frameScale);
/* LxWindow (default Nuttall). */
LX_API LxStatus lxSetRealTimeWindow(int32_t handle, int32_t window);

/* The figures the real-time set-up achieved; each output optional.
 * actualRbw (Hz); sweepLength: points of each trace; actualStart: frequency
 * of trace point 0 (Hz); binSize: spacing of trace points (Hz); frameWidth,
 * frameHeight: columns and rows (256) of the density and alpha frames, column
 * c covering trace points c * d .. c * d + d - 1 with d = sweepLength /
 * frameWidth; minSignalDuration: the probability-of-intercept time (s), the
 * shortest signal always seen at its full level. lxInvalidConfigurationErr
 * when mode 2 is not configured. */
LX_API LxStatus lxGetRealTimeParameters(int32_t handle, double* actualRbw, int32_t* sweepLength,
                                        double* actualStart, double* binSize, int32_t* frameWidth,
                                        int32_t* frameHeight, double* minSignalDuration);

/* The next frame, in order, waiting for it when it is not complete yet; each
 * output optional. frame: frameWidth x frameHeight floats, row-major, row 0
 * the lowest level: the share of the spectra of the 39 most recent frames
 * that fell in each cell, divided by 40 (so a cell hit by every spectrum
 * reads 0.975). alphaFrame: the same layout, 1 where a cell was hit in this
 * frame, fading by a factor 0.92 per frame since its last hit. minTrace,
 * maxTrace: sweepLength floats (dBm, or mV on the linear scale).
 * frameCount: the frame's number, 0 for the first after lxConfigure (a gap
 * means frames were overwritten before they were read: 40 are kept);
 * timestamp: host time (ns since 1970) when the frame closed.
 * Status, each later one replacing the earlier: lxTempDrift, lxADCOverflow,
 * lxUncalData (samples were lost, at the analyzer or because the host fell
 * behind and gave up spectra), lxFramingErr, then a link error; each
 * warning covers what happened since the previous read.
 * lxInvalidConfigurationErr when mode 2 is not configured (frameCount and
 * timestamp are then set to 0). */
LX_API LxStatus lxGetRealTimeFrame(int32_t handle, float* frame, float* alphaFrame, float* minTrace,
                                   float* maxTrace, int32_t* frameCount, uint64_t* timestamp);
/* ==== I/Q sweep list (mode 4) =============================================
 * A list of 1..1000 steps, each a block of I/Q samples at 61.44 MS/s centred
 * on the step's frequency: one pass of the list per request, up to 16
 * requests (slots 0..15) in flight, each into a buffer of its own.
 * The list is empty after open; lxConfigure(handle, lxModeIQSweepList) with
 * an empty list returns lxInvalidConfigurationErr. Per-step setters take the
 * step index first: an index below 0 or not below the step count returns
 * lxInvalidParameterErr. See docs/iq_sweep_list.md. */

/* 0 complex float (default): calibrated, |x|^2 is the power in mW (dBm after
 * 10 log10); 1 complex int16: full scale 32768, never scaled (multiply by the
 * step's lxIQSweepListGetCorrections factor and divide by 32768). */
LX_API LxStatus lxSetIQSweepListDataType(int32_t handle, int32_t dataType);
/* 1 (default) applies each step's calibration scale to float output; 0
 * delivers float samples in full-scale units (1.0 = ADC full scale). */
LX_API LxStatus lxSetIQSweepListCorrected(int32_t handle, int32_t corrected);
/* 1..1000. Shrinking drops the last steps; new steps take frequency 1 GHz,
 * reference level -20 dBm, automatic attenuation, 1000000 samples. */
LX_API LxStatus lxSetIQSweepListSteps(int32_t handle, int32_t steps);
LX_API LxStatus lxGetIQSweepListSteps(int32_t handle, int32_t* steps);
/* 9 kHz .. 15 GHz; the step's samples are centred on it. */
LX_API LxStatus lxSetIQSweepListFreq(int32_t handle, int32_t step, double hz);
/* -100 .. 20 dBm; also switches the step back to automatic attenuation, so
 * set the reference level first and a fixed attenuation after it. */
LX_API LxStatus lxSetIQSweepListRef(int32_t handle, int32_t step, double dbm);
/* -1 automatic, 0..6 steps of 5 dB (values beyond are clamped). */
LX_API LxStatus lxSetIQSweepListAtten(int32_t handle, int32_t step, int32_t atten);
/* Samples of the step (the device delivers them in packets of 2048). */
LX_API LxStatus lxSetIQSweepListSampleCount(int32_t handle, int32_t step, uint32_t samples);

/* Results; all return lxInvalidConfigurationErr unless mode 4 runs.
 * Each step's linear amplitude factor, one float per step. */
LX_API LxStatus lxIQSweepListGetCorrections(int32_t handle, float* corrections);
/* Queues one pass into `destination`: the steps one after the other, each
 * its sample count of complex values (8 bytes each for float, 4 for int16).
 * `timestamps` (may be null): one per step, ns since 1970 of the step's first
 * sample. The buffers belong to the library until the slot's finish returns.
 * lxInvalidParameterErr for a slot outside 0..15, lxNullPtrErr for a null
 * destination, lxSweepAlreadyActiveErr while the slot is active. */
LX_API LxStatus lxIQSweepListStartSweep(int32_t handle, int32_t slot, void* destination,
                                        uint64_t* timestamps);
/* Waits for the slot's pass; requests complete in the order they started.
 * Returns the link status after a failed transfer, lxFramingErr, lxUncalData
 * (samples lost), lxADCOverflow, lxTempDrift, else 0; lxSweepAlreadyActiveErr
 * for a slot that was not started. */
LX_API LxStatus lxIQSweepListFinishSweep(int32_t handle, int32_t slot);
/* Start in slot 0 and finish it; lxSweepAlreadyActiveErr while any slot is
 * active. */
LX_API LxStatus lxIQSweepListGetSweep(int32_t handle, void* destination, uint64_t* timestamps);

/* ==== I/Q streaming (mode 3) ===============================================
 * A continuous, gap-free stream of complex samples at 61.44 MS/s / D around a
 * centre frequency, with time stamps and external-trigger positions. Set up
 * with the setters below, start with lxConfigure(handle, lxModeIQ), then call
 * lxGetIQ as often as wanted; the stream runs until the next lxConfigure,
 * lxAbort or lxCloseDevice. The library holds half a second of samples: a
 * reader that falls further behind loses the whole backlog at once and is
 * told so (sampleLoss, lxGetStreamHealth). */

/* 0: complex float (I, Q pairs of float, in sqrt(mW): mean |x|^2 is the power
 * in mW, corrected); 1: complex int16 (I, Q pairs, full scale 32767,
 * uncorrected: multiply |x / 32768|^2 by 10^(lxGetIQCorrection / 10) for mW).
 * Default 0. */
LX_API LxStatus lxSetIQDataType(int32_t handle, int32_t type);
/* Centre frequency in Hz (default 1 GHz). Stored as given (NaN refused); the
 * analyzer tunes as near as it can and the host shifts the rest, so the
 * centre is exact. Below 38.4 MHz the stream is still right side up: a tone
 * above the centre is at a positive frequency. */
LX_API LxStatus lxSetIQCenterFreq(int32_t handle, double hz);
/* Does nothing and writes nothing (kept for compatibility): read the centre
 * from your own setting. */
LX_API LxStatus lxGetIQCenterFreq(int32_t handle, double* hz);
/* Decimation D, a power of two 1..8192: sample rate 61.44e6 / D (61.44 MS/s
 * down to 7.5 kS/s). Anything else: lxInvalidParameterErr. Default 1. */
LX_API LxStatus lxSetIQSampleRate(int32_t handle, int32_t decimation);
/* 1 (default): a 129-tap low-pass of the set bandwidth at D = 1, 2, 4; 0: the
 * analyzer's own band limit only. D >= 8 always filters. */
LX_API LxStatus lxSetIQSoftwareFilter(int32_t handle, int32_t enable);
/* Two-sided bandwidth in Hz (default 40 MHz; NaN refused). At configure it
 * is limited to 1 kHz .. 41.5 MHz at D = 1 and 1 kHz .. 50 MHz / D otherwise
 * (no warning: lxGetIQParameters reports what is used). */
LX_API LxStatus lxSetIQBandwidth(int32_t handle, double hz);
/* The value lxGetIQ writes into trigger entries that no trigger filled
 * (process-wide, all devices; 0 until set). No handle; always 0. */
LX_API LxStatus lxSetIQTriggerSentinel(double value);
/* Edge of the external trigger input that is reported: 0 rising (default),
 * 1 falling. */
LX_API LxStatus lxSetIQExtTriggerEdge(int32_t handle, int32_t edge);
/* USB transfers kept in flight, 2..16 (default 16; clamped, lxSettingClamped). */
LX_API LxStatus lxSetIQQueueSize(int32_t handle, int32_t transfers);

/* The sample rate (Hz) and the bandwidth (Hz, after limiting) of the
 * configured stream; both optional. lxInvalidConfigurationErr unless mode 3. */
LX_API LxStatus lxGetIQParameters(int32_t handle, double* sampleRate, double* bandwidth);
/* The amplitude correction in dB of the configured stream (already applied
 * to float samples; for int16 samples apply it yourself).
 * lxInvalidConfigurationErr unless mode 3. */
LX_API LxStatus lxGetIQCorrection(int32_t handle, float* correctionDb);
/* Reads sampleCount samples (>= 1) into iqData (8 bytes per sample for float,
 * 4 for int16), blocking until they are there; consecutive calls continue the
 * stream without a gap unless sampleLoss says otherwise (it is set by the read
 * whose samples follow the gap).
 *   triggers, triggerCount: optional array; receives the positions (in
 *     samples from iqData[0], fractional) of the external trigger edges in
 *     the samples read, the rest filled with the trigger sentinel. The
 *     analyzer reports at most one edge per block of samples it sends (the
 *     first; a block is 129024 samples at D = 1, 63488 at D = 2 and
 *     122880 / D from D = 4 on, about 2 ms): further edges in the same block
 *     are not reported.
 *   timestamp: optional; time of iqData[0] at the antenna (the filters'
 *     delay taken out) in ns since 1970: GPS time once the receiver has a
 *     fix (counted from its latest pulse), the host clock until then. It
 *     comes from the stamp of the analyzer block that sample belongs to, so
 *     sample k of the read is at timestamp + k * 1e9 / sample rate unless
 *     sampleLoss is set (then that holds up to the gap only).
 *   purge: 1 throws away everything stored before reading (fresh samples).
 *   sampleLoss: optional; 1 when samples are missing before one of those
 *     read: the reader fell half a second behind (the whole backlog was
 *     dropped), or the analyzer lost samples.
 *   samplesRemaining: optional; samples still stored after this read.
 * Returns 0; or a warning that still delivers: lxTempDrift, lxADCOverflow
 * (the input overloaded the analyzer since the last read), lxUncalData (the
 * analyzer dropped samples); errors: lxFramingErr, lxConnectionLostErr (and
 * the read returns at once), lxNullPtrErr, lxInvalidParameterErr
 * (sampleCount < 1), lxInvalidConfigurationErr unless mode 3. */
LX_API LxStatus lxGetIQ(int32_t handle, void* iqData, int32_t sampleCount, double* triggers,
                        int32_t triggerCount, uint64_t* timestamp, int32_t purge, int32_t* sampleLoss,
                        int32_t* samplesRemaining);

/* ==== Audio demodulation (mode 5) ==========================================
 * lxConfigure(handle, lxModeAudio) starts a 480 kS/s I/Q stream at the
 * centre (decimation 128, 280 kHz wide; the I/Q settings' queue size and
 * trigger edge apply, the rest is set here) and a demodulator on it:
 * IF low-pass of the IF bandwidth, demodulation, audio low-pass, 30 kS/s,
 * high-pass. Audio comes in blocks of 1000 samples (1/30 s); the library
 * keeps the last 30. Full scale: AM gives the modulation depth (1.0 for
 * 100 %), FM (2 pi / 3) x deviation / IF bandwidth, sidebands a line's amplitude
 * over the signal's peak envelope. docs/audio.md has the details. */

/* Centre frequency in Hz, clamped to 9 kHz .. 15 GHz (lxSettingClamped);
 * NaN refused. Default 97.1 MHz. */
LX_API LxStatus lxSetAudioCenterFreq(int32_t handle, double hz);
/* LxAudioType 0..4. Default FM. */
LX_API LxStatus lxSetAudioType(int32_t handle, int32_t type);
/* IF bandwidth (two-sided) 500 Hz .. 250 kHz, audio low-pass 1 .. 12 kHz,
 * audio high-pass 20 Hz .. 1 kHz; each clamped (lxSettingClamped if any
 * was), all stored. NaN refused, nothing stored. Defaults 200 kHz, 12 kHz,
 * 100 Hz. */
LX_API LxStatus lxSetAudioFilters(int32_t handle, double ifBandwidth, double lowPass, double highPass);
/* FM de-emphasis time constant in microseconds, clamped to 1 .. 100
 * (75 in the Americas, 50 in Europe; 1 is practically none). Default 75. */
LX_API LxStatus lxSetAudioFMDeemphasis(int32_t handle, double microseconds);
/* The stored audio settings, after clamping; every output optional. */
LX_API LxStatus lxGetAudioSettings(int32_t handle, double* centreHz, int32_t* type, double* ifBandwidth,
                                   double* lowPass, double* highPass, double* deemphasisUs);
/* The next 1000 samples at 30 kS/s into samples, blocking until they are
 * made (at most 1/30 s behind the stream). Consecutive calls continue the
 * audio without a gap unless the call says otherwise: lxUncalData when
 * samples were lost before or inside the block (the analyzer dropped I/Q
 * samples, or the caller fell 30 blocks (1 s) behind: the oldest blocks were
 * overwritten and reading resumes at the oldest kept one); lxADCOverflow,
 * lxTempDrift as lxGetIQ. Errors: lxNullPtrErr; lxInvalidConfigurationErr
 * unless mode 5, or when a configure, abort or close on another thread ends
 * the stream during the wait; the link status (lxConnectionLostErr,
 * lxFramingErr) once the stream has failed. */
LX_API LxStatus lxGetAudio(int32_t handle, float* samples);

/* ==== Power, identity, diagnostics ========================================
 * Calls marked "guarded" return lxInvalidConfigurationErr while a streaming
 * mode (real-time, I/Q, audio) runs: the analyzer's command path is busy. */

/* LxPowerState 0 on, 1 standby; guarded. */
LX_API LxStatus lxSetPowerState(int32_t handle, uint32_t state);
LX_API LxStatus lxGetPowerState(int32_t handle, uint32_t* state);
LX_API LxStatus lxGetSerialNumber(int32_t handle, uint32_t* serial);
/* From the last housekeeping record (0 before the first). */
LX_API LxStatus lxGetFirmwareVersion(int32_t handle, uint32_t* major, uint32_t* minor,
                                     uint32_t* revision);
/* The calibration date of the analyzer's calibration record. */
LX_API LxStatus lxGetCalDate(int32_t handle, uint32_t* date);
/* Supply voltage (V), supply current (A), temperature (degrees C); each
 * output optional. Refreshed when older than one second (not while
 * streaming). Returns the link status. */
LX_API LxStatus lxGetDeviceDiagnostics(int32_t handle, float* voltage, float* current,
                                       float* temperature);

/* ==== Reference, GPIO port, UART ========================================== */

/* Frequency reference 0..1; guarded. */
LX_API LxStatus lxSetReference(int32_t handle, uint32_t reference);
LX_API LxStatus lxGetReference(int32_t handle, uint32_t* reference);
/* GPIO port configuration 0..6 (4: UART); only while idle. */
LX_API LxStatus lxSetGPIOPort(int32_t handle, uint32_t config);
LX_API LxStatus lxGetGPIOPort(int32_t handle, uint32_t* config);
/* UART rate from an 81.92 MHz clock: the divisor round(81.92e6 / baud) is
 * limited to 1..32768 without a warning; only while idle. A NaN rate:
 * lxInvalidParameterErr, the divisor kept. */
LX_API LxStatus lxSetUARTBaudRate(int32_t handle, float baud);
/* The rate the stored divisor gives. */
LX_API LxStatus lxGetUARTBaudRate(int32_t handle, float* baud);
/* Sends one byte; needs GPIO configuration 4 and no streaming mode. */
LX_API LxStatus lxWriteUARTDirect(int32_t handle, uint8_t byte);

/* ==== GPS and timebase ==================================================== */

/* 1: let the analyzer discipline its reference oscillator to the GPS;
 * guarded. */
LX_API LxStatus lxSetGPSTimebaseUpdate(int32_t handle, uint32_t enable);
LX_API LxStatus lxGetGPSTimebaseUpdate(int32_t handle, uint32_t* enable);
/* Both outputs optional. holdover: 1 when the last GPS-disciplined tune
 * value is newer than the factory's; time: when it was recorded (seconds
 * since 1970, low 32 bits). Both 0 when no disciplined value was recorded. */
LX_API LxStatus lxGetGPSHoldoverInfo(int32_t handle, uint32_t* holdover, uint32_t* time);
/* LxGPSState. Refreshes housekeeping when older than one second (not while
 * streaming) and returns the link status of that refresh. */
LX_API LxStatus lxGetGPSState(int32_t handle, uint32_t* state);
/* The last fix; every output optional. refresh = 1 reads housekeeping now
 * (not while streaming). updated: 1 when a new NMEA message arrived since the
 * last call. gpsTime (UTC seconds since 1970), latitude and longitude
 * (degrees, north and east positive) and altitude (m above mean sea level)
 * are 0 without a valid fix. nmea/nmeaLength: the receiver's last message
 * text; *nmeaLength is the buffer size on entry (> 0) and the bytes written,
 * terminating NUL included, on return. Returns the link status. */
LX_API LxStatus lxGetGPSInfo(int32_t handle, int32_t refresh, uint32_t* updated, int64_t* gpsTime,
                             double* latitude, double* longitude, double* altitude, char* nmea,
                             int32_t* nmeaLength);
/* Sends bytes to the GPS receiver's serial input; guarded. */
LX_API LxStatus lxWriteToGPS(int32_t handle, const uint8_t* data, int32_t length);

/* ==== Fan ================================================================= */

/* Temperature the fan regulates to, limited to 0..60 degrees C in steps of
 * 1/16 degree (truncated); guarded. NaN: lxInvalidParameterErr, nothing sent. */
LX_API LxStatus lxSetFanSetPoint(int32_t handle, float celsius);
/* The set point as the analyzer reports it and the fan reading; both
 * optional. Reads housekeeping now (not while streaming). */
LX_API LxStatus lxGetFanSettings(int32_t handle, float* setPoint, float* fan);

/* ==== Stream health =======================================================
 * What the running stream delivered and lost, counted from the last
 * lxConfigure (any streaming mode; all zero for the others). */
typedef struct LxStreamHealth {
    uint64_t samplesDelivered;  /* samples handed to the application */
    uint64_t samplesDropped;    /* samples the library threw away: a reader half a
                                   second behind loses what was stored */
    uint64_t dataLossEvents;    /* blocks after which the analyzer lost samples: it said so
                                   (its buffer overran: the host read too late), or its
                                   sample counter jumped */
    uint64_t adcOverflowEvents; /* status packets reporting an ADC overload */
    uint64_t transportErrors;   /* USB transfers that failed, timed out or came back short */
    uint64_t spectraLost;       /* real-time spectra not computed for lack of CPU time */
    uint64_t streamHeldMs;      /* real time: milliseconds the host held the stream up because its
                                   processing was a whole sample ring (546 ms) behind; the transfers
                                   in flight and the analyzer's buffer cover about 80 ms of a hold,
                                   so a loss reported with no hold was not real time's own doing */
} LxStreamHealth;
LX_API LxStatus lxGetStreamHealth(int32_t handle, LxStreamHealth* health);

#ifdef __cplusplus
} /* extern "C" */
#endif

#ifdef __cplusplus
/* ---- C++-only service functions for calibration records ----------------
 * C++ linkage. None of them touches a device; all are safe from any thread on
 * distinct records. A null record pointer is never dereferenced. */

/* Reads a calibration record from the file at path into *cal. Returns true
 * only when the file held at least 2 097 152 bytes; otherwise (null path or
 * record, a file that cannot be opened, a short file) returns false and leaves
 * *cal unchanged. */
LX_API bool lxCalCorrectionLoadFromFile(const char* path, LX530CalData* cal);

/* Fills *cal with a record whose every correction is neutral: header bytes
 * 0..671 0xFF (so the record reads as never programmed), tune offsets 0, IF
 * levels 4, amplitude table 0.0, response tables A and D 1.0, B, C and E 0.0,
 * reserved bytes 0xFF. Does nothing for a null pointer. */
LX_API void lxCalBuildDummyCorrections(LX530CalData* cal);

/* The newest date the record carries: the largest of its calibration date and
 * the times of its oscillator tune values. 0 for a null pointer. */
LX_API uint64_t lxCalGetCorrectionCalDate(const LX530CalData* cal);

/* Nominal temperature of calibration slot index in degrees C:
 * -30 + 15 * index, with index clamped to 0..6. */
LX_API double lxCalGetTempFromIndex(int index);

/* Makes temperature slot toSlot a copy of slot fromSlot: its temperature
 * becomes that of fromSlot + 15 * (toSlot - fromSlot) degrees and its
 * amplitude and response tables are copied; IF levels and tune offsets are
 * not touched. Does nothing for a null pointer or a slot outside 0..6. */
LX_API void lxCalPropagateSingleTempCal(LX530CalData* cal, int fromSlot, int toSlot);

/* True when the record has been programmed (its calibration date is not all
 * ones). False for a null pointer. */
LX_API bool kdCalDoesCorrectionsExist(const LX530CalData* cal);


/* ---- C++-only service functions on an open device --------------------- */

/* The temperature range the calibration record was made for. */
LX_API LxStatus lxAdminGetTempRange(int32_t handle, LxTempRange* range);
/* True unless the analyzer reports that it runs without dithering. */
LX_API LxStatus lxAdminHasDithering(int32_t handle, bool* hasDithering);
/* Automatic (from the measured temperature) or manual temperature
 * corrections; takes effect at the next lxConfigure. */
LX_API LxStatus lxAdminSetCorrectionMode(int32_t handle, LxCorrectionMode mode);
/* Temperature point 0..6 used in manual mode (clamped, lxSettingClamped). */
LX_API LxStatus lxAdminSetCorrectionIndex(int32_t handle, int32_t index);
/* Replaces the device's copy of its calibration record (not its flash);
 * used from the next lxConfigure. */
LX_API LxStatus lxAdminManualLoadCorrections(int32_t handle, const LX530CalData* cal);
/* True when the analyzer's own calibration record was found (flash or cache). */
LX_API LxStatus lxAdminDeviceHasCorrections(int32_t handle, bool* has);
/* Reference oscillator tune value at the reference temperature. The setter
 * sends it at once, corrected for the present temperature; guarded. */
LX_API LxStatus lxAdminGetCoarseTuneVal(int32_t handle, uint16_t* value);
LX_API LxStatus lxAdminSetCoarseTuneVal(int32_t handle, uint16_t value);

/* ---- C++-only flash and boot programming ------------------------------
 * One analyzer at a time, held in a process-wide boot slot apart from the
 * handles above; the boot handle is always 0. Unless said otherwise every
 * call checks, in this order: no analyzer in the boot slot
 * (lxDeviceNotFoundErr), handle not 0 (lxInvalidDeviceErr), null pointers
 * (lxNullPtrErr). Calls run one at a time (a second thread's call waits).
 * Flash is addressed in 1024-byte pages; erases take 256-page sectors.
 * Regions: boot image page 0 (one sector), FPGA program page 1024 (eight
 * sectors), calibration record page 4096 (eight sectors), run image page
 * 49152 (one sector). Writes program erased flash: clear a region first.
 * Progress outputs go from 0 to 1 and are stored while the call runs, so
 * another thread may poll them (with an atomic load). Writes verify what
 * they programmed by reading it back; docs/flash.md describes how to
 * recover from a failed write. Image files are in the chip maker's boot
 * format; see docs/flash.md. Each sector erased for the FPGA program and
 * each page written or block verified is reported on the library's debug
 * output ("Erasing Page %d", "Writing Page %d", "Verifying Page %d"), which
 * is silent unless a sink is installed. */

/* Downloads the boot image file at path into the RAM of the first analyzer
 * still in the chip's own ROM loader, which checks its checksum and starts
 * it as a boot loader, then binds the first analyzer found (vendor 0x5A3C,
 * product 0x000C, a valid serial) to the boot slot. Slot taken:
 * lxMaxDevicesConnectedErr; null handle or path: lxNullPtrErr; unreadable,
 * empty or larger than 256 KiB file: lxFileIOErr; no analyzer came up:
 * lxDeviceNotFoundErr. */
LX_API LxStatus lxBootStrap(int32_t* handle, const char* path);
/* Sends every analyzer running its run firmware to its boot loader, then
 * binds the first one found in its boot loader. Null: lxNullPtrErr; slot
 * taken: lxMaxDevicesConnectedErr; none: lxDeviceNotFoundErr. */
LX_API LxStatus lxBootOpenDevice(int32_t* handle);
/* The same for the analyzer with this serial. */
LX_API LxStatus lxBootOpenDeviceBySerial(int32_t* handle, int32_t serial);
/* Restarts the analyzer (it comes back in its boot loader when its boot
 * image is whole) and empties the slot. No analyzer in the slot, or handle
 * not 0: lxInvalidDeviceErr. */
LX_API LxStatus lxBootCloseDevice(int32_t handle);
/* Serial of the analyzer in the slot. Checks the handle before the slot. */
LX_API LxStatus lxBootGetSerial(int32_t handle, int32_t* serial);
/* Reads 32 pages (32768 bytes) from page on. Page above 65535:
 * lxInvalidParameterErr; a failed read: lxFlashTransferErr. */
LX_API LxStatus lxBootReadFlashPage(int32_t handle, uint32_t page, uint8_t* buffer);
/* Programs one page from 1024 bytes (no read-back). lxFlashTransferErr when
 * the analyzer did not take it. */
LX_API LxStatus lxBootWriteFlashPage(int32_t handle, uint32_t page, const uint8_t* data);
/* Erases the sector holding page. Reports lxNoError even when the transfer
 * failed (kept so for existing callers); the sector calls below do not. */
LX_API LxStatus lxBootClearFlashPage(int32_t handle, uint32_t page);
/* Erase the boot image or the run image sector; lxFlashTransferErr. */
LX_API LxStatus lxBootClearBootSector(int32_t handle);
LX_API LxStatus lxBootClearRunSector(int32_t handle);
/* Erase the eight sectors of the FPGA program or of the calibration record;
 * progress is 0.125 * k after erase k (it ends at 0.875). The FPGA erase
 * prints "Erasing Page %d" per sector to the debug output. */
LX_API LxStatus lxBootClearFPGAProgram(int32_t handle, double* progress);
LX_API LxStatus lxBootClearCorrections(int32_t handle, double* progress);
/* Programs an FPGA program file (at most 2 MiB) at page 1024 and verifies it.
 * Unreadable, empty or too large file: lxFileIOErr; programming or verify
 * failure: lxFlashTransferErr. */
LX_API LxStatus lxBootWriteFPGAProgram(int32_t handle, const char* path, double* progress);
/* Programs a calibration record at page 4096 and verifies it; a programming
 * or verify failure is reported as lxFileIOErr. A verified record also
 * replaces the analyzer's calibration cache file. */
LX_API LxStatus lxBootWriteCorrections(int32_t handle, const LX530CalData* cal, double* progress);
/* Programs a run image file (at most 256 KiB) with the serial put in its
 * placeholder (serial < 1: the serial of the analyzer in the slot) and
 * verifies it. An image whose checksum is wrong or that has no placeholder
 * is programmed as it is: check it first (docs/flash.md). Unreadable, empty
 * or too large file: lxFileIOErr; programming or verify failure:
 * lxFlashTransferErr. */
LX_API LxStatus lxBootWriteRunSector(int32_t handle, const char* path, int32_t serial);
/* Programs a boot image file with the serial put in its placeholder (no
 * default serial here) and its "FW Ver" version copied into the last two
 * bytes of the sector, and verifies it. A file without "FW Ver", an
 * unreadable, empty or too large file, and a programming or verify failure:
 * lxFileIOErr. */
LX_API LxStatus lxBootWriteBootSector(int32_t handle, const char* path, int32_t serial);
/* One capture of the whole 61.44 MHz band with the local oscillator at
 * frequencyHz (limited to 3.84 MHz .. 19.2 GHz; the band is centred 23.04 MHz
 * below it): 16384 floats, the analyzer's raw I, Q, I, Q ... values / 32768
 * (8192 samples at 61.44 MS/s, uncorrected, the ADC's DC offset of 576 counts
 * included). Stops any measurement; the analyzer is idle afterwards. Returns
 * the link status. */
LX_API LxStatus lxAdminGetFullBandIQ(int32_t handle, double frequencyHz, float* iq);

/* ---- end of C++-only section ------------------------------------------- */
#endif /* __cplusplus */

#endif /* LX_API_H */
