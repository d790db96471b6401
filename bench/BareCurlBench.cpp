#include <curl/curl.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "BurstSize.h"
#include "FormBody.h"
#include "ProcessCpu.h"

// libcurl's multi interface alone, as a yardstick for the SDK's delivery: 64 easy handles
// reused, HTTP/2 multiplexed on one connection where the server offers it (six HTTP/1.1
// connections otherwise), a body of the SDK's size, 100,000 POSTs (NORV_THROUGHPUT_EVENTS).
// NORV_BARE_PARSED_URL=1 hands the handles the URL parsed once, as the SDK does, instead of text.
// usage: bare_curl_bench URL [CA file]
namespace {

constexpr int kHandles = 64;

using NorvAnalytic::Bench::cpuMicroseconds;

std::size_t discard(char*, std::size_t size, std::size_t count, void*) { return size * count; }

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: bare_curl_bench URL [CA file]\n");
        return 2;
    }
    const std::string body(NorvAnalytic::Bench::kFormBody);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    CURLM* multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, 6L);
    const bool tls = std::string(argv[1]).starts_with("https:");
    CURLU* parsedUrl = nullptr;
    if (const char* parsed = std::getenv("NORV_BARE_PARSED_URL");
        parsed && std::string(parsed) == "1") {
        parsedUrl = curl_url();
        curl_url_set(parsedUrl, CURLUPART_URL, argv[1], 0);
    }
    std::vector<CURL*> idle;
    for (int index = 0; index < kHandles; ++index) {
        CURL* easy = curl_easy_init();
        curl_easy_setopt(easy, CURLOPT_URL, argv[1]);
        curl_easy_setopt(easy, CURLOPT_CURLU, parsedUrl);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &discard);
        curl_easy_setopt(easy, CURLOPT_PIPEWAIT, tls ? 1L : 0L);
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        if (argc > 2) {
            curl_easy_setopt(easy, CURLOPT_CAINFO, argv[2]);
        }
        idle.push_back(easy);
    }
    const int requests = NorvAnalytic::Bench::burstSize();
    const double cpuBefore = cpuMicroseconds();
    const auto start = std::chrono::steady_clock::now();
    int started = 0;
    int done = 0;
    int failed = 0;
    while (done < requests) {
        while (!idle.empty() && started < requests) {
            curl_multi_add_handle(multi, idle.back());
            idle.pop_back();
            ++started;
        }
        int running = 0;
        curl_multi_perform(multi, &running);
        int left = 0;
        const int doneBefore = done;
        while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
            if (message->msg == CURLMSG_DONE) {
                long status = 0;
                curl_easy_getinfo(message->easy_handle, CURLINFO_RESPONSE_CODE, &status);
                failed += message->data.result != CURLE_OK || status != 200;
                curl_multi_remove_handle(multi, message->easy_handle);
                idle.push_back(message->easy_handle);
                ++done;
            }
        }
        // Handles just freed go back in at once; only a pass that freed none waits.
        if (done == doneBefore) {
            curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("bare libcurl: %.0f requests/s, %.1f us CPU/request, %d failed\n",
                requests / seconds, (cpuMicroseconds() - cpuBefore) / requests, failed);
    return failed == 0 ? 0 : 1;
}
