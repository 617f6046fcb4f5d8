// The server's side of the socket protocol (HandleRequest), in-process on a
// simulated host: every request is checked against one schema before any of
// it is used, and whatever a peer sends gets an answer -- never an abort,
// never a wrapped number, never a path for a module name.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "lusctl_fixture.h"

namespace {

using nlohmann::json;

class ServeRequestTest : public lustest::LusctlTest {
  protected:
   void SetUp() override {
      LusctlTest::SetUp();
      OldHost({{"ps0", 4}});
      session_.host = host_.get();
      session_.maxTakeoverThreads = 8;
      session_.scenario = [this](const std::string &line, std::string *output) {
         scenarioLines_.push_back(line);
         *output = "ran";
         return std::string();
      };
   }
   void TearDown() override {
      session_.device.reset();
      LusctlTest::TearDown();
   }
   json Ask(const std::string &line, bool *shutdown = nullptr) {
      bool down = false;
      const std::string answer = lusctl::HandleRequest(session_, line, &down);
      if (shutdown != nullptr) *shutdown = down;
      json a = json::parse(answer, nullptr, false);
      EXPECT_TRUE(a.is_object()) << line << " -> " << answer;
      return a;
   }
   std::string ErrorOf(const std::string &line) {
      json a = Ask(line);
      EXPECT_TRUE(a.contains("error") && a["error"].is_string()) << line << " -> " << a.dump();
      EXPECT_FALSE(a.contains("status")) << line << " -> " << a.dump();
      return a.value("error", std::string());
   }

