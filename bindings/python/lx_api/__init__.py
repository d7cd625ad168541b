"""The LX530 spectrum analyzer and I/Q receiver from Python.

A thin layer over ``liblx_api.so``: every call goes to the C API with the GIL
released, results come back as NumPy arrays, and every status becomes an
exception (errors, :class:`LxError` and its subclasses) or a warning
(:class:`LxWarning` and its subclasses; the data are still returned).

>>> import lx_api
>>> with lx_api.Simulator(12345678, {"emitters": [
...         {"kind": "tone", "frequency_hz": 1e9, "power_dbm": -30}]}):
...     with lx_api.open(12345678) as dev:
...         dev.configure_sweep(center=1e9, span=10e6, rbw=10e3)
...         s = dev.get_sweep()
...         print(s.frequencies[s.max.argmax()], s.max.max())

A Ctrl-C during a blocking read (:meth:`Device.get_sweep`,
:meth:`Device.read_iq`, an :class:`IQStream`) raises ``KeyboardInterrupt``
within about 50 ms and leaves the device open and usable: an interrupted sweep
aborts the measurement (configure again), an interrupted I/Q read keeps the
stream running and marks the next block as following a gap.
"""
from __future__ import annotations

import builtins
import enum
import json
import os
from typing import Any, Iterator, NamedTuple, Optional, Union

import numpy as np

from . import _native

__all__ = [
    "LxError", "DeviceNotFoundError", "InvalidParameterError", "NullPointerError", "InvalidDeviceError",
    "ConnectionLostError", "FramingError", "BootError", "SweepAlreadyActiveError",
    "InvalidConfigurationError", "MaxDevicesConnectedError", "AllocationError", "FileIOError",
    "FlashTransferError", "LxWarning", "SettingClampedWarning", "TempDriftWarning", "ADCOverflowWarning",
    "UncalDataWarning", "CPULimitedWarning", "InvalidCalDataWarning",
    "Mode", "Detector", "VideoUnits", "Scale", "Window", "GPSState", "PowerState",
    "SweepParameters", "Sweep", "RealTimeParameters", "RealTimeFrame", "IQParameters", "IQBlock",
    "GPSInfo", "Diagnostics", "StreamHealth", "AudioType", "AudioSettings", "AudioBlock",
    "Device", "IQStream", "Simulator", "open", "list_devices", "device_personality", "error_string",
    "api_version", "ADC_RATE", "AUDIO_RATE",
]

#: Sample rate of the analyzer's ADC (Hz); I/Q rates are this over a power of two.
ADC_RATE = 61.44e6
AUDIO_RATE = 30000.0  # demodulated audio, samples per second


def api_version() -> str:
    """Version of the loaded liblx_api.so, e.g. ``"1.0.0"``."""
    return _native.api_version()


__version__ = api_version()


def error_string(status: int) -> str:
    """Text of a status value (``lxGetErrorString``); "Unknown error" for others."""
    return _native.error_string(int(status))


# ---- statuses -------------------------------------------------------------

class LxError(Exception):
    """An error status of the C API. ``status`` is its code (negative),
    ``text`` its ``lxGetErrorString`` text, ``call`` the C function."""

    status: int = 0

    def __init__(self, status: int, text: str, call: str = "") -> None:
        super().__init__(f"{call}: {text} ({status})" if call else f"{text} ({status})")
        self.status = status
        self.text = text
        self.call = call


class DeviceNotFoundError(LxError):
    status = -1


class InvalidParameterError(LxError, ValueError):
    status = -2


class NullPointerError(LxError):
    status = -3


class InvalidDeviceError(LxError):
    status = -4


class ConnectionLostError(LxError):
    status = -5


class FramingError(LxError):
    status = -6


class BootError(LxError):
    status = -7


class SweepAlreadyActiveError(LxError):
    status = -8


class InvalidConfigurationError(LxError):
    status = -9


