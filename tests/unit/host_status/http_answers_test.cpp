#include "host/status/http_answers.h"

#include <gtest/gtest.h>

namespace {

namespace http = boost::beast::http;

const StatusOptions kOptions{"127.0.0.1", 9478};

class HttpAnswersTest : public ::testing::Test {
 protected:
  StatusResponse Ask(http::verb method, const char* pszTarget, const char* pszHost = "127.0.0.1:9478") {
    StatusRequest request(method, pszTarget, 11);
    if (pszHost != nullptr) {
      request.set(http::field::host, pszHost);
    }
    return Ask(request);
  }
  StatusResponse Ask(const StatusRequest& request) {
    return AnswerRequest(request, kOptions, [this](std::string_view svTarget) {
      m_strAsked = svTarget;
      return svTarget == "/there" ? std::optional(StatusDocument{"text/x", "body"}) : std::nullopt;
    });
  }

  std::string m_strAsked;
};

TEST_F(HttpAnswersTest, AnswersWithTheDocument) {
  const StatusResponse response = Ask(http::verb::get, "/there");
  EXPECT_EQ(response.result_int(), 200U);
  EXPECT_EQ(response.body(), "body");
  EXPECT_EQ(response[http::field::content_type], "text/x");
  EXPECT_FALSE(response.keep_alive());
}

TEST_F(HttpAnswersTest, AnswersHeadWithoutTheDocument) {
  const StatusResponse response = Ask(http::verb::head, "/there");
  EXPECT_EQ(response.result_int(), 200U);
  EXPECT_EQ(response.body(), "");
  EXPECT_EQ(response[http::field::content_length], "4");
}

TEST_F(HttpAnswersTest, KnowsNoOtherPlaceAndNoOtherMethod) {
  EXPECT_EQ(Ask(http::verb::get, "/there/").result_int(), 404U);
  EXPECT_EQ(Ask(http::verb::get, "/../there").result_int(), 404U);
  m_strAsked.clear();
  for (const http::verb method : {http::verb::post, http::verb::put, http::verb::delete_, http::verb::options,
                                  http::verb::connect, http::verb::trace}) {
    const StatusResponse response = Ask(method, "/there");
    EXPECT_EQ(response.result_int(), 405U);
    EXPECT_EQ(response[http::field::allow], "GET, HEAD");
  }
  EXPECT_EQ(m_strAsked, "");
}

TEST_F(HttpAnswersTest, RefusesARequestThatNamesAnotherHost) {
  for (const char* pszHost : {"evil.example", "evil.example:9478", "127.0.0.1:80", "127.0.0.1:9478.evil.example",
                              "127.0.0.2", "[::1]", "", "localhost:94780", "127.0.0.1:"}) {
    EXPECT_EQ(Ask(http::verb::get, "/there", pszHost).result_int(), 421U) << pszHost;
  }
  EXPECT_EQ(Ask(http::verb::get, "/there", nullptr).result_int(), 421U);
  StatusRequest twice(http::verb::get, "/there", 11);
  twice.insert(http::field::host, "127.0.0.1");
  twice.insert(http::field::host, "evil.example");
  EXPECT_EQ(Ask(twice).result_int(), 421U);
  EXPECT_EQ(m_strAsked, "");
}

TEST_F(HttpAnswersTest, TakesItsOwnNames) {
  for (const char* pszHost : {"127.0.0.1", "127.0.0.1:9478", "localhost", "LocalHost:9478"}) {
    EXPECT_EQ(Ask(http::verb::get, "/there", pszHost).result_int(), 200U) << pszHost;
  }
  EXPECT_TRUE(IsOwnHost("[::1]:80", {"::1", 80}));
  EXPECT_FALSE(IsOwnHost("::1", {"::1", 80}));
}

TEST_F(HttpAnswersTest, EveryAnswerForbidsWhatThePageDoesNotNeed) {
  for (const StatusResponse& response :
       {Ask(http::verb::get, "/there"), Ask(http::verb::get, "/"), Ask(http::verb::post, "/there"),
        Ask(http::verb::get, "/there", "evil.example"), AnswerFailure(http::status::bad_request, "no")}) {
    EXPECT_EQ(response["Content-Security-Policy"].substr(0, 18), "default-src 'none'");
    EXPECT_EQ(response["Content-Security-Policy"].find("unsafe"), std::string::npos);
    EXPECT_EQ(response["X-Content-Type-Options"], "nosniff");
    EXPECT_EQ(response["X-Frame-Options"], "DENY");
    EXPECT_EQ(response["Cache-Control"], "no-store");
    EXPECT_EQ(response["Cross-Origin-Resource-Policy"], "same-origin");
    EXPECT_EQ(response.count("Access-Control-Allow-Origin"), 0U);
  }
}

}  // namespace
