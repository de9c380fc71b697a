#pragma once
// One blocking HTTP request into a string, and the URL encoding used in query
// strings. Used for the maker's API server, the router's own web API and the
// local download service. Keeps no state; safe from any thread.
#include <string>

class WebRequest {
public:
    virtual ~WebRequest() = default;

    // Connect time-out of Post in seconds; its total time-out is twice this.
    static long sTimeout_;

    // GETs `url` into `response` (cleared first), allowing `timeout` seconds
    // to connect and twice that in total. Returns the libcurl result code:
    // 0 on success, 2 when no curl handle could be made, 28 on a time-out.
    static int Get(const std::string& url, std::string& response, int timeout);

    // POSTs `body` to `url`, appending the reply to `response`. A non-empty
    // `contentType` is sent as the Content-Type header. Time-outs come from
    // sTimeout_. Returns the libcurl result code as Get does.
    static int Post(const std::string& url, const std::string& body, std::string& response,
                    const std::string& contentType);

    // Percent-encodes every byte except ASCII letters, digits and "-._~"; a
    // space becomes "+". Hex digits are lowercase.
    static std::string urlencode(const std::string& text);
    // Reverses urlencode: "%XY" (either case) becomes its byte, "+" a space;
    // a "%" without two hex digits after it is kept as it is.
    static std::string urldecode(const std::string& text);

    // The lowercase hex digit of the low four bits of `value`.
    static char toHex(char value);
    // The value of the hex digit `digit` (either case).
    static char fromHex(char digit);
};
