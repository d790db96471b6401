#pragma once

#include <httplib.h>

#include <functional>

namespace NorvAnalytic::Collector {

// httplib's server with its connections handed off: each accepted socket goes to `accepted`
// instead of one of httplib's threads, and whoever then holds it serves one request at a time
// from a stream of its own. Routing, parsing and answers stay httplib's.
class HandOffServer final : public httplib::Server {
public:
    explicit HandOffServer(std::function<void(int socket)> accepted);

    // Parses one request from the stream, routes it and writes its answer; false when the
    // request could not be read or the answer not written. `setUp` sees the parsed head
    // before anything is routed or read of the body.
    bool serveOne(httplib::Stream& stream, bool& connectionClosed,
                  const std::function<void(httplib::Request&)>& setUp);

private:
    bool process_and_close_socket(int socket) override;

    std::function<void(int socket)> accepted_;
};

}  // namespace NorvAnalytic::Collector
