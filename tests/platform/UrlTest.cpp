#include <NorvAnalytic/URL.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace NorvAnalytic {
namespace {

TEST(URLTest, AcceptsWhatRfc3986AcceptsAndKeepsTheTextAsGiven) {
    struct Row {
        std::string text;
        const char* scheme;  // nullptr: refused
    };
    const std::vector<Row> rows = {
        // curl would rewrite these ("itms-services:///?", dot segments, lower-case host).
        {"itms-services://?action=download-manifest&url=https://dl.example.com/m.plist",
         "itms-services"},
        {"lindenStoreQRWPT://", "lindenstoreqrwpt"},
        {"HTTPS://Example.com:8443/a/../b?x=1&y=%2F#top", "https"},
        {"http://user:secret@[::1]:8080/path;p=1/", "http"},
        {"custom+scheme.v2-x://host/$(a);b'c'*,=!@:", "custom+scheme.v2-x"},
        {"https://dl.example.com/app manifest.plist", nullptr},
        {"https://dl.example.com/\r\nX-Injected: 1", nullptr},
        // An embedded NUL must not cut the text short into a valid URL.
        {std::string("https://dl.example.com/\0evil", 28), nullptr},
        // What no URI holds, though curl would take it.
        {"https://dl.example.com/`id`", nullptr},
        {"https://dl.example.com/caf\xc3\xa9", nullptr},
        {"https://dl.example.com/%zz", nullptr},
        {"https://dl.example.com/%4", nullptr},
        {"https://dl.example.com/[a]", nullptr},
        {"https://dl.example.com/?x=[1]", nullptr},
        {"https://dl.example.com/#a#b", nullptr},
        {"1abc://host/", nullptr},
        // What curl cannot parse.
        {"dl.example.com/manifest.plist", nullptr},
        {"https://dl.example.com:99999/", nullptr},
        {"http://[zz::1]/", nullptr},
    };
    for (const auto& [text, scheme] : rows) {
        auto url = URL::URLWithString(text);
        ASSERT_EQ(url.has_value(), scheme != nullptr) << text;
        if (url) {
            EXPECT_EQ(url->absoluteString(), text);
            EXPECT_EQ(url->scheme(), scheme);
        }
    }
}

}  // namespace
}  // namespace NorvAnalytic
