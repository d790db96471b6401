"""NorvAnalytic for Python hosts: analytics events posted to a collection server.

Call ``set_main_bundle`` and ``init_with_key`` once, then the ``send_...`` calls from any thread;
each call becomes one event, posted at once. Call ``flush`` before the program ends: events still
on their way are lost when the process exits. Texts are ``str`` (``None`` where a value may be
absent); anything else raises ``TypeError``, and a text with a NUL character ``ValueError``.
"""

from __future__ import annotations

import atexit
import ctypes
import enum
import logging
import math
import threading
import time
from typing import Callable, Optional

from ._library import DIAGNOSTICS_SINK, lib

__all__ = [
    "DiagnosticLevel", "set_diagnostics_sink", "set_main_bundle", "set_collection_server_host",
    "init_with_key", "set_secure_url", "set_log_level", "check_updates", "flush",
    "set_waiting_event_limits", "dropped_event_count", "set_persistent_queue",
    "set_collection_allowed", "discarded_without_consent_count", "forget_device",
    "discarded_by_forget_count", "set_idempotency_keys", "set_saved_event_limits", "send_username", "send_warehouse",
    "send_error", "send_device_name", "send_device_custom_name", "send_event_with_player_id",
    "send_event_with_page_name", "send_user_login_event", "send_user_can_not_login_event",
    "send_user_logout_event", "send_location_service_status_event", "send_bluetooth_status_event",
    "send_external_accessory_battery_is_low_event", "send_external_accessory_battery_status",
    "send_app_open_event", "send_app_open_event_with_device_name",
    "send_app_open_event_with_username", "send_app_close_event", "send_data_not_retrieved_event",
    "send_event_with_type", "send_request_start_time", "send_request_end_time", "set_uuid",
    "get_uuid", "save_store_user_id",
]

_logger = logging.getLogger("norvanalytic")


class DiagnosticLevel(enum.IntEnum):
    """How much a diagnostics line matters."""

    DEBUG = 0
    INFO = 1
    WARNING = 2
    ERROR = 3


def _text(value: object, name: str) -> bytes:
    if not isinstance(value, str):
        raise TypeError(f"{name} must be str, not {type(value).__name__}")
    if "\0" in value:
        raise ValueError(f"{name} must not contain a NUL character")
    # Lone surrogates go through as the bytes they are; the SDK sends them as U+FFFD.
    return str.encode(value, "utf-8", "surrogatepass")


def _optional_text(value: object, name: str) -> Optional[bytes]:
    return None if value is None else _text(value, name)


def _integer(value: object, name: str, bits: int = 64, signed: bool = True) -> int:
    if isinstance(value, bool) or not isinstance(value, int):
        raise TypeError(f"{name} must be int, not {type(value).__name__}")
    low, high = (-2**(bits - 1), 2**(bits - 1)) if signed else (0, 2**bits)
    if not low <= value < high:
        raise ValueError(f"{name} must be in [{low}, {high})")
    return int(value)


def _number(value: object, name: str) -> float:
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise TypeError(f"{name} must be a number, not {type(value).__name__}")
    return float(value)


def _flag(value: object, name: str) -> int:
    if not isinstance(value, bool):
        raise TypeError(f"{name} must be bool, not {type(value).__name__}")
    return 1 if value else 0


def _level(level: int) -> "DiagnosticLevel | int":
    try:
        return DiagnosticLevel(level)
    except ValueError:  # a level newer than this package
        return level


# The sink in force; kept here so that its C function stays alive while the SDK may call it.
_sink_lock = threading.Lock()
_sink_function = None


