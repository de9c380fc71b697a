#include <gtest/gtest.h>

#include "support/HttpTestServer.h"
#include "support/TestSupport.h"
#include "system/WebRequest.h"

using testsupport::HttpRequest;
using testsupport::HttpResponse;
using testsupport::HttpTestServer;

TEST(WebRequestEncodingTest, EncodesReservedBytesAndSpacesAndDecodesKeepingBrokenEscapes) {
    EXPECT_EQ("a+b%26c", WebRequest::urlencode("a b&c"));
    EXPECT_EQ("-._~AZaz09", WebRequest::urlencode("-._~AZaz09"));
    EXPECT_EQ("%e4%2b%2f%3d%00", WebRequest::urlencode(std::string("\xe4+/=\0", 5)));
    // Decoding keeps broken escapes as they are.
    EXPECT_EQ("AJ x", WebRequest::urldecode("%41%4a+x"));
    EXPECT_EQ("100%", WebRequest::urldecode("100%"));
    EXPECT_EQ("%zz", WebRequest::urldecode("%zz"));
    EXPECT_EQ("%4", WebRequest::urldecode("%4"));
    const std::string allBytes = [] {
        std::string bytes;
        for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
        return bytes;
    }();
    EXPECT_EQ(allBytes, WebRequest::urldecode(WebRequest::urlencode(allBytes)));
}

TEST(WebRequestTransferTest, GetReturnsBodyAndReportsTimeoutAndRefusedConnection) {
    HttpTestServer server;
    server.route("/hello", HttpResponse::text(200, "hello world"));
    std::string response = "stale";
    EXPECT_EQ(0, WebRequest::Get(server.url("/hello?x=1"), response, 5));
    EXPECT_EQ("hello world", response);
    ASSERT_EQ(1u, server.requests().size());
    EXPECT_EQ("GET", server.requests()[0].method);
    EXPECT_EQ("x=1", server.requests()[0].query);

    server.route("/stall", HttpResponse::stalled());
    EXPECT_EQ(28, WebRequest::Get(server.url("/stall"), response, 1));
    EXPECT_EQ(
        7, WebRequest::Get("http://127.0.0.1:" + std::to_string(testsupport::closedLoopbackPort()) + "/", response, 1));
}

TEST(WebRequestTransferTest, PostSendsBodyAndContentTypeAndAppends) {
    HttpTestServer server;
    server.route("/api", [](const HttpRequest& request) { return HttpResponse::text(200, "got " + request.body); });
    std::string response = "before;";
    EXPECT_EQ(0, WebRequest::Post(server.url("/api"), "{\"a\":1}", response, "application/json"));
    EXPECT_EQ("before;got {\"a\":1}", response);
    EXPECT_EQ(0, WebRequest::Post(server.url("/api"), "x=2", response, ""));
    const auto requests = server.requests();
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ("POST", requests[0].method);
    EXPECT_EQ("application/json", requests[0].header("content-type"));
    EXPECT_EQ("x=2", requests[1].body);
    EXPECT_NE("application/json", requests[1].header("content-type"));
}