class MaxDevicesConnectedError(LxError):
    status = -10


class AllocationError(LxError, MemoryError):
    status = -11


class FileIOError(LxError):
    status = -100


class FlashTransferError(LxError):
    status = -101


class LxWarning(UserWarning):
    """A warning status of the C API: the call delivered its data. The class
    attribute ``status`` is the code (positive)."""

    status: int = 0


class SettingClampedWarning(LxWarning):
    status = 1


class TempDriftWarning(LxWarning):
    status = 2


class ADCOverflowWarning(LxWarning):
    status = 3


class UncalDataWarning(LxWarning):
    status = 4


class CPULimitedWarning(LxWarning):
    status = 5


class InvalidCalDataWarning(LxWarning):
    status = 6


def _subclasses(base: type) -> dict:
    return {c.status: c for c in base.__subclasses__()}


_native._set_status_classes(_subclasses(LxError), _subclasses(LxWarning), LxError, LxWarning)


def _raise(status: int, call: str) -> None:
    _native.check(int(status), call)


# ---- enumerations ---------------------------------------------------------

class Mode(enum.IntEnum):
    IDLE = 0
    SWEEP = 1
    REAL_TIME = 2
    IQ = 3
    IQ_SWEEP_LIST = 4
    AUDIO = 5
    FULL_BAND_IQ = 100


class Detector(enum.IntEnum):
    AVERAGE = 0
    MIN_MAX = 1


class VideoUnits(enum.IntEnum):
    LOG = 0
    VOLTAGE = 1
    POWER = 2
    SAMPLE = 3


class Scale(enum.IntEnum):
    LOG = 0  #: dBm
    LINEAR = 1  #: millivolts
    LOG_NO_STEP_GAIN = 2


class Window(enum.IntEnum):
    FLAT_TOP = 0
    NUTTALL = 1
    BLACKMAN = 2
    HAMMING = 3
    GAUSSIAN = 4
    RECTANGULAR = 5


class GPSState(enum.IntEnum):
    NO_FIX = 0
    FIX = 1
    FIX_DISCIPLINED = 2


class PowerState(enum.IntEnum):
    ON = 0
    STANDBY = 1


class AudioType(enum.IntEnum):
    AM = 0
    FM = 1
    USB = 2  # a line f above the centre sounds at f
    LSB = 3  # a line f below the centre sounds at f
    CW = 4   # a carrier on the centre sounds at 520 Hz


# ---- results --------------------------------------------------------------

def _axis(start: float, step: float, n: int) -> np.ndarray:
    return start + step * np.arange(n, dtype=np.float64)


class SweepParameters(NamedTuple):
    """What the sweep set-up achieved (``lxGetSweepParameters``)."""
    rbw: float  #: Hz
    vbw: float  #: Hz
    start: float  #: frequency of trace point 0, Hz
    bin_size: float  #: spacing of the trace points, Hz
    points: int

    @property
    def frequencies(self) -> np.ndarray:
        """Frequency of every trace point (Hz, float64)."""
        return _axis(self.start, self.bin_size, self.points)


class Sweep(NamedTuple):
    """One sweep: the frequency axis (Hz) and the min and max traces (float32;
    dBm on the log scales, mV on the linear one; equal with the average
    detector)."""
    frequencies: np.ndarray
    min: np.ndarray
    max: np.ndarray
    timestamp: int  #: ns since 1970, device time
    status: int  #: 0, or the warning status that came with the traces


class RealTimeParameters(NamedTuple):
    """What the real-time set-up achieved (``lxGetRealTimeParameters``)."""
    rbw: float
    points: int
    start: float
    bin_size: float
    frame_width: int
    frame_height: int
    poi_time: float  #: shortest signal always seen at its full level, s

    @property
    def frequencies(self) -> np.ndarray:
        return _axis(self.start, self.bin_size, self.points)


