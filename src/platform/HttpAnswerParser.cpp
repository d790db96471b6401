#include "platform/HttpAnswerParser.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace NorvAnalytic {

namespace {

// A chunk-size line is a few hex digits; anything longer is not HTTP.
constexpr std::size_t kMaxChunkLineBytes = 1024;

constexpr std::string_view kWhitespace = " \t";

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kWhitespace);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kWhitespace) - first + 1);
}

bool equalsIgnoringCase(std::string_view left, std::string_view right) {
    return std::ranges::equal(left, right, [](char a, char b) {
        const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
        return lower(a) == lower(b);
    });
}

bool hasToken(std::string_view list, std::string_view token) {
    while (!list.empty()) {
        const std::size_t comma = list.find(',');
        if (equalsIgnoringCase(trimmed(list.substr(0, comma)), token)) {
            return true;
        }
        list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
    }
    return false;
}

// Digits only, the whole text, in the given base; false on anything else or on overflow.
bool parseNumber(std::string_view text, std::uint64_t& number, int base) {
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, base);
    return !text.empty() && error == std::errc() && stop == end;
}

}  // namespace

HttpAnswerParser::Step HttpAnswerParser::read(std::string_view bytes, std::size_t& used) {
    used = 0;
    while (used < bytes.size()) {
        const std::string_view rest = bytes.substr(used);
        switch (state_) {
            case State::Body:
            case State::ChunkData: {
                const std::size_t take =
                    static_cast<std::size_t>(std::min<std::uint64_t>(remaining_, rest.size()));
                used += take;
                remaining_ -= take;
                if (appendBody(rest.substr(0, take)) != Step::NeedMore) {
                    return Step::Answered;
                }
                if (remaining_ == 0) {
                    if (state_ == State::Body) {
                        return answered();
                    }
                    state_ = State::ChunkEnd;
                }
                break;
            }
            case State::UntilClose:
                used = bytes.size();
                if (appendBody(rest) != Step::NeedMore) {
                    return Step::Answered;
                }
                break;
            case State::Failed:
                return Step::Failed;
            default: {
                const std::size_t newline = rest.find('\n');
                const std::size_t take =
                    newline == std::string_view::npos ? rest.size() : newline + 1;
                const bool inHeaders = state_ == State::StatusLine || state_ == State::Headers ||
                                       state_ == State::Trailers;
                headerBytes_ += inHeaders ? take : 0;
                if ((inHeaders && headerBytes_ > kMaxHeaderBytes) ||
                    (!inHeaders && line_.size() + take > kMaxChunkLineBytes)) {
                    return fail(inHeaders ? "The answer's header section is longer than 64 KiB"
                                          : "The answer's chunked body is malformed");
                }
                line_.append(rest.substr(0, take));
                used += take;
                if (newline == std::string_view::npos) {
                    break;
                }
                std::string_view line(line_);
                line.remove_suffix(line.ends_with("\r\n") ? 2 : 1);
                const Step step = readLine(line);
                line_.clear();
                if (step != Step::NeedMore) {
                    return step;
                }
            }
        }
    }
    return Step::NeedMore;
}

HttpAnswerParser::Step HttpAnswerParser::endOfStream() {
    if (state_ == State::UntilClose) {
        return answered();
    }
    if (isBetweenAnswers()) {
        return Step::NeedMore;
    }
    return fail("The connection closed before the answer was complete");
}

HttpAnswerParser::Answer HttpAnswerParser::takeAnswer() { return std::exchange(answer_, {}); }

