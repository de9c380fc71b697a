#include <gtest/gtest.h>
#include <json-c/json.h>

#include <boost/filesystem.hpp>
#include <tuple>

#include "download/strategy/XunleiApiRequest.h"
#include "support/HttpTestServer.h"
#include "support/TestSupport.h"

using datacenter::XunleiApiRequest;
using testsupport::HttpResponse;
using testsupport::HttpTestServer;

namespace {

// Every test talks to its own loopback server in place of the download service.
class XunleiApiRequestTest : public ::testing::Test {
protected:
    void SetUp() override { XunleiApiRequest::sSetUrl(server_.url("/")); }

    // Runs a GET with a fresh request and returns its code; the reply is released.
    ApiErrorCode getCode(const std::string& path) {
        XunleiApiRequest request(path, "");
        ApiErrorCode code = -1;
        json_object_put(request.beginGetRequest(code));
        return code;
    }

    HttpTestServer server_;
};

TEST(XunleiApiRequestUrlTest, QueryHoldsParametersThenVersion) {
    XunleiApiRequest::sSetUrl("http://127.0.0.1:9000/");
    const std::vector<
        std::tuple<std::string, std::string, std::vector<std::pair<std::string, std::string>>, std::string>>
        cases = {{"task", "2", {{"a", "1"}, {"b", "2"}}, "task?a=1&b=2&v=2"},
                 {"task", "2", {}, "task?v=2"},
                 {"unbind", "", {{"x", "a b"}}, "unbind?x=a b"}};
    for (const auto& c : cases) {
        XunleiApiRequest request(std::get<0>(c), std::get<1>(c));
        for (const auto& parameter : std::get<2>(c)) {
            request.addPara(parameter.first, parameter.second);
        }
        request.addParaToUrl();
        EXPECT_EQ("http://127.0.0.1:9000/" + std::get<3>(c), request.url());
    }
}

TEST(XunleiApiRequestReplyTest, RtnCodeBecomesApiErrorCode) {
    XunleiApiRequest request("task", "");
    const std::pair<std::string, ApiErrorCode> cases[] = {
        {"{\"rtn\":0}", 0},         {"{\"rtn\":4216}", 2010},  {"{\"rtn\":107}", 2033},
        {"{\"rtn\":108545}", 2016}, {"{\"rtn\":15414}", 2031}, {"{\"rtn\":999}", 2013},
        {"{\"rtn\":\"5\"}", 0},     {"{\"other\":1}", 0},      {"[1,2]", 0},
    };
    for (const auto& item : cases) {
        ApiErrorCode code = -1;
        json_object* reply = request.getResult(code, item.first);
        EXPECT_NE(nullptr, reply) << item.first;
        EXPECT_EQ(item.second, code) << item.first;
        json_object_put(reply);
    }
    for (const std::string bad : {"oops", "", "{\"rtn\":", "[0"}) {
        ApiErrorCode code = -1;
        EXPECT_EQ(nullptr, request.getResult(code, bad)) << bad;
        EXPECT_EQ(2013, code) << bad;
    }
}

TEST_F(XunleiApiRequestTest, GetSendsQueryAndMapsReply) {
    server_.route("/task", HttpResponse::text(200, "{\"rtn\":4216,\"msg\":\"busy\"}", "application/json"));
    XunleiApiRequest request("task", "2");
    request.addPara("a", "1");
    ApiErrorCode code = -1;
    json_object* reply = request.beginGetRequest(code);
    ASSERT_NE(nullptr, reply);
    EXPECT_EQ(2010, code);
    json_object* message = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(reply, "msg", &message));
    EXPECT_STREQ("busy", json_object_get_string(message));
    json_object_put(reply);
    ASSERT_EQ(1u, server_.requests().size());
    EXPECT_EQ("a=1&v=2", server_.requests()[0].query);
}

TEST_F(XunleiApiRequestTest, TransportFailuresHaveTheirOwnCodes) {
    server_.route("/text", HttpResponse::text(200, "<html>not json</html>"));
    server_.route("/stall", HttpResponse::stalled());
    EXPECT_EQ(2013, getCode("text"));

    XunleiApiRequest::sGetTimeoutSeconds_ = 1;
    EXPECT_EQ(2014, getCode("stall"));
    XunleiApiRequest::sGetTimeoutSeconds_ = 5;

    server_.stop();
    EXPECT_EQ(2015, getCode("unbind"));
}

