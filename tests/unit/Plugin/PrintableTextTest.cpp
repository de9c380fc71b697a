// What the operator's tool prints of a plugin's text: escaped for a human
// reader, valid UTF-8 in JSON, valid printable text kept as it is.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <vector>

#include "Plugin/PrintableText.h"

TEST(PrintableText, ControlsAndInvalidUtf8AreEscapedAndValidTextIsKept) {
    struct Case {
        const char* name;
        std::string text;
        std::string escaped;  // for a human reader
        std::string value;    // read back from the JSON document
    };
    const std::string fffd = "\xef\xbf\xbd";
    const std::vector<Case> cases{
        {"plain", "Hello 1.0.0", "Hello 1.0.0", "Hello 1.0.0"},
        {"empty", "", "", ""},
        {"valid multibyte kept", "插件 café 🙂", "插件 café 🙂", "插件 café 🙂"},
        {"tab, newline, carriage return", "a\tb\nc\rd", "a\\x09b\\x0ac\\x0dd", "a\tb\nc\rd"},
        {"backslash is escaped too", "a\\x0a", "a\\\\x0a", "a\\x0a"},
        {"terminal title", "\x1b]0;owned\x07", "\\x1b]0;owned\\x07", "\x1b]0;owned\x07"},
        {"cursor up", "x\x1b[1Ay", "x\\x1b[1Ay", "x\x1b[1Ay"},
        {"DEL", "a\x7f", "a\\x7f", "a\x7f"},
        {"C1 controls (CSI, NEL)", "a\xc2\x9bK\xc2\x85", "a\\xc2\\x9bK\\xc2\\x85", "a\xc2\x9bK\xc2\x85"},
        {"U+00A0 is printable", "a\xc2\xa0z", "a\xc2\xa0z", "a\xc2\xa0z"},
        {"stray continuation byte", "a\x80z", "a\\x80z", "a" + fffd + "z"},
        {"Latin-1 byte", "caf\xe9", "caf\\xe9", "caf" + fffd},
        {"overlong slash", "\xc0\xaf", "\\xc0\\xaf", fffd + fffd},
        {"overlong NUL in three bytes", "\xe0\x80\x80", "\\xe0\\x80\\x80", fffd + fffd + fffd},
        {"overlong in four bytes", "\xf0\x8f\xbf\xbf", "\\xf0\\x8f\\xbf\\xbf", fffd + fffd + fffd + fffd},
        {"surrogate U+D800", "\xed\xa0\x80", "\\xed\\xa0\\x80", fffd + fffd + fffd},
        {"surrogate pair encoded apart", "\xed\xa0\xbd\xed\xb8\x80", "\\xed\\xa0\\xbd\\xed\\xb8\\x80",
         fffd + fffd + fffd + fffd + fffd + fffd},
        {"above U+10FFFF", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80", fffd + fffd + fffd + fffd},
        {"F5 and FF never occur", "\xf5\xff", "\\xf5\\xff", fffd + fffd},
        {"truncated at the end", "ok\xe6\x8f", "ok\\xe6\\x8f", "ok" + fffd + fffd},
        {"truncated before a quote", "\xe6\x8f\"", "\\xe6\\x8f\"", fffd + fffd + "\""},
        {"last valid code point", "\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"},
    };
    for (const Case& c : cases) {
        const std::string escaped = PrintableText::sEscaped(c.text);
        EXPECT_EQ(c.escaped, escaped) << c.name;
        // One line whatever the text: no byte below 0x20 and no DEL.
        for (const char byte : escaped) {
            EXPECT_TRUE(static_cast<unsigned char>(byte) >= 0x20 && byte != 0x7f) << c.name;
        }
        // A document json-c built with the text: valid UTF-8 JSON without
        // DEL or C1 bytes, whose value is the text with invalid bytes replaced.
        json_object* document = json_object_new_object();
        json_object_object_add(document, "name", json_object_new_string(c.text.c_str()));
        const std::string json = PrintableText::sJson(json_object_to_json_string(document));
        json_object_put(document);
        EXPECT_EQ(std::string::npos, json.find('\x7f')) << c.name;
        for (char second = '\x80'; second <= '\x9f'; ++second) {
            EXPECT_EQ(std::string::npos, json.find(std::string("\xc2") + second)) << c.name;
        }
        json_tokener* tokener = json_tokener_new();
        json_tokener_set_flags(tokener, JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
        json_object* parsed = json_tokener_parse_ex(tokener, json.c_str(), static_cast<int>(json.size()));
        json_tokener_free(tokener);
        json_object* name = nullptr;
        EXPECT_TRUE(json_object_object_get_ex(parsed, "name", &name)) << c.name << ": " << json;
        EXPECT_EQ(c.value, name ? json_object_get_string(name) : "") << c.name;
        json_object_put(parsed);
    }
}
