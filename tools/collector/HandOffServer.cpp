#include "HandOffServer.h"

namespace NorvAnalytic::Collector {

namespace {

// The accepting thread only hands each connection off, so it runs its tasks itself.
class RunsInline final : public httplib::TaskQueue {
public:
    void enqueue(std::function<void()> task) override { task(); }
    void shutdown() override {}
};

}  // namespace

HandOffServer::HandOffServer(std::function<void(int socket)> accepted)
    : accepted_(std::move(accepted)) {
    new_task_queue = [] { return new RunsInline; };
}

bool HandOffServer::serveOne(httplib::Stream& stream, bool& connectionClosed,
                             const std::function<void(httplib::Request&)>& setUp) {
    return process_request(stream, false, connectionClosed, setUp);
}

bool HandOffServer::process_and_close_socket(int socket) {
    try {
        accepted_(socket);
        return true;
    } catch (const std::exception&) {
        // Out of memory: whoever took the socket has closed it; the next one may fare better.
        return false;
    }
}

}  // namespace NorvAnalytic::Collector
