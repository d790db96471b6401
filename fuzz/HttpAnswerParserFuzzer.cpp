#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/HttpAnswerParser.h"

// Feeds arbitrary bytes from a server to the answer parser twice: in one piece, and cut into
// pieces whose sizes the first byte chooses. Both must give the same answers and the same end,
// and no answer may hold more than the cap.

namespace {

using NorvAnalytic::HttpAnswerParser;

constexpr std::size_t kCap = 64;

std::string parse(std::string_view stream, std::size_t piece) {
    HttpAnswerParser parser(kCap);
    std::string seen;
    for (std::size_t start = 0; start < stream.size(); start += piece) {
        std::string_view bytes = stream.substr(start, piece);
        while (!bytes.empty()) {
            std::size_t used = 0;
            const auto step = parser.read(bytes, used);
            if (used > bytes.size()) {
                std::abort();
            }
            bytes.remove_prefix(used);
            if (step == HttpAnswerParser::Step::Failed) {
                return seen + "|failed";
            }
            if (step == HttpAnswerParser::Step::Answered) {
                const auto answer = parser.takeAnswer();
                if (answer.body.size() > kCap) {
                    std::abort();
                }
                seen += "|" + std::to_string(answer.status) + " " + answer.body;
                if (!answer.keepAlive) {
                    return seen + "|closed";
                }
            }
        }
    }
    return seen + (parser.endOfStream() == HttpAnswerParser::Step::Failed ? "|failed" : "|end");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) {
        return 0;
    }
    const std::string_view stream(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::size_t piece = data[0] % 16 + 1;
    if (parse(stream, stream.size() + 1) != parse(stream, piece)) {
        std::abort();
    }
    return 0;
}
