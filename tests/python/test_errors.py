# Statuses as exceptions of their class (code and text) and as warnings that still deliver.
# (That a refused scene leaves the analyzer as it was: tests/sim/emitters_test.cpp.)
import warnings

import pytest

import lx_api
from conftest import tone_scene


def _closed(sim, dev):
    dev.close()
    return dev.mode


def _unplugged_mid_stream(sim, dev):
    dev.configure_iq(center=1e9, decimation=256)
    dev.read_iq(1000)
    sim.detach()
    return dev.read_iq(2_000_000)


@pytest.mark.parametrize("action, cls, status, text", [
    (lambda sim, dev: lx_api.open(99999998), lx_api.DeviceNotFoundError, -1, "Device not found"),
    (lambda sim, dev: dev.configure(77), lx_api.InvalidParameterError, -2, "Invalid parameter specified"),
    (_closed, lx_api.InvalidDeviceError, -4, "Invalid device specified"),
    (_unplugged_mid_stream, lx_api.ConnectionLostError, -5, "Connection lost"),
    (lambda sim, dev: dev.get_sweep(), lx_api.InvalidConfigurationError, -9, "Invalid configuration"),
])
def test_error_raises_its_class_with_code_and_text(analyzer, action, cls, status, text):
    sim, dev = analyzer()
    with pytest.raises(cls) as info:
        action(sim, dev)
    e = info.value
    assert isinstance(e, lx_api.LxError) and type(e) is cls
    assert (e.status, e.text) == (status, text) and f"{text} ({status})" in str(e)


def test_refused_scene_names_the_key(analyzer):
    sim, _ = analyzer(tone_scene((1e9, -30)))
    with pytest.raises(lx_api.InvalidParameterError, match="noise_floor_dbm_hz"):
        sim.set_scene({"noise_floor_dbm_hz": 7})
    with pytest.raises(lx_api.InvalidParameterError, match="bogus"):
        lx_api.Simulator(sim.serial + 500, {"bogus": 1})


def test_clamped_settings_warn_and_take_effect(analyzer):
    _, dev = analyzer()
    settings = dict(center=1e9, span=20e6, rbw=10e3, vbw=1e6)
    with pytest.warns(lx_api.SettingClampedWarning) as record:
        params = dev.configure_sweep(**settings)
    assert record[0].category.status == 1 and "Setting clamped (1)" in str(record[0].message)
    assert params.vbw == 10e3
    # Turned into errors by a warnings filter, the warning is raised.
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with pytest.raises(lx_api.SettingClampedWarning):
            dev.configure_sweep(**settings)