class RealTimeFrame(NamedTuple):
    """One real-time frame. ``density`` (and ``alpha`` when asked for) are
    2-D float32 arrays of shape (frame_height, frame_width): row 0 is the
    lowest level, column c covers trace points c*d .. c*d+d-1,
    d = points / frame_width."""
    density: np.ndarray
    alpha: Optional[np.ndarray]
    min: np.ndarray
    max: np.ndarray
    frequencies: np.ndarray
    number: int  #: 0 for the first frame after configure; a gap means frames were overwritten
    timestamp: int  #: host time when the frame closed, ns since 1970
    status: int


class IQParameters(NamedTuple):
    sample_rate: float  #: Hz
    bandwidth: float  #: Hz, after limiting
    correction_db: float  #: applied to complex64 samples; apply it yourself to int16 ones


class IQBlock(NamedTuple):
    """Samples read from the I/Q stream. ``samples``: complex64 in sqrt(mW)
    (the mean of |x|**2 is the power in mW), or an (n, 2) int16 array of raw
    I, Q values. ``timestamp``: ns since 1970 of samples[0] (GPS time once
    there is a fix). ``sample_loss``: samples are missing before some of
    these. ``triggers``: positions of external trigger edges, in samples
    from samples[0] (fractional)."""
    samples: np.ndarray
    timestamp: int
    sample_loss: bool
    triggers: list
    status: int


class GPSInfo(NamedTuple):
    state: GPSState
    updated: bool  #: a new message arrived since the last call
    time: int  #: UTC seconds since 1970; 0 without a fix
    latitude: float  #: degrees, north positive
    longitude: float  #: degrees, east positive
    altitude: float  #: m above mean sea level
    nmea: str  #: the receiver's last message


class Diagnostics(NamedTuple):
    voltage: float  #: V
    current: float  #: A
    temperature: float  #: degrees C


class AudioSettings(NamedTuple):
    """The stored audio settings, after clamping (Hz, microseconds)."""
    center: float
    type: AudioType
    if_bandwidth: float
    low_pass: float
    high_pass: float
    deemphasis_us: float


class AudioBlock(NamedTuple):
    """1000 samples (1/30 s) of demodulated audio at :data:`AUDIO_RATE`,
    float32. ``sample_loss``: samples are missing before or inside the block
    (the stream dropped I/Q, or the reader fell a second behind)."""
    samples: np.ndarray
    sample_loss: bool
    status: int


class StreamHealth(NamedTuple):
    samples_delivered: int
    samples_dropped: int
    data_loss_events: int
    adc_overflow_events: int
    transport_errors: int
    spectra_lost: int
    stream_held_ms: int  # real time: how long the host held the stream up (its processing a ring behind)


# ---- devices --------------------------------------------------------------

def list_devices() -> list:
    """Serial numbers of the attached analyzers not open in this process."""
    return _native.device_list()


def device_personality(serial: int) -> int:
    """1 run firmware, 0 boot loader, -1 neither (:class:`DeviceNotFoundError` for an unknown serial)."""
    return _native.device_personality(int(serial))


def open(serial: Optional[int] = None) -> "Device":  # noqa: A001 - the package's verb
    """Opens the analyzer with this serial number, or the first one found.
    Use as a context manager (or call :meth:`Device.close`)."""
    handle = _native.open_first() if serial is None else _native.open_serial(int(serial))
    return Device(handle)


_Scene = Union[None, str, dict, "os.PathLike[str]"]


def _scene_text(scene: _Scene) -> str:
    if scene is None:
        return ""
    if isinstance(scene, dict):
        return json.dumps(scene)
    if isinstance(scene, os.PathLike):
        with builtins.open(scene) as f:
            return f.read()
    return str(scene)


