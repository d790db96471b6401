#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace NorvAnalytic::Collector {

// A client that writes bytes as a test chooses, however slow or malformed: a connection to
// 127.0.0.1 that no HTTP library would make.
class RawConnection {
public:
    explicit RawConnection(int port);
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    // False once the server has closed the connection.
    bool send(std::string_view bytes);
    void shutdownWrite();
    // True once the server has answered or closed the connection.
    bool heardBack() const;
    // Everything the server sends until it closes the connection or `timeout` passes.
    std::string receiveAll(std::chrono::milliseconds timeout);

private:
    int socket_ = -1;
};

}  // namespace NorvAnalytic::Collector