def set_diagnostics_sink(sink: Optional[Callable[[DiagnosticLevel, str], None]]) -> None:
    """Receive what the console never shows: lost events, refused settings, failed stores.

    ``sink(level, line)`` runs on a thread of the SDK's, one line at a time in the order they were
    said, a moment after they were said, and never under a lock of the SDK's: it may call any
    other function of this package. What it raises is logged on the ``norvanalytic`` logger and
    goes no further. ``None`` turns the sink off; once this returns, the lines said before it
    have reached the previous sink, which is no longer called (so a sink must not call this
    function itself).
    """
    global _sink_function
    if sink is not None and not callable(sink):
        raise TypeError(f"sink must be callable or None, not {type(sink).__name__}")
    function = ctypes.cast(None, DIAGNOSTICS_SINK)
    if sink is not None:
        def deliver(level: int, line: bytes, _user: object) -> None:
            try:
                sink(_level(level), line.decode("utf-8", "replace"))
            except BaseException:  # never into the SDK's thread
                _logger.exception("the NorvAnalytic diagnostics sink raised")

        function = DIAGNOSTICS_SINK(deliver)
    with _sink_lock:
        lib.norv_set_diagnostics_sink(function, None)
        _sink_function = function


@atexit.register
def _end_sink() -> None:
    # The SDK's threads outlive the interpreter: none may call into it once it is gone.
    set_diagnostics_sink(None)


def set_main_bundle(identifier: str, short_version: Optional[str] = None,
                    build_version: Optional[str] = None) -> None:
    """Name the host app and its version ("CFBundleShortVersionString", "CFBundleVersion").

    Call before ``init_with_key``; the server compares ``short_version`` with the versions it
    offers.
    """
    lib.norv_set_main_bundle(_text(identifier, "identifier"),
                             _optional_text(short_version, "short_version"),
                             _optional_text(build_version, "build_version"))


def set_collection_server_host(host: str) -> bool:
    """Point this process at another collection server, ``"host"`` or ``"host:port"``.

    Returns False, keeping the previous host and saying why on the diagnostics sink, when the
    text is no such host. Call before ``init_with_key``.
    """
    return lib.norv_set_collection_server_host(_text(host, "host")) != 0


def init_with_key(key: str) -> None:
    """Start the SDK with the app's key: collection on, update checks off, resend timer running."""
    lib.norv_init_with_key(_text(key, "key"))


def set_secure_url(secure: bool) -> None:
    """Post to ``https://`` (True) or ``http://`` (False) on the collection server."""
    lib.norv_set_secure_url(_flag(secure, "secure"))


def set_log_level(level: int) -> None:
    """Console detail about each answer, 0 (least) to 3 (most)."""
    lib.norv_set_log_level(_integer(level, "level", 32))


def check_updates(check: bool) -> None:
    """Whether the server may raise the update alert."""
    lib.norv_check_updates(_flag(check, "check"))


# The longest wait one C call takes: norv_flush counts milliseconds in a C int.
_LONGEST_FLUSH_MS = 2**31 - 1


def flush(timeout_s: Optional[float] = None) -> bool:
    """Wait until every event sent before the call was answered or failed.

    True then; False when ``timeout_s`` seconds passed first, or when a bound dropped events
    since the previous flush. ``None`` or ``math.inf`` waits without a limit. Call it before the
    program ends.
    """
    if timeout_s is not None:
        seconds = _number(timeout_s, "timeout_s")
        if math.isnan(seconds):
            raise ValueError("timeout_s must be a number of seconds, not NaN")
        if not math.isinf(seconds) or seconds < 0:
            milliseconds = math.ceil(seconds * 1000.0) if seconds > 0 else 0
            return lib.norv_flush(min(milliseconds, _LONGEST_FLUSH_MS)) != 0
    while True:
        started = time.monotonic()
        if lib.norv_flush(_LONGEST_FLUSH_MS) != 0:
            return True
        # Back before its time: not a time-out but a drop, or the main queue's own thread.
        if time.monotonic() - started < _LONGEST_FLUSH_MS / 1000.0:
            return False


def set_waiting_event_limits(max_events: int, max_bytes: int) -> None:
    """Bound the events waiting for the network; beyond either bound the oldest is dropped."""
    lib.norv_set_waiting_event_limits(_integer(max_events, "max_events", 64, False),
                                      _integer(max_bytes, "max_bytes", 64, False))