class Simulator:
    """A simulated LX530 plugged in under the USB layer (``lxSimAttach``);
    opened like hardware by its serial. ``scene``: a dict, JSON text, a path
    (``os.PathLike``) to a JSON file, or None for the default scene
    (docs/simulator.md). A refused scene raises :class:`InvalidParameterError`
    naming the key at fault. Detached on :meth:`detach` or leaving a ``with``."""

    def __init__(self, serial: int = 10000001, scene: _Scene = None) -> None:
        status, why = _native.sim_attach(int(serial), _scene_text(scene))
        _raise(status, f"lxSimAttach ({why})" if why else "lxSimAttach")
        self.serial = int(serial)
        self._attached = True

    def set_scene(self, scene: _Scene) -> None:
        """Replaces the scene; samples and status packets from now on use it."""
        status, why = _native.sim_set_scene(self.serial, _scene_text(scene))
        _raise(status, f"lxSimSetScene ({why})" if why else "lxSimSetScene")

    def detach(self) -> None:
        """Unplugs it: transfers under way fail as on a real unplug."""
        if self._attached:
            self._attached = False
            _native.sim_detach(self.serial)

    def counters(self) -> dict:
        """What the simulated analyzer has done since attach (I/Q packets, transfers, ...)."""
        return _native.sim_counters(self.serial)

    @staticmethod
    def advance_time(ms: int) -> None:
        """Lets ms milliseconds of virtual (device) time pass at once."""
        _native.sim_advance_time_ms(int(ms))

    @staticmethod
    def detach_all() -> None:
        _native.sim_detach_all()

    def __enter__(self) -> "Simulator":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.detach()


def _set_pair(current: list, a: Optional[float], b: Optional[float]) -> None:
    if a is not None:
        current[0] = a
    if b is not None:
        current[1] = b


