#include "system/WebRequest.h"

#include <curl/curl.h>

#include <cctype>
#include <iostream>

long WebRequest::sTimeout_ = 10;

namespace {

// Appends each received block to the target string. A missing block or target
// returns a short count, which makes libcurl abort the transfer.
size_t appendToString(char* data, size_t size, size_t count, void* target) {
    if (data == nullptr || target == nullptr) {
        return static_cast<size_t>(-1);
    }
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

// Frees the handle and the header list however perform() ends.
struct CurlRequest {
    CURL* handle = curl_easy_init();
    curl_slist* headers = nullptr;
    ~CurlRequest() {
        if (headers != nullptr) {
            curl_slist_free_all(headers);
        }
        if (handle != nullptr) {
            curl_easy_cleanup(handle);
        }
    }
};

void setCommonOptions(CURL* handle, const std::string& url, std::string& response, long connectSeconds) {
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_READFUNCTION, nullptr);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, appendToString);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &response);
    // Signals would interrupt other threads of the process; time-outs work without them.
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, connectSeconds);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, connectSeconds * 2);
}

int performRequest(CURL* handle, const std::string& url) {
    const CURLcode code = curl_easy_perform(handle);
    if (code != CURLE_OK) {
        std::cout << url << " FAILED! error:" << code << std::endl;
    }
    return code;
}

}  // namespace

int WebRequest::Get(const std::string& url, std::string& response, int timeout) {
    CurlRequest request;
    if (request.handle == nullptr) {
        return CURLE_FAILED_INIT;
    }
    response.clear();
    setCommonOptions(request.handle, url, response, timeout);
    return performRequest(request.handle, url);
}

int WebRequest::Post(const std::string& url, const std::string& body, std::string& response,
                     const std::string& contentType) {
    CurlRequest request;
    if (request.handle == nullptr) {
        return CURLE_FAILED_INIT;
    }
    setCommonOptions(request.handle, url, response, sTimeout_);
    if (!contentType.empty()) {
        request.headers = curl_slist_append(request.headers, ("Content-Type: " + contentType).c_str());
        curl_easy_setopt(request.handle, CURLOPT_HTTPHEADER, request.headers);
    }
    curl_easy_setopt(request.handle, CURLOPT_POST, 1L);
    curl_easy_setopt(request.handle, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(request.handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    return performRequest(request.handle, url);
}

std::string WebRequest::urlencode(const std::string& text) {
    std::string encoded;
    encoded.reserve(text.size() * 3);
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte < 128 && (std::isalnum(byte) || c == '-' || c == '.' || c == '_' || c == '~')) {
            encoded += c;
        } else if (c == ' ') {
            encoded += '+';
        } else {
            encoded += '%';
            encoded += toHex(static_cast<char>(byte >> 4));
            encoded += toHex(c);
        }
    }
    return encoded;
}

std::string WebRequest::urldecode(const std::string& text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            decoded += static_cast<char>((fromHex(text[i + 1]) << 4) | fromHex(text[i + 2]));
            i += 2;
        } else if (c == '+') {
            decoded += ' ';
        } else {
            decoded += c;
        }
    }
    return decoded;
}

char WebRequest::toHex(char value) {
    static const char digits[] = "0123456789abcdef";
    return digits[static_cast<unsigned char>(value) & 0x0f];
}

char WebRequest::fromHex(char digit) {
    if (digit >= '0' && digit <= '9') {
        return static_cast<char>(digit - '0');
    }
    return static_cast<char>(std::tolower(static_cast<unsigned char>(digit)) - 'a' + 10);
}