def dropped_event_count() -> int:
    """How many events a bound dropped so far in this process.

    Waiting ones, kept ones and, with the persistent queue on, ones in its file.
    """
    return lib.norv_dropped_event_count()


def set_persistent_queue(enabled: bool) -> None:
    """Keep unanswered and refused events in a file, for this process or the next to send.

    Off by default. When on, an event whose request got no answer at all stays in the file and
    is sent again once the network is reachable. Turning it off deletes the file.
    """
    lib.norv_set_persistent_queue(_flag(enabled, "enabled"))


def set_collection_allowed(allowed: bool) -> None:
    """Whether the user agreed to collection; allowed by default.

    While not allowed, event calls discard their events and nothing is sent, read or written;
    withdrawing discards every event recorded before it, wherever it waits. Not remembered across starts: until the
    user agrees, call it with False before anything else, every start.
    """
    lib.norv_set_collection_allowed(_flag(allowed, "allowed"))


def discarded_without_consent_count() -> int:
    """How many events were discarded because collection was not allowed."""
    return lib.norv_discarded_without_consent_count()


def forget_device() -> None:
    """Erase the device UUID and the store user id everywhere we keep them.

    Discards every event recorded before the call, wherever it waits, so that none is sent with
    the new UUID; waits for the keychain store. The next event carries a new UUID.
    """
    lib.norv_forget_device()


def discarded_by_forget_count() -> int:
    """How many events ``forget_device`` discarded."""
    return lib.norv_discarded_by_forget_count()


def set_idempotency_keys(enabled: bool) -> None:
    """Send each event with an ``Idempotency-Key`` header, the same on every resend of it.

    Off by default. Turn it on when the server stores an event once per key, as with the
    persistent queue, which may send an event again after a crash.
    """
    lib.norv_set_idempotency_keys(_flag(enabled, "enabled"))


def set_saved_event_limits(max_events: int, max_bytes: int) -> None:
    """Bound the events kept for resending after a refusal; beyond either the oldest is dropped."""
    lib.norv_set_saved_event_limits(_integer(max_events, "max_events", 64, False),
                                    _integer(max_bytes, "max_bytes", 64, False))


def send_username(username: Optional[str]) -> None:
    """Send the user's name."""
    lib.norv_send_username(_optional_text(username, "username"))


def send_warehouse(warehouse: Optional[str]) -> None:
    """Send the warehouse the user works in."""
    lib.norv_send_warehouse(_optional_text(warehouse, "warehouse"))


def send_error(error: Optional[str]) -> None:
    """Send an error the host met."""
    lib.norv_send_error(_optional_text(error, "error"))


def send_device_name(device_name: Optional[str]) -> None:
    """Send the device's name."""
    lib.norv_send_device_name(_optional_text(device_name, "device_name"))


def send_device_custom_name(device_custom_name: Optional[str]) -> None:
    """Send the name the user gave the device."""
    lib.norv_send_device_custom_name(_optional_text(device_custom_name, "device_custom_name"))


def send_event_with_player_id(player_id: Optional[str]) -> None:
    """Send a player id."""
    lib.norv_send_event_with_player_id(_optional_text(player_id, "player_id"))


def send_event_with_page_name(page_name: Optional[str]) -> None:
    """Send that the user opened a page."""
    lib.norv_send_event_with_page_name(_optional_text(page_name, "page_name"))


def send_user_login_event(parameters: Optional[str], response: Optional[str],
                          username: Optional[str] = None,
                          warehouse: Optional[str] = None) -> None:
    """Send a login: the request's parameters and response, the user and the warehouse."""
    lib.norv_send_user_login_event(
        _optional_text(parameters, "parameters"), _optional_text(response, "response"),
        _optional_text(username, "username"), _optional_text(warehouse, "warehouse"))


def send_user_can_not_login_event(parameters: Optional[str], response: Optional[str],
                                  error: Optional[str] = None) -> None:
    """Send a failed login, with the request's parameters and response and the error."""
    lib.norv_send_user_can_not_login_event(
        _optional_text(parameters, "parameters"), _optional_text(response, "response"),
        _optional_text(error, "error"))


