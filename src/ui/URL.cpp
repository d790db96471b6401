#include <NorvAnalytic/URL.h>

#include <curl/curl.h>

#include <memory>
#include <string_view>

namespace NorvAnalytic {

namespace {

struct CurlUrlCleanup {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using CurlUrl = std::unique_ptr<CURLU, CurlUrlCleanup>;

bool isAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }
bool isHexDigit(char c) {
    return isAsciiDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Unreserved, reserved and '%' are the only characters a URI may hold.
bool isUriCharacter(char c) {
    return isAsciiLetter(c) || isAsciiDigit(c) ||
           std::string_view("-._~:/?#[]@!$&'()*+,;=%").find(c) != std::string_view::npos;
}

// curl lets through what browsers tolerate (quotes, braces, backticks, bytes above 127, stray
// '%'); a URI has none of them, and a handler that gets one may read it differently.
bool holdsOnlyUriCharacters(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (!isUriCharacter(text[i])) {
            return false;
        }
        if (text[i] == '%' &&
            (i + 2 >= text.size() || !isHexDigit(text[i + 1]) || !isHexDigit(text[i + 2]))) {
            return false;
        }
    }
    return true;
}

std::string urlPart(CURLU* handle, CURLUPart which) {
    char* value = nullptr;
    if (curl_url_get(handle, which, &value, 0) != CURLUE_OK || value == nullptr) {
        return {};
    }
    std::string part(value);
    curl_free(value);
    return part;
}

}  // namespace

URL::URL(std::string text, std::string scheme)
    : text_(std::move(text)), scheme_(std::move(scheme)) {}

std::optional<URL> URL::URLWithString(const std::string& text) {
    if (!holdsOnlyUriCharacters(text)) {
        return std::nullopt;
    }
    CurlUrl handle(curl_url());
    if (!handle) {
        return std::nullopt;
    }
    // Any scheme, and an empty authority: "lindenStoreQRWPT://" and "itms-services://?..."
    // name no host.
    if (curl_url_set(handle.get(), CURLUPART_URL, text.c_str(),
                     CURLU_NON_SUPPORT_SCHEME | CURLU_NO_AUTHORITY) != CURLUE_OK) {
        return std::nullopt;
    }
    std::string scheme = urlPart(handle.get(), CURLUPART_SCHEME);
    if (scheme.empty() || !isAsciiLetter(scheme.front())) {
        return std::nullopt;
    }
    // Brackets belong to an IPv6 host and '#' opens the fragment; anywhere else curl keeps them.
    for (CURLUPart part : {CURLUPART_PATH, CURLUPART_QUERY, CURLUPART_FRAGMENT}) {
        if (urlPart(handle.get(), part).find_first_of("[]#") != std::string::npos) {
            return std::nullopt;
        }
    }
    return URL(text, std::move(scheme));
}

}  // namespace NorvAnalytic
