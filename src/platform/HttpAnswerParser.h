#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace NorvAnalytic {

// Reads HTTP/1.x answers from a byte stream, one after another, as the bytes arrive. Every
// piece it holds is bounded: the header section by kMaxHeaderBytes, a body by the cap given.
class HttpAnswerParser {
public:
    static constexpr std::size_t kMaxHeaderBytes = 64 << 10;

    struct Answer {
        long status = 0;
        std::string body;
        // The body ran past the cap: it is handed over empty, and the stream cannot go on.
        bool bodyTooLong = false;
        // Whether the stream may carry another answer after this one.
        bool keepAlive = false;
        std::string location;
    };

    enum class Step { NeedMore, Answered, Failed };

    explicit HttpAnswerParser(std::size_t maxBodyBytes) : maxBodyBytes_(maxBodyBytes) {}

    // Takes bytes until one answer is complete (Answered: take it with takeAnswer(); the
    // parser then reads the next one), all bytes are used (NeedMore) or the stream is not
    // HTTP (Failed: failure() says why). `used` tells how many bytes were taken.
    Step read(std::string_view bytes, std::size_t& used);
    // The peer ended the stream: an answer whose body runs to the end is complete here.
    Step endOfStream();
    Answer takeAnswer();
    const std::string& failure() const { return failure_; }
    // True between answers, when no byte of the next one has arrived.
    bool isBetweenAnswers() const { return state_ == State::StatusLine && line_.empty(); }

private:
    enum class State {
        StatusLine,
        Headers,
        Body,
        ChunkSize,
        ChunkData,
        ChunkEnd,
        Trailers,
        UntilClose,
        Failed
    };

    Step readLine(std::string_view line);
    void header(std::string_view name, std::string_view value);
    Step startBody();
    Step appendBody(std::string_view bytes, bool tooLong = false);
    Step answered();
    void resetForNextAnswer();
    Step fail(std::string reason);

    std::size_t maxBodyBytes_;
    State state_ = State::StatusLine;
    std::string line_;
    std::size_t headerBytes_ = 0;
    std::uint64_t remaining_ = 0;
    bool chunked_ = false;
    bool hasLength_ = false;
    bool http10_ = false;
    bool untilClose_ = false;
    bool connectionClose_ = false;
    Answer answer_;
    std::string failure_;
};

}  // namespace NorvAnalytic
