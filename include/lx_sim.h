/*
 * lx_sim: the simulated LX530.
 *
 * A simulated analyzer plugs in under the library's USB layer: once attached
 * it is enumerated, opened and driven exactly like hardware, with the samples
 * it delivers synthesised from a scene (emitters, noise floor, temperature,
 * supply, GPS, ...). Applications use it to develop and test without an
 * instrument; the scene schema is documented in docs/simulator.md.
 *
 * Usable from C and C++. All calls are thread-safe.
 */
#ifndef LX_SIM_H
#define LX_SIM_H

#include <stdint.h>

#include "lx_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Plugs in a simulated LX530 running its run firmware, with this 8-digit
 * serial number (10000000..99999999). A null or empty scene is the default
 * scene. A serial already attached, a serial not of 8 digits, or a scene that
 * is not valid JSON or has unknown keys: lxInvalidParameterErr, nothing
 * changed. */
LX_API LxStatus lxSimAttach(int32_t serial, const char* sceneJson);

/* Unplugs it: transfers under way fail as on a real unplug. Unknown serial:
 * lxDeviceNotFoundErr. */
LX_API LxStatus lxSimDetach(int32_t serial);

/* Replaces the scene of an attached device; it takes effect for the samples
 * and status packets produced from then on. */
LX_API LxStatus lxSimSetScene(int32_t serial, const char* sceneJson);

/* Why the calling thread's last lxSimAttach, lxSimAttachRaw or lxSimSetScene
 * refused its scene: one line naming the key at fault (empty when the last
 * scene was accepted). Copies at most capacity - 1 characters and a NUL.
 * Null text: lxNullPtrErr; capacity below 1: lxInvalidParameterErr. */
LX_API LxStatus lxSimGetSceneError(char* text, int32_t capacity);

/* Plugs in a device with raw descriptor strings, for enumeration tests: any
 * product string (a product of "LX530 Boot" starts in the boot loader) and
 * any serial string, even one that is not a valid serial. Returns the
 * device's simulator id (>= 1) through *id; detach it with lxSimDetachId. */
LX_API LxStatus lxSimAttachRaw(const char* product, const char* serialString,
                               const char* sceneJson, int32_t* id);
LX_API LxStatus lxSimDetachId(int32_t id);

/* Unplugs every simulated device. */
LX_API LxStatus lxSimDetachAll(void);

/* Fault injection. Each fault affects the next `count` occasions it applies
 * to (count < 0: until cleared with lxSimFaultNone). */
typedef enum LxSimFault {
    lxSimFaultNone = 0,           /* clear every pending fault */
    lxSimFaultStall = 1,          /* a bulk IN transfer never completes: the host times out */
    lxSimFaultShortTransfer = 2,  /* a bulk IN transfer completes 8 bytes short */
    lxSimFaultBadMagic = 3,       /* an aux packet carries a wrong magic word */
    lxSimFaultNoAnswer = 4,       /* transfer requests are not answered at all */
    lxSimFaultStayBusy = 5        /* the boot loader reports busy on every poll */
} LxSimFault;
LX_API LxStatus lxSimInjectFault(int32_t serial, int32_t fault, int32_t count);

/* What the simulated device has seen and done since it was attached (or
 * since the counters were reset). */
typedef struct LxSimCounters {
    uint64_t flashReads;      /* 32 KiB flash read commands answered */
    uint64_t flashPageWrites; /* 1 KiB flash page writes */
    uint64_t flashPageErases; /* flash page erases */
    uint64_t commandBlocks;   /* 512-word command blocks received */
    uint64_t commandWords;    /* non-filler command words executed */
    uint64_t inTransfers;     /* bulk IN transfers completed (any length) */
    uint64_t outTransfers;    /* bulk OUT transfers completed */
    uint64_t vendorRequests;  /* vendor control requests answered */
    uint64_t opens;           /* times the device was opened by the host */
    uint64_t reenumerations;  /* personality changes (each re-enumerates) */
    uint64_t iqPackets;       /* I/Q packets delivered */
    uint64_t auxPackets;      /* aux (status) packets delivered */
} LxSimCounters;
LX_API LxStatus lxSimGetCounters(int32_t serial, LxSimCounters* counters);
LX_API LxStatus lxSimResetCounters(int32_t serial);

/* Personality of an attached device: 1 run firmware, 0 boot loader. */
LX_API LxStatus lxSimGetPersonality(int32_t serial, int32_t* runFirmware);

/* Virtual time, in milliseconds, elapsed since the process started: the
 * settle waits of simulated devices (re-enumeration, flash erase and write,
 * busy polls) and lxSimAdvanceTimeMs. Monotonic; never sleeps for real. */
LX_API LxStatus lxSimGetVirtualTimeMs(uint64_t* ms);

/* Lets `ms` milliseconds pass at once, without sleeping: the virtual clock
 * moves by ms, and every attached device's 122.88 MHz tick counter by
 * 122880 ticks per ms (with its GPS receiver, which sends one message per
 * second of device time). More than 1000000000 ms in one call:
 * lxInvalidParameterErr, nothing changes. */
LX_API LxStatus lxSimAdvanceTimeMs(uint64_t ms);

/* The command words the device received, oldest first: every word of every
 * command block except the filler word 0x00000001 and the data words of a
 * flash page write. The most recent 262144 words are kept. Copies
 * min(capacity, stored) words to `words` (which may be null when capacity
 * is 0) and sets *count to the number stored. */
LX_API LxStatus lxSimGetCommandLog(int32_t serial, uint32_t* words, int32_t capacity,
                                   int32_t* count);
LX_API LxStatus lxSimClearCommandLog(int32_t serial);

/* The bytes the device passed to its GPS receiver (command words 0x28 and
 * 0x29, two bytes each, low byte first), oldest first; the most recent 65536
 * are kept. Copies min(capacity, stored) bytes to `bytes` (which may be null
 * when capacity is 0) and sets *count to the number stored. */
LX_API LxStatus lxSimGetGpsInput(int32_t serial, uint8_t* bytes, int32_t capacity, int32_t* count);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* LX_SIM_H */