   lusctl::ServerSession session_;
   std::vector<std::string> scenarioLines_;
};

TEST_F(ServeRequestTest, ANonStringOpOrANonObjectIsRefused) {
   for (const char *line : {R"({"op":1})", R"({"op":null})", "[]", "{}", "true", R"({"op":[]})", R"({"op":{}})",
                            "null", "", "\x01\xff", R"({"op":"hello")", "1e999", R"("hello")"}) {
      EXPECT_EQ(ErrorOf(line), "a request is one line of JSON: an object whose \"op\" is a string") << line;
   }
   EXPECT_EQ(ErrorOf(R"({"op":"sideways"})"), "unknown request sideways");
   EXPECT_EQ(Ask(R"({"op":"hello"})")["host"], "hyksim");
}

TEST_F(ServeRequestTest, EachFieldIsCheckedForTypeAndRangeAndNoneIsMissingOrExtra) {
   std::string why;
   ASSERT_EQ(host_->LoadModule("lus-2000", {"fromBuild=1000"}, &why), HYK_OK) << why;
   ASSERT_EQ(Ask(R"({"op":"open"})")["status"], 0);
   struct Case {
      const char *line;
      const char *says;
   };
   const std::vector<Case> cases = {
      // ioctl 4294967302 used to run command 6.
      {R"({"op":"ioctl","cmd":4294967302,"payload":"","length":0})",
       "bad request ioctl: bad value '4294967302' for cmd: a whole number from 0 to 4294967295 is needed"},
      // length=4294967296 used to become 0.
      {R"({"op":"ioctl","cmd":6,"payload":"","length":4294967296})", "bad value '4294967296' for length"},
      {R"({"op":"ioctl","cmd":-1,"payload":"","length":0})", "bad value '-1' for cmd"},
      {R"({"op":"ioctl","cmd":6.5,"payload":"","length":0})", "bad value '6.5' for cmd"},
      {R"({"op":"ioctl","cmd":1e300,"payload":"","length":0})", "for cmd: a whole number"},
      {R"({"op":"ioctl","cmd":"6","payload":"","length":0})", "bad request ioctl: cmd: a number is needed"},
      {R"({"op":"ioctl","cmd":6,"payload":"abc","length":0})",
       "bad request ioctl: payload: an even number of hexadecimal digits is needed"},
      {R"({"op":"ioctl","cmd":6,"payload":7,"length":0})", "payload: an even number"},
      {R"({"op":"ioctl","cmd":6,"payload":""})", "bad request ioctl: field 'length' is missing"},
      {R"({"op":"ioctl","cmd":6,"payload":"","length":0,"colour":"red"})",
       "bad request ioctl: it takes no field 'colour'"},
      // threads=-1 asked for 4,294,967,295 threads; 100000 for a 16 GB vector.
      {R"({"op":"takeover","portset":"ps0","build":2000,"threads":-1})",
       "bad request takeover: bad value '-1' for threads: a whole number from 1 to 8 is needed"},
      {R"({"op":"takeover","portset":"ps0","build":2000,"threads":100000})", "bad value '100000' for threads"},
      {R"({"op":"takeover","portset":"ps0","build":2000,"threads":0})", "bad value '0' for threads"},
      {R"({"op":"takeover","portset":"ps0","build":20000000000,"threads":1})", "bad value '20000000000' for build"},
      {R"({"op":"takeover","portset":3,"build":2000,"threads":1})", "portset: a string is needed"},
      {R"({"op":"unblock-port","port":"p"})", "bad request unblock-port: port: a number is needed"},
      {R"({"op":"enable","port":4294967297})", "bad value '4294967297' for port"},
      {R"({"op":"restore-event","port":null})", "port: a number is needed"},
      {R"({"op":"load","name":3,"params":[]})", "bad request load: name: a string is needed"},
      {R"({"op":"load","name":"tarnq-dfw-2000","params":"seed=7"})", "params: an array of at most 256 strings"},
      {R"({"op":"load","name":"tarnq-dfw-2000","params":[7]})", "params: an array of strings is needed"},
      {R"({"op":"load","name":"tarnq-dfw-2000"})", "field 'params' is missing"},
      {R"({"op":"scenario","line":["echo"]})", "bad request scenario: line: a string is needed"},
      {R"({"op":"scenario"})", "bad request scenario: field 'line' is missing"},
      {R"({"op":"hello","x":1})", "bad request hello: it takes no field 'x'"},
   };
   for (const auto &c : cases) {
      const std::string error = ErrorOf(c.line);
      EXPECT_NE(error.find(c.says), std::string::npos) << c.line << "\nwanted: " << c.says << "\ngot: " << error;
   }
   // Nothing of it reached the host: no command ran, no thread was asked for, nothing loaded.
   EXPECT_TRUE(scenarioLines_.empty());
   EXPECT_FALSE(hyksim::FindModule("tarnq-dfw-2000"));
   // And the session goes on.
   EXPECT_EQ(Ask(R"({"op":"ioctl","cmd":99,"payload":"","length":0})")["status"], HYK_BAD_PARAM);
   EXPECT_EQ(Ask(R"({"op":"scenario","line":"echo x"})")["output"], "ran");
}

TEST_F(ServeRequestTest, ModuleNamesAreNamesNotPaths) {
   for (const char *name : {"../../../tmp/evil", "lus-../../x", "/etc/passwd", "a/b-1000", "..", ""}) {
      const json req = {{"op", "load"}, {"name", name}, {"params", json::array()}};
      const std::string error = ErrorOf(req.dump());
      EXPECT_NE(error.find("bad request load: name: bad module name"), std::string::npos) << name << ": " << error;
   }
   EXPECT_NE(ErrorOf(R"({"op":"unload","name":"../lus"})").find("bad module name"), std::string::npos);
   // A name of the module directory loads.
   json a = Ask(R"({"op":"load","name":"tarnq-dfw-2000","params":["seed=7"]})");
   EXPECT_EQ(a["status"], 0) << a.dump();
   EXPECT_TRUE(hyksim::FindModule("tarnq-dfw-2000"));
}

TEST_F(ServeRequestTest, ATakeoverWithinTheLimitRuns) {
   json a = Ask(R"({"op":"takeover","portset":"ps0","build":1000,"threads":8})");
   EXPECT_EQ(a["status"], 0) << a.dump();
}

TEST_F(ServeRequestTest, DeepNestingAndHugeValuesGetAnAnswer) {
   const std::string deep = std::string(100000, '[') + std::string(100000, ']');
   EXPECT_NE(ErrorOf(deep).find("a request is one line of JSON"), std::string::npos);
   const std::string deepField = R"({"op":"hello","x":)" + std::string(100000, '[') + std::string(100000, ']') + "}";
   EXPECT_NE(ErrorOf(deepField).find("it takes no field 'x'"), std::string::npos);
   const std::string longOp = R"({"op":")" + std::string(1 << 20, 'a') + R"("})";
   const std::string error = ErrorOf(longOp);
   EXPECT_LT(error.size(), 100u);
   EXPECT_EQ(error.rfind("unknown request aaaa", 0), 0u) << error;
}

TEST_F(ServeRequestTest, ShutdownIsAnsweredAndSaysSo) {
   bool down = false;
   EXPECT_EQ(Ask(R"({"op":"shutdown"})", &down)["ok"], true);
   EXPECT_TRUE(down);
   EXPECT_FALSE(Ask(R"({"op":"shutdown","now":true})", &down).contains("ok"));
   EXPECT_FALSE(down);
}

}  // namespace
