"""The Python package against the built library and a real HTTP server in this process."""

import http.server
import math
import socket
import threading
import unittest

import norvanalytic


class Collector(http.server.ThreadingHTTPServer):
    """Records each POST's body and answers that collection stays on."""

    def __init__(self):
        self.bodies = []
        self.keys = []
        super().__init__(("127.0.0.1", 0), Collector.Handler)
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def stop(self):
        self.shutdown()
        self.server_close()

    @property
    def host(self):
        return f"127.0.0.1:{self.server_address[1]}"

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_POST(self):
            body = self.rfile.read(int(self.headers["Content-Length"]))
            self.server.bodies.append(body.decode("utf-8"))
            self.server.keys.append(self.headers.get("Idempotency-Key"))
            answer = b'{"payload":{"analytics_enabled":true}}'
            self.send_response(200)
            self.send_header("Content-Length", str(len(answer)))
            self.end_headers()
            self.wfile.write(answer)

        def log_message(self, *args):
            pass


def start(host):
    assert norvanalytic.set_collection_server_host(host)
    norvanalytic.init_with_key("py-key")
    norvanalytic.set_secure_url(False)


class NorvAnalyticTest(unittest.TestCase):
    def tearDown(self):
        norvanalytic.set_diagnostics_sink(None)

    def test_arguments_of_the_wrong_kind_raise_before_anything_is_sent(self):
        rows = [
            (TypeError, norvanalytic.init_with_key, (None,)),
            (TypeError, norvanalytic.init_with_key, (b"key",)),
            (TypeError, norvanalytic.set_main_bundle, ("id", 2.3)),
            (TypeError, norvanalytic.set_collection_server_host, (8787,)),
            (TypeError, norvanalytic.set_secure_url, (1,)),
            (TypeError, norvanalytic.send_event_with_page_name, (["Orders"],)),
            (TypeError, norvanalytic.send_user_login_event, ("p", "r", 7)),
            (TypeError, norvanalytic.send_bluetooth_status_event, ("1",)),
            (TypeError, norvanalytic.send_event_with_type, (1, "0.5")),
            (TypeError, norvanalytic.send_request_start_time, (None, "/a")),
            (TypeError, norvanalytic.flush, ("1",)),
            (ValueError, norvanalytic.flush, (math.nan,)),
            (TypeError, norvanalytic.set_idempotency_keys, (1,)),
            (TypeError, norvanalytic.set_diagnostics_sink, ("print",)),
            (ValueError, norvanalytic.send_event_with_page_name, ("Or\0ders",)),
            (ValueError, norvanalytic.send_event_with_type, (2**31, 0.0)),
            (ValueError, norvanalytic.set_waiting_event_limits, (-1, 10)),
            (TypeError, norvanalytic.set_collection_allowed, ("no",)),
            (TypeError, norvanalytic.set_persistent_queue, (None,)),
            (ValueError, norvanalytic.set_saved_event_limits, (10, -1)),
        ]
        collector = Collector()
        start(collector.host)
        for error, call, arguments in rows:
            with self.subTest(call=call.__name__, arguments=arguments):
                self.assertRaises(error, call, *arguments)
        self.assertTrue(norvanalytic.flush(10))
        self.assertEqual(collector.bodies, [])
        collector.stop()

    def test_events_reach_the_server_and_flush_waits_for_their_answers(self):
        collector = Collector()
        start(collector.host)
        norvanalytic.send_event_with_page_name("Orders")
        # A lone surrogate is no UTF-8: it goes out as U+FFFD, never a reason to drop the event.
        norvanalytic.send_username("ann\ud800")
        norvanalytic.send_request_start_time(1000.0, "/orders")
        norvanalytic.send_request_end_time(1002.5, "/orders")
        self.assertTrue(norvanalytic.flush(10))
        # Over several connections, in any order.
        self.assertEqual(len(collector.bodies), 3)
        page = [body for body in collector.bodies if "&pageName=Orders&" in body]
        self.assertEqual(len(page), 1, collector.bodies)
        self.assertIn("&type=7&", page[0])
        # The surrogate's three bytes are three invalid sequences, one U+FFFD each.
        self.assertTrue(any("&username=ann\ufffd\ufffd\ufffd&" in body for body in collector.bodies))
        self.assertTrue(any("value=2.500000&type=1&endpoint=/orders&" in body
                            for body in collector.bodies))
        uuid = norvanalytic.get_uuid()
        self.assertEqual(len(uuid), 36)
        self.assertIn(f"&device_uuid={uuid}&", page[0])
        # Without consent an event is counted and never sent (withdrawn only once nothing
        # waits, since withdrawing discards what waits).
        discarded = norvanalytic.discarded_without_consent_count()
        norvanalytic.set_collection_allowed(False)
        norvanalytic.send_event_with_page_name("Private")
        norvanalytic.set_collection_allowed(True)
        self.assertEqual(norvanalytic.discarded_without_consent_count(), discarded + 1)
        self.assertTrue(norvanalytic.flush(10))
        self.assertEqual(len(collector.bodies), 3)
        # With keys on, an event carries one; "as long as it takes" is infinity or None.
        norvanalytic.set_idempotency_keys(True)
        norvanalytic.send_event_with_page_name("Keyed")
        self.assertTrue(norvanalytic.flush(math.inf))
        norvanalytic.set_idempotency_keys(False)
        self.assertTrue(norvanalytic.flush(None))
        self.assertEqual(collector.keys[:3], [None, None, None])
        self.assertRegex(collector.keys[3], r'^"[0-9a-f]{32}-[0-9a-f]+"$')
        collector.stop()

    def test_a_sink_that_raises_is_logged_and_the_sdk_goes_on(self):
        with socket.socket() as closed:
            closed.bind(("127.0.0.1", 0))
            nobody = f"127.0.0.1:{closed.getsockname()[1]}"
        lines = []

        def sink(level, line):
            lines.append((level, line))
            if len(lines) == 1:
                raise RuntimeError("the host's sink failed")

        norvanalytic.set_diagnostics_sink(sink)
        start(nobody)
        with self.assertLogs("norvanalytic", "ERROR") as logged:
            norvanalytic.send_event_with_page_name("Lost")
            self.assertTrue(norvanalytic.flush(10))
        self.assertIn("RuntimeError: the host's sink failed", logged.output[0])
        norvanalytic.send_event_with_page_name("Lost again")
        self.assertTrue(norvanalytic.flush(10))
        self.assertIsInstance(lines[0][0], norvanalytic.DiagnosticLevel)
        # The sink still receives lines after raising (the resend timer may add more).
        lost = [line for _, line in lines if "was not delivered" in line]
        self.assertGreaterEqual(len(lost), 2, lines)


if __name__ == "__main__":
    unittest.main()
