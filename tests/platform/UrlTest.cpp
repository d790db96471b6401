#include <NorvAnalytic/URL.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace NorvAnalytic {
namespace {

TEST(URLTest, AcceptsTheUpdateLinksAndKeepsTheirTextAsGiven) {
    const std::vector<std::pair<std::string, std::string>> accepted = {
        {"itms-services://?action=download-manifest&url=https://dl.example.com/app/manifest.plist",
         "itms-services"},
        {"itms-services://?action=download-manifest&url=(null)", "itms-services"},
        {"lindenStoreQRWPT://", "lindenstoreqrwpt"},
        {"HTTPS://Example.com:8443/a/../b?x=1&y=%2F#top", "https"},
        {"http://user:secret@[::1]:8080/path;p=1/", "http"},
        {"http://[fe80::1%25eth0]/", "http"},
        {"custom+scheme.v2-x://host/$(a);b'c'*,=!@:", "custom+scheme.v2-x"},
    };
    for (const auto& [text, scheme] : accepted) {
        auto url = URL::URLWithString(text);
        ASSERT_TRUE(url.has_value()) << text;
        // curl would rewrite these ("itms-services:///?", dot segments, lower-case host).
        EXPECT_EQ(url->absoluteString(), text);
        EXPECT_EQ(url->scheme(), scheme);
    }
}

TEST(URLTest, RefusesWhitespaceAndControlCharactersAnywhere) {
    const std::vector<std::string> refused = {
        "https://dl.example.com/app manifest.plist",
        "https://dl example.com/",
        "https://dl.example.com/?q=a b",
        "https://dl.example.com/#a b",
        "itms-services://?action=download-manifest&url=https://x/my app.plist",
        " https://dl.example.com/",
        "https://dl.example.com/ ",
        "https://dl.example.com/\t",
        "https://dl.example.com/\r\nX-Injected: 1",
        "https://dl.example.com/\x7f",
        "https://dl.example.com/\x01",
        // An embedded NUL must not cut the text short into a valid URL.
        std::string("https://dl.example.com/\0evil", 28),
    };
    for (const auto& text : refused) {
        EXPECT_FALSE(URL::URLWithString(text).has_value()) << text;
    }
}

TEST(URLTest, RefusesWhatNoURICanHoldEvenWhereCurlWouldTakeIt) {
    const std::vector<std::string> refused = {
        "https://dl.example.com/`touch /tmp/x`",
        "https://dl.example.com/`id`",
        "https://dl.example.com/\"quoted\"",
        "https://dl.example.com/<script>",
        "https://dl.example.com/{a}",
        "https://dl.example.com/a|b",
        "https://dl.example.com/a\\b",
        "https://dl.example.com/a^b",
        "https://dl.example.com/caf\xc3\xa9",
        "https://dl.example.com/%zz",
        "https://dl.example.com/%4",
        "https://dl.example.com/#a#b",
        "https://dl.example.com/[a]",
        "https://dl.example.com/?x=[1]",
        "1abc://host/",
    };
    for (const auto& text : refused) {
        EXPECT_FALSE(URL::URLWithString(text).has_value()) << text;
    }
}

TEST(URLTest, RefusesWhatCurlCannotParse) {
    const std::vector<std::string> refused = {
        "",
        "dl.example.com/manifest.plist",
        "://dl.example.com/",
        "https://dl.example.com:99999/",
        "https://dl.example.com:port/",
        "http://[zz::1]/",
        // curl 7.88 parses only the "scheme://" form, so opaque URLs are refused too.
        "mailto:someone@example.com",
        "lindenStoreQRWPT:",
    };
    for (const auto& text : refused) {
        EXPECT_FALSE(URL::URLWithString(text).has_value()) << text;
    }
}

}  // namespace
}  // namespace NorvAnalytic