HttpAnswerParser::Step HttpAnswerParser::readLine(std::string_view line) {
    switch (state_) {
        case State::StatusLine: {
            // A stray empty line between answers is tolerated, as HTTP asks of a client.
            if (line.empty()) {
                headerBytes_ = 0;
                return Step::NeedMore;
            }
            std::uint64_t status = 0;
            if (line.size() < 12 || !line.starts_with("HTTP/1.") || line[8] != ' ' ||
                (line.size() > 12 && line[12] != ' ') ||
                !parseNumber(line.substr(9, 3), status, 10) || (line[7] != '0' && line[7] != '1')) {
                return fail("The answer is not HTTP/1.x");
            }
            http10_ = line[7] == '0';
            answer_.status = static_cast<long>(status);
            state_ = State::Headers;
            return Step::NeedMore;
        }
        case State::Headers: {
            if (line.empty()) {
                return startBody();
            }
            const std::size_t colon = line.find(':');
            if (colon == std::string_view::npos || colon == 0) {
                return fail("The answer has a header line without a name");
            }
            const std::string_view name = line.substr(0, colon);
            const std::string_view value = trimmed(line.substr(colon + 1));
            if (equalsIgnoringCase(name, "content-length")) {
                std::uint64_t length = 0;
                if (!parseNumber(value, length, 10) || (hasLength_ && length != remaining_)) {
                    return fail("The answer's Content-Length is not valid");
                }
                hasLength_ = true;
                remaining_ = length;
            } else {
                header(name, value);
            }
            return Step::NeedMore;
        }
        case State::ChunkSize: {
            std::uint64_t size = 0;
            if (!parseNumber(trimmed(line.substr(0, line.find(';'))), size, 16)) {
                return fail("The answer's chunked body is malformed");
            }
            if (size > maxBodyBytes_ - answer_.body.size()) {
                return appendBody(std::string_view(nullptr, 0), true);
            }
            remaining_ = size;
            state_ = size == 0 ? State::Trailers : State::ChunkData;
            return Step::NeedMore;
        }
        case State::ChunkEnd:
            if (!line.empty()) {
                return fail("The answer's chunked body is malformed");
            }
            state_ = State::ChunkSize;
            return Step::NeedMore;
        case State::Trailers:
            return line.empty() ? answered() : Step::NeedMore;
        default:
            return fail("The answer's parser lost its place");
    }
}

void HttpAnswerParser::header(std::string_view name, std::string_view value) {
    if (equalsIgnoringCase(name, "transfer-encoding")) {
        // Only a final "chunked" delimits the body; any other coding runs to the close.
        const std::string_view last = trimmed(value.substr(value.rfind(',') + 1));
        chunked_ = equalsIgnoringCase(last, "chunked");
        untilClose_ = !chunked_;
    } else if (equalsIgnoringCase(name, "connection")) {
        connectionClose_ = connectionClose_ || hasToken(value, "close");
    } else if (equalsIgnoringCase(name, "location")) {
        answer_.location = std::string(value);
    }
}

HttpAnswerParser::Step HttpAnswerParser::startBody() {
    const long status = answer_.status;
    if (status >= 100 && status < 200) {
        if (status == 101) {
            return fail("The server switched to another protocol");
        }
        resetForNextAnswer();
        answer_ = Answer();
        return Step::NeedMore;
    }
    if (status == 204 || status == 304) {
        return answered();
    }
    if (chunked_) {
        state_ = State::ChunkSize;
        return Step::NeedMore;
    }
    if (hasLength_ && !untilClose_) {
        if (remaining_ > maxBodyBytes_) {
            return appendBody(std::string_view(nullptr, 0), true);
        }
        state_ = State::Body;
        return remaining_ == 0 ? answered() : Step::NeedMore;
    }
    state_ = State::UntilClose;
    return Step::NeedMore;
}

HttpAnswerParser::Step HttpAnswerParser::appendBody(std::string_view bytes, bool tooLong) {
    if (tooLong || bytes.size() > maxBodyBytes_ - answer_.body.size()) {
        answer_.bodyTooLong = true;
        answer_.body = std::string();
        // The rest of this answer is never read: the stream ends here for this parser.
        connectionClose_ = true;
        return answered();
    }
    answer_.body.append(bytes);
    return Step::NeedMore;
}

HttpAnswerParser::Step HttpAnswerParser::answered() {
    answer_.keepAlive = !connectionClose_ && !http10_ && state_ != State::UntilClose;
    resetForNextAnswer();
    return Step::Answered;
}

void HttpAnswerParser::resetForNextAnswer() {
    state_ = State::StatusLine;
    headerBytes_ = 0;
    remaining_ = 0;
    chunked_ = false;
    untilClose_ = false;
    hasLength_ = false;
    http10_ = false;
    connectionClose_ = false;
}

HttpAnswerParser::Step HttpAnswerParser::fail(std::string reason) {
    state_ = State::Failed;
    failure_ = std::move(reason);
    return Step::Failed;
}

}  // namespace NorvAnalytic
