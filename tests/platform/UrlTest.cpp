#include <NorvAnalytic/URL.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace NorvAnalytic {
namespace {

TEST(URLTest, AcceptsWhatRfc3986AcceptsAndKeepsTheTextAsGiven) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        // scheme "": refused
        // curl would rewrite these ("itms-services:///?", dot segments, lower-case host).
        {"itms-services://?action=download-manifest&url=https://dl.example.com/m.plist",
         "itms-services"},
        {"lindenStoreQRWPT://", "lindenstoreqrwpt"},
        {"HTTPS://Example.com:8443/a/../b?x=1&y=%2F#top", "https"},
        {"http://user:secret@[::1]:8080/path;p=1/", "http"},
        {"custom+scheme.v2-x://host/$(a);b'c'*,=!@:", "custom+scheme.v2-x"},
        {"https://dl.example.com/\r\nX-Injected: 1", ""},
        // An embedded NUL must not cut the text short into a valid URL.
        {std::string("https://dl.example.com/\0evil", 28), ""},
        // What no URI holds, though curl would take it.
        {"https://dl.example.com/`id`", ""},
        {"https://dl.example.com/caf\xc3\xa9", ""},
        {"https://dl.example.com/%zz", ""},
        {"https://dl.example.com/%4", ""},
        {"https://dl.example.com/?x=[1]", ""},
        {"https://dl.example.com/#a#b", ""},
        {"1abc://host/", ""},
        // What curl cannot parse.
        {"dl.example.com/manifest.plist", ""},
        {"https://dl.example.com:99999/", ""},
        {"http://[zz::1]/", ""},
    };
    for (const auto& [text, scheme] : rows) {
        const auto url = URL::URLWithString(text);
        EXPECT_EQ(url ? url->absoluteString() + " " + url->scheme() : "",
                  scheme.empty() ? "" : text + " " + scheme);
    }
}

}  // namespace
}  // namespace NorvAnalytic
