#pragma once

#include <gtest/gtest.h>
#include <httplib.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "CollectorCli.h"
#include "CollectorServer.h"

namespace NorvAnalytic::Collector {

// A collector with a database file of its own, serving on an ephemeral loopback port.
class CollectorTest : public testing::Test {
public:
    // Runs one norv-collector command line; its exit status and everything it printed.
    static std::pair<int, std::string> cli(const std::vector<std::string>& arguments) {
        std::ostringstream out;
        return {CollectorCli::run(arguments, out, out), out.str()};
    }

protected:
    using Json = nlohmann::json;

    ~CollectorTest() override { std::filesystem::remove_all(directory_); }

    // The answer's body to an event; the answer's status must be the one given.
    std::string post(const std::string& body, int status = 200,
                     const httplib::Headers& headers = {}) {
        const auto answer = client_.Post("/api/v3/saveEvent", headers, body, "text/plain");
        EXPECT_TRUE(answer && answer->status == status) << body.substr(0, 100);
        return answer ? answer->body : "";
    }
    Json payloadOf(const std::string& body) { return Json::parse(post(body)).at("payload"); }
    Json state() { return Json::parse(client_.Get("/control/state")->body); }

    // Runs a control command against this collector; true when it exits with 0.
    bool control(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin() + 1, {"--url", url()});
        return cli(arguments).first == 0;
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    // An event's request line and head, for tests that write the rest byte by byte.
    inline static const std::string kEventHead =
        "POST /api/v3/saveEvent HTTP/1.1\r\nHost: 127.0.0.1\r\n";

    const std::filesystem::path directory_ =
        std::filesystem::temp_directory_path() / ("norv-collector-" + std::to_string(getpid()));
    const std::string database_ = (directory_ / "collector.sqlite").string();
    CollectorStore store_{database_};
    CollectorServer server_{store_};
    const int port_ = server_.start("127.0.0.1", 0);
    httplib::Client client_{"127.0.0.1", port_};
};

}  // namespace NorvAnalytic::Collector