def send_user_logout_event() -> None:
    """Send a logout."""
    lib.norv_send_user_logout_event()


def send_location_service_status_event(value: int) -> None:
    """Send the location service's status."""
    lib.norv_send_location_service_status_event(_integer(value, "value"))


def send_bluetooth_status_event(value: int) -> None:
    """Send Bluetooth's status."""
    lib.norv_send_bluetooth_status_event(_integer(value, "value"))


def send_external_accessory_battery_is_low_event() -> None:
    """Send that an external accessory's battery is low."""
    lib.norv_send_external_accessory_battery_is_low_event()


def send_external_accessory_battery_status(value: int) -> None:
    """Send an external accessory's battery status."""
    lib.norv_send_external_accessory_battery_status(_integer(value, "value"))


def send_app_open_event() -> None:
    """Send that the app opened; the answer may switch collection off or offer an update."""
    lib.norv_send_app_open_event()


def send_app_open_event_with_device_name(device_name: Optional[str]) -> None:
    """Send that the app opened, with the device's name."""
    lib.norv_send_app_open_event_with_device_name(_optional_text(device_name, "device_name"))


def send_app_open_event_with_username(username: Optional[str],
                                      device_name: Optional[str] = None) -> None:
    """Send that the app opened, with the user and the device's name."""
    lib.norv_send_app_open_event_with_username(_optional_text(username, "username"),
                                               _optional_text(device_name, "device_name"))


def send_app_close_event() -> None:
    """Send that the app closes."""
    lib.norv_send_app_close_event()


def send_data_not_retrieved_event(endpoint: Optional[str], parameters: Optional[str],
                                  response: Optional[str]) -> None:
    """Send that the host's request to an endpoint brought no data."""
    lib.norv_send_data_not_retrieved_event(_optional_text(endpoint, "endpoint"),
                                           _optional_text(parameters, "parameters"),
                                           _optional_text(response, "response"))


def send_event_with_type(type_index: int, value: float, endpoint: Optional[str] = None,
                         parameters: Optional[str] = None, response: Optional[str] = None) -> None:
    """Send an event of the catalogue by its index, with a value and its texts."""
    lib.norv_send_event_with_type(_integer(type_index, "type_index", 32), _number(value, "value"),
                                  _optional_text(endpoint, "endpoint"),
                                  _optional_text(parameters, "parameters"),
                                  _optional_text(response, "response"))


def send_request_start_time(start_time: float, endpoint: str) -> None:
    """Note when the host's request to ``endpoint`` started (seconds, as ``time.time()``)."""
    lib.norv_send_request_start_time(_number(start_time, "start_time"),
                                     _text(endpoint, "endpoint"))


def send_request_end_time(end_time: Optional[float], endpoint: str,
                          parameters: Optional[str] = None,
                          response: Optional[str] = None) -> None:
    """Send how long the host's request to ``endpoint`` took, from its noted start.

    ``end_time`` is in seconds as ``time.time()``; ``None`` sends an elapsed time of 0.
    """
    end = math.nan if end_time is None else _number(end_time, "end_time")
    lib.norv_send_request_end_time(end, _text(endpoint, "endpoint"),
                                   _optional_text(parameters, "parameters"),
                                   _optional_text(response, "response"))


def set_uuid() -> None:
    """Make sure the device has a UUID in the keychain."""
    lib.norv_set_uuid()


def get_uuid() -> str:
    """The device's UUID, 36 characters, made and kept on first use."""
    buffer = ctypes.create_string_buffer(40)
    needed = lib.norv_get_uuid(buffer, len(buffer))
    if needed >= len(buffer):
        buffer = ctypes.create_string_buffer(needed + 1)
        lib.norv_get_uuid(buffer, len(buffer))
    return buffer.value.decode("utf-8", "replace")


def save_store_user_id(user_id: Optional[str]) -> None:
    """Keep the host's store user id with the device's identity; ``None`` deletes it."""
    lib.norv_save_store_user_id(_optional_text(user_id, "user_id"))