TEST_F(XunleiApiRequestTest, PostFormSendsEncodedUrlList) {
    server_.route("/add", HttpResponse::text(200, "{\"rtn\":202}"));
    XunleiApiRequest request("add", "2");
    ApiErrorCode code = -1;
    json_object_put(request.postForm(code, "http://a/b c"));
    EXPECT_EQ(2010, code);
    ASSERT_EQ(1u, server_.requests().size());
    const testsupport::HttpRequest sent = server_.requests()[0];
    EXPECT_EQ("POST", sent.method);
    EXPECT_EQ("v=2", sent.query);
    EXPECT_NE(std::string::npos, sent.header("content-type").find("multipart/form-data"));
    EXPECT_NE(std::string::npos, sent.body.find("name=\"plUrls\""));
    EXPECT_NE(std::string::npos, sent.body.find("http%3a%2f%2fa%2fb+c%0d%0a"));
}

TEST_F(XunleiApiRequestTest, UploadSendsFileAndFailedPostIsBadReply) {
    server_.route("/upload", HttpResponse::text(200, "{\"rtn\":0}"));
    const std::string file = testsupport::makeScratchDir("torrents") + "/seed.torrent";
    testsupport::writeFile(file, "torrent-bytes");
    XunleiApiRequest request("upload", "");
    ApiErrorCode code = -1;
    json_object_put(request.uplodaFile(code, file));
    EXPECT_EQ(0, code);
    ASSERT_EQ(1u, server_.requests().size());
    const std::string body = server_.requests()[0].body;
    EXPECT_NE(std::string::npos, body.find("name=\"filepath\"; filename=\"seed.torrent\""));
    EXPECT_NE(std::string::npos, body.find("torrent-bytes"));

    server_.stop();
    XunleiApiRequest refused("upload", "");
    EXPECT_EQ(nullptr, refused.postForm(code, "x"));
    EXPECT_EQ(2013, code);
}

class UnbindTest : public XunleiApiRequestTest {
protected:
    std::string flag_ = testsupport::underRoot("/userdisk/reset_flag_file");
};

TEST_F(UnbindTest, OnlyAConfirmedUnbindRemovesTheFlagFile) {
    server_.route("/unbind", HttpResponse::text(200, "[0]"));
    EXPECT_EQ(0, datacenter::tryUnbindXunleiAfterReset());  // no flag: nothing is sent
    EXPECT_TRUE(server_.requests().empty());
    EXPECT_EQ(0, datacenter::unbindXunleiRequest());
    testsupport::writeFile(flag_, "");
    EXPECT_EQ(0, datacenter::tryUnbindXunleiAfterReset());
    EXPECT_FALSE(boost::filesystem::exists(flag_));
    ASSERT_EQ(2u, server_.requests().size());
    EXPECT_EQ("/unbind", server_.requests()[1].target);
    // A folder in the flag's place is asked about but not removed.
    boost::filesystem::create_directories(flag_);
    EXPECT_EQ(0, datacenter::tryUnbindXunleiAfterReset());
    EXPECT_TRUE(boost::filesystem::is_directory(flag_));
    EXPECT_EQ(3u, server_.requests().size());
}

TEST_F(UnbindTest, AnyOtherReplyKeepsFlag) {
    testsupport::writeFile(flag_, "");
    for (const std::string reply : {"[1]", "{\"rtn\":0}", "[]", "garbage", ""}) {
        if (reply.empty()) {
            server_.stop();
        } else {
            server_.route("/unbind", HttpResponse::text(200, reply));
        }
        EXPECT_EQ(2520, datacenter::unbindXunleiRequest()) << reply;
        EXPECT_EQ(0, datacenter::tryUnbindXunleiAfterReset()) << reply;
        EXPECT_TRUE(boost::filesystem::exists(flag_)) << reply;
    }
}

}  // namespace
