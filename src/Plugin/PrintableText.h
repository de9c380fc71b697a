#pragma once
// Text that a package or a plugin supplied (names, versions, configuration
// values, RPC answers), made safe for the operator's tool to print. The
// values themselves are never changed; only what is printed.
#include <string>

class PrintableText {
public:
    // For human-readable output: every byte of a control character (C0
    // including tab, newline, carriage return and ESC; DEL; the C1 controls
    // U+0080-U+009F) and every byte that does not begin a valid UTF-8
    // sequence (overlong forms, surrogates, values above U+10FFFF, stray or
    // missing continuation bytes) is shown as \xHH (lower-case hex), and a
    // backslash as \\, so the text is one line and reads back unambiguously.
    // Valid printable UTF-8 ("插件") is kept as it is.
    static std::string sEscaped(const std::string& text);

    // For JSON text as json-c serialises it (where every byte from 0x7f up
    // stands inside a string literal): each byte that does not begin a valid
    // UTF-8 sequence becomes U+FFFD, and DEL and the C1 controls become
    // \u007f and \u0080-\u009f, so the document is valid UTF-8 JSON with
    // nothing a terminal would act on. Valid text keeps its value.
    static std::string sJson(const std::string& serialized);
};
