"""Loads libNorvAnalytic.so, from the install prefix this package lies in or from the system's
library folders, and declares its C calls."""

import ctypes
import os

from . import _location

_c_text = ctypes.c_char_p

DIAGNOSTICS_SINK = ctypes.CFUNCTYPE(None, ctypes.c_int, ctypes.c_char_p, ctypes.c_void_p)

# Every C call this package makes: name, result type, argument types.
_SIGNATURES = {
    "norv_set_diagnostics_sink": (None, [DIAGNOSTICS_SINK, ctypes.c_void_p]),
    "norv_set_main_bundle": (None, [_c_text, _c_text, _c_text]),
    "norv_set_collection_server_host": (ctypes.c_int, [_c_text]),
    "norv_init_with_key": (None, [_c_text]),
    "norv_set_secure_url": (None, [ctypes.c_int]),
    "norv_set_log_level": (None, [ctypes.c_int32]),
    "norv_check_updates": (None, [ctypes.c_int]),
    "norv_flush": (ctypes.c_int, [ctypes.c_int]),
    "norv_set_waiting_event_limits": (None, [ctypes.c_size_t, ctypes.c_size_t]),
    "norv_dropped_event_count": (ctypes.c_uint64, []),
    "norv_set_persistent_queue": (None, [ctypes.c_int]),
    "norv_set_collection_allowed": (None, [ctypes.c_int]),
    "norv_discarded_without_consent_count": (ctypes.c_uint64, []),
    "norv_forget_device": (None, []),
    "norv_discarded_by_forget_count": (ctypes.c_uint64, []),
    "norv_set_idempotency_keys": (None, [ctypes.c_int]),
    "norv_set_saved_event_limits": (None, [ctypes.c_size_t, ctypes.c_size_t]),
    "norv_send_username": (None, [_c_text]),
    "norv_send_warehouse": (None, [_c_text]),
    "norv_send_error": (None, [_c_text]),
    "norv_send_device_name": (None, [_c_text]),
    "norv_send_device_custom_name": (None, [_c_text]),
    "norv_send_event_with_player_id": (None, [_c_text]),
    "norv_send_event_with_page_name": (None, [_c_text]),
    "norv_send_user_login_event": (None, [_c_text, _c_text, _c_text, _c_text]),
    "norv_send_user_can_not_login_event": (None, [_c_text, _c_text, _c_text]),
    "norv_send_user_logout_event": (None, []),
    "norv_send_location_service_status_event": (None, [ctypes.c_int64]),
    "norv_send_bluetooth_status_event": (None, [ctypes.c_int64]),
    "norv_send_external_accessory_battery_is_low_event": (None, []),
    "norv_send_external_accessory_battery_status": (None, [ctypes.c_int64]),
    "norv_send_app_open_event": (None, []),
    "norv_send_app_open_event_with_device_name": (None, [_c_text]),
    "norv_send_app_open_event_with_username": (None, [_c_text, _c_text]),
    "norv_send_app_close_event": (None, []),
    "norv_send_data_not_retrieved_event": (None, [_c_text, _c_text, _c_text]),
    "norv_send_event_with_type": (None, [ctypes.c_int32, ctypes.c_float, _c_text, _c_text, _c_text]),
    "norv_send_request_start_time": (None, [ctypes.c_double, _c_text]),
    "norv_send_request_end_time": (None, [ctypes.c_double, _c_text, _c_text, _c_text]),
    "norv_set_uuid": (None, []),
    "norv_get_uuid": (ctypes.c_size_t, [ctypes.c_char_p, ctypes.c_size_t]),
    "norv_save_store_user_id": (None, [_c_text]),
}


def _path() -> str:
    if "/" not in _location.LIBRARY:
        # A SONAME: the dynamic loader finds it in the system's library folders.
        return _location.LIBRARY
    return os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), _location.LIBRARY))


def _load() -> ctypes.CDLL:
    path = _path()
    # CDLL, not PyDLL: each call lets go of the GIL, so an SDK thread that calls back into
    # Python (the diagnostics sink) can run while a Python thread waits in flush().
    library = ctypes.CDLL(path)
    for name, (result, arguments) in _SIGNATURES.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = arguments
    return library


lib = _load()