class Device:
    """An open analyzer (a handle of the C API). Settings are stored by the
    setters and reach the analyzer at :meth:`configure` (or a
    ``configure_*`` method). Calls may come from any thread."""

    def __init__(self, handle: int) -> None:
        self.handle = handle
        # The C API sets these in pairs and triples; the Python setters take
        # each alone, so the last values given are kept here (C defaults).
        self._sweep_range = [9e3, 15e9]
        self._coupling = [30e3, None, 1e-6]
        self._detector = [int(Detector.AVERAGE), int(VideoUnits.POWER)]
        self._rt_scale = [int(Scale.LOG), 0.0, 100.0]
        self._rt_span = [1e9, 40e6]

    # -- life cycle
    def close(self) -> None:
        """Stops any measurement, puts the analyzer into standby and frees the handle."""
        if self.handle >= 0:
            h, self.handle = self.handle, -1
            _native.close(h)

    def __enter__(self) -> "Device":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<lx_api.Device handle={self.handle}>"

    def preset(self) -> None:
        """Resets the analyzer (it re-enumerates, about six seconds) and frees the handle."""
        h, self.handle = self.handle, -1
        _native.preset(h)

    def configure(self, mode: Mode) -> int:
        """Sets up ``mode`` from the stored settings; returns 0 or a warning status."""
        self._iq_slice = None
        return _native.configure(self.handle, int(mode))

    def abort(self) -> None:
        """Stops the running measurement; the analyzer is idle."""
        _native.abort(self.handle)

    @property
    def mode(self) -> Mode:
        return Mode(_native.current_mode(self.handle))

    # -- settings shared by the measurements
    @property
    def ref_level(self) -> float:
        """Reference level, dBm (at most 20; the automatic attenuator follows it)."""
        return _native.ref_level(self.handle)

    @ref_level.setter
    def ref_level(self, dbm: float) -> None:
        _native.set_ref_level(self.handle, float(dbm))

    @property
    def attenuator(self) -> int:
        """-1 automatic, 0..6 steps of 5 dB."""
        return _native.attenuator(self.handle)

    @attenuator.setter
    def attenuator(self, step: int) -> None:
        _native.set_attenuator(self.handle, int(step))

    # -- swept spectrum
    def set_sweep(self, *, start: Optional[float] = None, stop: Optional[float] = None,
                  center: Optional[float] = None, span: Optional[float] = None, rbw: Optional[float] = None,
                  vbw: Optional[float] = None, sweep_time: Optional[float] = None,
                  detector: Optional[Detector] = None, units: Optional[VideoUnits] = None,
                  scale: Optional[Scale] = None, window: Optional[Window] = None,
                  ref_level: Optional[float] = None, attenuator: Optional[int] = None) -> None:
        """Stores sweep settings (each optional; the others keep their values).
        ``start``/``stop`` or ``center``/``span``; one of a pair alone keeps
        the other end (or the centre or span) of the last range set. An unset VBW follows
        the RBW. A clamped value emits :class:`SettingClampedWarning`."""
        if ref_level is not None:
            self.ref_level = ref_level
        if attenuator is not None:
            self.attenuator = attenuator
        r = self._sweep_range
        if start is not None or stop is not None:
            r[:] = [r[0] if start is None else float(start), r[1] if stop is None else float(stop)]
            _native.set_sweep_start_stop(self.handle, r[0], r[1])
        if center is not None or span is not None:
            c = (r[0] + r[1]) / 2 if center is None else float(center)
            w = r[1] - r[0] if span is None else float(span)
            _native.set_sweep_center_span(self.handle, c, w)
            r[:] = [c - w / 2, c + w / 2]
        if rbw is not None or vbw is not None or sweep_time is not None:
            c = self._coupling
            c[0] = c[0] if rbw is None else float(rbw)
            c[1] = c[1] if vbw is None else float(vbw)
            c[2] = c[2] if sweep_time is None else float(sweep_time)
            _native.set_sweep_coupling(self.handle, c[0], c[0] if c[1] is None else c[1], c[2])
        if detector is not None or units is not None:
            _set_pair(self._detector, detector, units)
            _native.set_sweep_detector(self.handle, int(self._detector[0]), int(self._detector[1]))
        if scale is not None:
            _native.set_sweep_scale(self.handle, int(scale))
        if window is not None:
            _native.set_sweep_window(self.handle, int(window))

    def configure_sweep(self, **settings: Any) -> SweepParameters:
        """:meth:`set_sweep` with these settings, configure the sweep mode and
        return what it achieved."""
        self.set_sweep(**settings)
        self.configure(Mode.SWEEP)
        return self.sweep_parameters()

    def sweep_parameters(self) -> SweepParameters:
        return SweepParameters(*_native.sweep_parameters(self.handle))

    def get_sweep(self) -> Sweep:
        """Runs one sweep (blocking, GIL released) and returns its traces on
        their frequency axis. Needs the sweep mode configured. A Ctrl-C aborts
        the sweep: the device stays open, idle, its settings kept."""
        mn, mx, ts, status, start, step = _native.get_sweep(self.handle)
        return Sweep(_axis(start, step, len(mx)), mn, mx, ts, status)

    def sweeps(self, count: Optional[int] = None) -> Iterator[Sweep]:
        """:meth:`get_sweep` ``count`` times (forever when None)."""
        n = 0
        while count is None or n < count:
            yield self.get_sweep()
            n += 1

    # -- real-time spectrum
    def configure_realtime(self, *, center: Optional[float] = None, span: Optional[float] = None,
                           rbw: Optional[float] = None, detector: Optional[Detector] = None,
                           scale: Optional[Scale] = None, frame_ref: Optional[float] = None,
                           frame_range: Optional[float] = None, window: Optional[Window] = None,
                           ref_level: Optional[float] = None, attenuator: Optional[int] = None
                           ) -> RealTimeParameters:
        """Stores the real-time settings given, configures the real-time mode
        and returns what it achieved. ``frame_ref``: level of the density
        frame's top row (dBm); ``frame_range``: the dB its rows span."""
        if ref_level is not None:
            self.ref_level = ref_level
        if attenuator is not None:
            self.attenuator = attenuator
        if center is not None or span is not None:
            _set_pair(self._rt_span, center, span)
            _native.set_realtime_center_span(self.handle, *map(float, self._rt_span))
        if rbw is not None:
            _native.set_realtime_rbw(self.handle, float(rbw))
        if detector is not None:
            _native.set_realtime_detector(self.handle, int(detector))
        if window is not None:
            _native.set_realtime_window(self.handle, int(window))
        if scale is not None or frame_ref is not None or frame_range is not None:
            s = self._rt_scale
            s[0] = s[0] if scale is None else int(scale)
            s[1] = s[1] if frame_ref is None else float(frame_ref)
            s[2] = s[2] if frame_range is None else float(frame_range)
            _native.set_realtime_scale(self.handle, s[0], s[1], s[2])
        self.configure(Mode.REAL_TIME)
        return self.realtime_parameters()

    def realtime_parameters(self) -> RealTimeParameters:
        return RealTimeParameters(*_native.realtime_parameters(self.handle))

    def get_realtime_frame(self, alpha: bool = False) -> RealTimeFrame:
        """The next frame in order (waits up to one frame time, GIL released)."""
        density, a, mn, mx, number, ts, status, start, step = _native.get_realtime_frame(self.handle, alpha)
        return RealTimeFrame(density, a, mn, mx, _axis(start, step, len(mx)), number, ts, status)

    def realtime_frames(self, count: Optional[int] = None, alpha: bool = False) -> Iterator[RealTimeFrame]:
        n = 0
        while count is None or n < count:
            yield self.get_realtime_frame(alpha)
            n += 1

    # -- I/Q streaming
    def configure_iq(self, *, center: Optional[float] = None, decimation: Optional[int] = None,
                     sample_rate: Optional[float] = None, bandwidth: Optional[float] = None,
                     int16: bool = False, software_filter: Optional[bool] = None,
                     trigger_edge: Optional[str] = None, queue_size: Optional[int] = None,
                     ref_level: Optional[float] = None, attenuator: Optional[int] = None) -> IQParameters:
        """Stores the I/Q settings given and starts the stream (mode 3).
        ``sample_rate`` (61.44e6 / 2**k) or ``decimation`` (2**k, k = 0..13);
        ``int16`` delivers raw samples; ``trigger_edge`` "rising" or "falling"."""
        if ref_level is not None:
            self.ref_level = ref_level
        if attenuator is not None:
            self.attenuator = attenuator
        if sample_rate is not None:
            d = ADC_RATE / float(sample_rate)
            if decimation is not None or d != int(d):
                raise InvalidParameterError(-2, error_string(-2), "sample_rate: 61.44e6 / 2**k, k = 0..13")
            decimation = int(d)
        if decimation is not None:
            _native.set_iq_decimation(self.handle, int(decimation))
        if center is not None:
            _native.set_iq_center(self.handle, float(center))
        if bandwidth is not None:
            _native.set_iq_bandwidth(self.handle, float(bandwidth))
        if software_filter is not None:
            _native.set_iq_software_filter(self.handle, int(bool(software_filter)))
        if trigger_edge is not None:
            edges = {"rising": 0, "falling": 1}
            if trigger_edge not in edges:
                raise InvalidParameterError(-2, error_string(-2), "trigger_edge: 'rising' or 'falling'")
            _native.set_iq_trigger_edge(self.handle, edges[trigger_edge])
        if queue_size is not None:
            _native.set_iq_queue_size(self.handle, int(queue_size))
        _native.set_iq_data_type(self.handle, int(bool(int16)))
        self._iq_int16 = bool(int16)
        self.configure(Mode.IQ)
        return self.iq_parameters()

    def iq_parameters(self) -> IQParameters:
        return IQParameters(*_native.iq_parameters(self.handle))

    def read_iq(self, count: int, *, purge: bool = False, out: Optional[np.ndarray] = None,
                max_triggers: int = 64) -> IQBlock:
        """Reads ``count`` samples of the running stream (blocking, GIL
        released), continuing the previous read without a gap unless
        ``sample_loss`` says otherwise. ``purge`` drops what was stored before.
        ``out``: an array to fill instead of a new one (complex64, or (n, 2)
        int16 for an int16 stream). Up to ``max_triggers`` trigger edges per
        50 ms of stream are reported."""
        if count < 1:
            _raise(-2, "lxGetIQ")
        slice_ = getattr(self, "_iq_slice", None)
        if slice_ is None:
            p = _native.iq_parameters(self.handle)  # raises unless the stream runs
            slice_ = self._iq_slice = max(1, int(p[0] * 0.05))
        return IQBlock(*_native.read_iq(self.handle, int(count), getattr(self, "_iq_int16", False), slice_,
                                        purge, int(max_triggers), out))

    def iq_stream(self, block_size: int = 65536, blocks: Optional[int] = None, **settings: Any) -> "IQStream":
        """Starts the I/Q stream with ``settings`` (as :meth:`configure_iq`)
        and returns an iterator of :class:`IQBlock` of ``block_size`` samples,
        ``blocks`` of them (endless when None). Leaving a ``with`` block (or
        :meth:`IQStream.close`) stops the stream."""
        self.configure_iq(**settings)
        return IQStream(self, block_size, blocks)

    # -- audio demodulation
    def configure_audio(self, *, center: Optional[float] = None, type: Optional[AudioType] = None,  # noqa: A002
                        if_bandwidth: Optional[float] = None, low_pass: Optional[float] = None,
                        high_pass: Optional[float] = None, deemphasis_us: Optional[float] = None) -> AudioSettings:
        """Stores the audio settings given (the others keep their values) and
        starts the demodulator (mode 5). Filters in Hz: IF bandwidth 500 ..
        250e3, low-pass 1e3 .. 12e3, high-pass 20 .. 1e3; de-emphasis 1 .. 100
        us (FM)."""
        if center is not None:
            _native.set_audio_center(self.handle, float(center))
        if type is not None:
            _native.set_audio_type(self.handle, int(AudioType(type)))
        if if_bandwidth is not None or low_pass is not None or high_pass is not None:
            now = self.audio_settings()
            _native.set_audio_filters(self.handle,
                                      float(now.if_bandwidth if if_bandwidth is None else if_bandwidth),
                                      float(now.low_pass if low_pass is None else low_pass),
                                      float(now.high_pass if high_pass is None else high_pass))
        if deemphasis_us is not None:
            _native.set_audio_deemphasis(self.handle, float(deemphasis_us))
        self.configure(Mode.AUDIO)
        return self.audio_settings()

    def audio_settings(self) -> AudioSettings:
        c, t, bw, lp, hp, de = _native.audio_settings(self.handle)
        return AudioSettings(c, AudioType(t), bw, lp, hp, de)

    def get_audio(self) -> AudioBlock:
        """The next block of audio (blocking up to 1/30 s, GIL released)."""
        samples, status = _native.get_audio(self.handle)
        return AudioBlock(samples, status == 4, status)

    def read_audio(self, seconds: float) -> np.ndarray:
        """``seconds`` of audio as one float32 array (whole blocks, at least
        one); a loss inside raises :class:`UncalDataWarning` as a warning."""
        blocks = max(1, int(round(float(seconds) * AUDIO_RATE / 1000)))
        return np.concatenate([self.get_audio().samples for _ in range(blocks)])

    def stream_health(self) -> StreamHealth:
        """What the running stream delivered and lost since configure."""
        return StreamHealth(**_native.stream_health(self.handle))

    # -- identity, diagnostics, peripherals
    @property
    def serial_number(self) -> int:
        return _native.serial_number(self.handle)

    @property
    def firmware_version(self) -> tuple:
        return _native.firmware_version(self.handle)

    @property
    def cal_date(self) -> int:
        return _native.cal_date(self.handle)

    def diagnostics(self) -> Diagnostics:
        """Supply voltage and current and temperature."""
        return Diagnostics(**_native.diagnostics(self.handle))

    @property
    def power_state(self) -> PowerState:
        return PowerState(_native.power_state(self.handle))

    @power_state.setter
    def power_state(self, state: PowerState) -> None:
        _native.set_power_state(self.handle, int(state))

    @property
    def reference(self) -> int:
        """Frequency reference 0..1."""
        return _native.reference(self.handle)

    @reference.setter
    def reference(self, value: int) -> None:
        _native.set_reference(self.handle, int(value))

    @property
    def gpio_port(self) -> int:
        """GPIO port configuration 0..6 (4: UART); set only while idle."""
        return _native.gpio_port(self.handle)

    @gpio_port.setter
    def gpio_port(self, config: int) -> None:
        _native.set_gpio_port(self.handle, int(config))

    @property
    def uart_baud_rate(self) -> float:
        return _native.uart_baud_rate(self.handle)

    @uart_baud_rate.setter
    def uart_baud_rate(self, baud: float) -> None:
        _native.set_uart_baud_rate(self.handle, float(baud))

    def write_uart(self, byte: int) -> None:
        _native.write_uart(self.handle, int(byte))

    def set_fan_set_point(self, celsius: float) -> None:
        _native.set_fan_set_point(self.handle, float(celsius))

    def fan_settings(self) -> tuple:
        """(set point, fan reading)."""
        return _native.fan_settings(self.handle)

    # -- GPS
    def gps_info(self, refresh: bool = True) -> GPSInfo:
        """The last fix and the receiver's state; ``refresh`` reads housekeeping now (not while streaming)."""
        state, updated, time, lat, lon, alt, nmea = _native.gps_info(self.handle, bool(refresh))
        return GPSInfo(GPSState(state), updated, time, lat, lon, alt, nmea)

    @property
    def gps_timebase_update(self) -> bool:
        """Discipline the reference oscillator to the GPS."""
        return bool(_native.gps_timebase_update(self.handle))

    @gps_timebase_update.setter
    def gps_timebase_update(self, enable: bool) -> None:
        _native.set_gps_timebase_update(self.handle, int(bool(enable)))

    def gps_holdover(self) -> tuple:
        """(holdover, time): a disciplined tune value newer than the factory's, and when it was recorded."""
        return _native.gps_holdover(self.handle)

    def write_gps(self, data: bytes) -> None:
        _native.write_gps(self.handle, bytes(data))


class IQStream:
    """Iterator of :class:`IQBlock` from a running I/Q stream (see
    :meth:`Device.iq_stream`). After a Ctrl-C in the middle of a block, the
    samples of that block are gone: the next block comes with
    ``sample_loss`` True."""

    def __init__(self, device: Device, block_size: int, blocks: Optional[int]) -> None:
        if block_size < 1:
            raise InvalidParameterError(-2, error_string(-2), "block_size")
        self.device = device
        self.block_size = int(block_size)
        self.remaining = blocks
        self.parameters = device.iq_parameters()
        self._gap = False

    def __iter__(self) -> "IQStream":
        return self

    def __next__(self) -> IQBlock:
        if self.remaining is not None:
            if self.remaining <= 0:
                raise StopIteration
            self.remaining -= 1
        try:
            block = self.device.read_iq(self.block_size)
        except BaseException:
            self._gap = True
            raise
        if self._gap:
            self._gap = False
            block = block._replace(sample_loss=True)
        return block

    def close(self) -> None:
        """Stops the stream (the device stays open)."""
        if self.device.handle >= 0:
            self.device.abort()

    def __enter__(self) -> "IQStream":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()
