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
 * Usable from C (C11) and C++. The service functions for calibration records
 * (lxCal*, kdCalDoesCorrectionsExist) use C++ linkage and are declared in the
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

/* Audio demodulation type. */
typedef enum LxAudioType {
    lxAudioAM = 0,
    lxAudioFM = 1,
    lxAudioSideband = 2,         /* in-phase part taken as it is */
    lxAudioSidebandInverted = 3, /* in-phase part negated */
    lxAudioSidebandOffset = 4    /* in-phase part negated, tuned 520 Hz off */
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

/* ---- end of C++-only section ------------------------------------------- */
#endif /* __cplusplus */

#endif /* LX_API_H */
